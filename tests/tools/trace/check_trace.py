#!/usr/bin/env python3
"""Runs qor-trace the way a user does, on traces the demo and the timeline
example really write.

    check_trace.py tool TRACE_TOOL DEMO EXAMPLE
    check_trace.py devtools TRACE_TOOL DEMO EXAMPLE ENGINE_DIR

tool: check tells a whole trace from one cut at random bytes, repair and
merge give whole, paired traces, bad input gets a located message.
devtools: the exports of the demo's trace, of a multipart session and of a
trace cut at a random byte are loaded into the DevTools trace engine (npm ci
into ENGINE_DIR from this folder's lock file); every section must come out
right. Skipped (exit 77) where node or npm is missing.
"""
import os
import random
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
FAILURES = []


def check(condition, what, output=""):
    print(("ok: " if condition else "FAILED: ") + what)
    if not condition:
        FAILURES.append(what)
        print(output)


def run(*command, cwd=None):
    result = subprocess.run(command, cwd=cwd, capture_output=True, text=True, errors="replace", timeout=300)
    return result.returncode, result.stdout + result.stderr


def record(demo, example, folder):
    """trace.json of the demo, and trace-parts.json.NNN of the example."""
    code, out = run(demo, cwd=folder)
    check(code == 0, "the demo writes trace.json", out)
    parts = os.path.join(folder, "parts")
    os.mkdir(parts)
    code, out = run(example, cwd=parts)
    check(code == 0 and os.path.exists(os.path.join(parts, "trace-parts.json.002")),
          "the example writes a multipart session", out)
    return os.path.join(folder, "trace.json"), os.path.join(parts, "trace-parts.json")


def part_files(parts):
    folder, base = os.path.split(parts)
    names = [name for name in os.listdir(folder) if name.startswith(base + ".")]
    return [os.path.join(folder, name) for name in sorted(names, key=lambda name: int(name.rsplit(".", 1)[1]))]


def cut(trace, folder, rng):
    data = open(trace, "rb").read()
    grid = data.find(b'"VSYNC"')  # the grid closes the file: cut among the sections
    at = rng.randrange(60, grid if grid > 60 else len(data) - 2)
    path = os.path.join(folder, "cut-at-%d.json" % at)
    open(path, "wb").write(data[:at])
    return path, data[:at]


def tool_checks(tool, trace, parts, folder, rng):
    code, out = run(tool, "check", trace)
    check(code == 0 and out.rstrip().endswith(trace + ": ok"), "check calls the demo's trace whole and paired", out)
    for _ in range(3):
        cut_path, cut_bytes = cut(trace, folder, rng)
        code, out = run(tool, "check", cut_path)
        check(code == 1 and "cut short at byte" in out, "check calls %s cut short" % cut_path, out)
        fixed = cut_path + ".repaired"
        code, out = run(tool, "repair", cut_path, "-o", fixed)
        code2, out2 = run(tool, "check", fixed)
        whole_lines = cut_bytes[:cut_bytes.rfind(b"\n") + 1]
        check(code == 0 and code2 == 0 and open(fixed, "rb").read().startswith(whole_lines.rstrip(b"\n,")),
              "repair keeps every whole event of %s and makes it whole and paired" % cut_path, out + out2)

    merged = os.path.join(folder, "merged.json")
    code, out = run(tool, "merge", parts, "-o", merged)
    code2, out2 = run(tool, "check", merged)
    begins = sum(open(part).read().count('"ph":"B"') for part in part_files(parts))
    check(code == 0 and "paired across file boundaries" in out and code2 == 0 and
          open(merged).read().count('"ph":"B"') == begins and '"thread_name"' in open(merged).read(),
          "merge joins the parts into one whole, paired trace with every section", out + out2)
    code, out = run(tool, "check", parts + ".001")
    check(code == 1 and "qor-trace check " + parts in out, "checking one part points to checking the session", out)

    broken = os.path.join(folder, "broken.json")
    lines = open(trace).read().split("\n")
    lines[5] = lines[5].replace('"ph"', '"ph" "B"', 1)
    open(broken, "w").write("\n".join(lines))
    code, out = run(tool, "check", broken)
    check(code == 1 and "broken at byte" in out and "(line 6)" in out, "check locates a broken event", out)
    code, out = run(tool, "export", trace, "-o", trace)
    check(code == 1 and "is one of the inputs" in out, "export refuses to overwrite its input", out)
    code, out = run(tool, "merge", parts)
    check(code == 2 and "usage:" in out, "a missing -o is a usage error", out)


def devtools_checks(tool, trace, parts, folder, rng, engine):
    node, npm = shutil.which("node"), shutil.which("npm")
    if node is None or npm is None:
        print("SKIPPED: node and npm are needed to run the DevTools trace engine (Debian: apt-get install nodejs npm)")
        sys.exit(77)
    os.makedirs(engine, exist_ok=True)
    for name in ("package.json", "package-lock.json", "check_export.mjs"):
        shutil.copy(os.path.join(HERE, "engine", name), engine)
    code, out = run(npm, "ci", "--no-audit", "--no-fund", "--ignore-scripts", cwd=engine)
    check(code == 0, "npm ci installs the pinned trace engine", out)
    sources = part_files(parts)
    cut_path, _ = cut(trace, folder, rng)
    for what, given, source in (("the demo's trace", [trace], [trace]), ("a multipart session", [parts], sources),
                                ("a trace cut at a random byte", [cut_path], [cut_path])):
        exported = os.path.join(folder, "export-%d.json" % len(source))
        code, out = run(tool, "export", *given, "-o", exported)
        code2, out2 = run(node, os.path.join(engine, "check_export.mjs"), exported, *source)
        check(code == 0 and code2 == 0, "DevTools draws every section of %s right" % what, out + out2)
        print(out2.strip())


def main():
    if len(sys.argv) < 5:
        print(__doc__)
        return 2
    mode, tool, demo, example = sys.argv[1], *map(os.path.abspath, sys.argv[2:5])
    seed = int(os.environ.get("QOR_TRACE_SEED", random.randrange(1 << 30)))
    print("seed %d (QOR_TRACE_SEED=%d repeats this run)" % (seed, seed))
    rng = random.Random(seed)
    with tempfile.TemporaryDirectory() as folder:
        trace, parts = record(demo, example, folder)
        if mode == "tool":
            tool_checks(tool, trace, parts, folder, rng)
        else:
            devtools_checks(tool, trace, parts, folder, rng, os.path.abspath(sys.argv[5]))
    if FAILURES:
        print("%d check(s) failed" % len(FAILURES))
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
