#!/usr/bin/env python3
"""Runs qor-utils-demo the way a user does and checks what it leaves behind.

    check_demo.py DEMO VERSION            # every case below
    check_demo.py DEMO VERSION --quick    # only the first run (for an installed demo)
    check_demo.py DEMO VERSION --emulator COMMAND...   # DEMO runs under COMMAND (qemu-user)

Each case runs in a fresh temporary folder. Exits 0 when every case passed,
1 with the reasons otherwise.
"""
import json
import os
import subprocess
import sys
import tempfile

FAILURES = []
EMULATOR = []  # the command that runs a cross-compiled demo, if any


def check(condition, what, output=None):
    if condition:
        print("ok:", what)
    else:
        FAILURES.append(what)
        print("FAILED:", what)
        if output is not None:
            print(output)


def run(demo, folder, *args):
    return subprocess.run([*EMULATOR, demo, *args], cwd=folder, capture_output=True, text=True,
                          errors="replace", timeout=240)


def load_trace(path):
    """The trace document, or None when it is missing or not JSON."""
    try:
        with open(path, encoding="utf-8") as f:
            return json.load(f)
    except (OSError, ValueError) as error:
        print("trace:", error)
        return None


def sections_nest(events):
    """True when, per thread, every end closes an open section and none stays open."""
    depth = {}
    for event in events:
        tid = event.get("tid")
        if event.get("ph") == "B":
            depth[tid] = depth.get(tid, 0) + 1
        elif event.get("ph") == "E":
            depth[tid] = depth.get(tid, 0) - 1
            if depth[tid] < 0:
                return False
    return all(d == 0 for d in depth.values())


def default_run(demo, version):
    """No arguments: built-in samples, every service, a fresh trace.json."""
    with tempfile.TemporaryDirectory() as folder:
        trace = os.path.join(folder, "trace.json")
        with open(trace, "w") as f:
            f.write("left over from an earlier run")
        result = run(demo, folder)
        out = result.stdout
        check(result.returncode == 0, "the demo exits 0", out + result.stderr)
        check("Summary (qor %s)" % version in out, "the summary names version %s" % version, out)
        check("Normal -> Elevated -> High -> Critical -> High -> Elevated -> Normal" in out,
              "the memory status rises to Critical and falls back to Normal", out)
        check("smile \U0001F600" in out, "the CESU-8 pair is repaired into U+1F600", out)
        check('"Koelner Stra\u00dfe 12 und Grosse Allee", 4 replacements recorded' in out,
              "replaceCharacters records its replacements", out)
        check("Idle called" in out, "state-machine reactions are logged", out)
        check("ui.perfetto.dev" in out and "qor-trace export" in out, "the summary says how to open the trace", out)

        document = load_trace(trace)
        check(document is not None, "trace.json replaces the old file and parses as JSON")
        if document is None:
            return
        events = document.get("traceEvents", [])
        names = {e["args"]["name"] for e in events if e.get("name") == "thread_name"}
        check({"DemoScheduler", "TextChecker"} <= names, "tracks of the named threads: %s" % sorted(names))
        recorded = {e.get("name") for e in events if e.get("ph") == "B"}
        check({"memoryStep", "replacements", "routeStateMachine", "validateStrictUtf8"} <= recorded,
              "sections of every job are recorded")
        check(sections_nest(events), "every section is closed, per thread and in order")
        check(any(e.get("name") == "VSYNC" for e in events), "the 60 Hz grid is written")


def file_arguments(demo):
    """Files given as arguments are validated and repaired instead of the samples."""
    with tempfile.TemporaryDirectory() as folder:
        with open(os.path.join(folder, "strict.txt"), "wb") as f:
            f.write("Stra\u00dfe".encode("utf-8"))
        with open(os.path.join(folder, "cesu.txt"), "wb") as f:
            f.write(b"a \xed\xa0\xbd\xed\xb8\x80 b \xff")
        result = run(demo, folder, "strict.txt", "cesu.txt")
        out = result.stdout
        check(result.returncode == 0, "the demo exits 0 with file arguments", out + result.stderr)
        check('UTF-8 "strict.txt": strict, unchanged' in out, "a strict file is reported unchanged", out)
        check('UTF-8 "cesu.txt": not strict, repaired (12 -> 9 bytes)' in out,
              "a CESU-8 file with a stray byte is repaired", out)
        check("2 file(s): 1 strict UTF-8 as given, 1 changed by repair, 2 strict after repair" in out,
              "the summary counts the files", out)


def failures(demo):
    """Failures end with a message and a non-zero status."""
    with tempfile.TemporaryDirectory() as folder:
        result = run(demo, folder, "missing.txt")
        check(result.returncode == 1 and "cannot read missing.txt" in result.stderr,
              "an unreadable file argument is an error", result.stderr)
        check(not os.path.exists(os.path.join(folder, "trace.json")), "nothing is recorded after a usage error")

        result = run(demo, folder, "--no-such-option")
        check(result.returncode == 2 and "usage:" in result.stderr, "an unknown option prints the usage")

        # A folder in the way of trace.json: the trace cannot be written.
        os.makedirs(os.path.join(folder, "trace.json", "keep"))
        result = run(demo, folder)
        check(result.returncode == 1 and "trace.json" in result.stderr,
              "a trace file that cannot be written is an error", result.stderr)


def main():
    if len(sys.argv) < 3:
        print(__doc__)
        return 2
    demo, version = os.path.abspath(sys.argv[1]), sys.argv[2]
    options = sys.argv[3:]
    if "--emulator" in options:
        EMULATOR.extend(options[options.index("--emulator") + 1:])
        options = options[:options.index("--emulator")]
    default_run(demo, version)
    if "--quick" not in options:
        file_arguments(demo)
        failures(demo)
    if FAILURES:
        print("%d check(s) failed" % len(FAILURES))
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
