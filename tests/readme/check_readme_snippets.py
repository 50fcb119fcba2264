#!/usr/bin/env python3
"""Checks that every ```cpp block of README.md is an excerpt of an example.

    check_readme_snippets.py SOURCE_DIR

A block matches when its lines appear as consecutive lines of one of
SOURCE_DIR/examples/*.cpp or *.h; indentation at the start of lines and blanks at
their end are ignored, so that an excerpt from inside a function may be
quoted flush left. The examples are built with the project, so a README
example that no longer compiles or no longer says what the code does fails
here. Exits 0 when every block matched, 1 otherwise.
"""
import glob
import os
import re
import sys


def normalized(lines):
    return [line.strip() for line in lines]


def cpp_blocks(readme):
    """(line number, lines) of each ```cpp block."""
    blocks, current, start = [], None, 0
    for number, line in enumerate(readme.splitlines(), 1):
        if current is None and re.match(r"^\s*```cpp\s*$", line):
            current, start = [], number
        elif current is not None and re.match(r"^\s*```\s*$", line):
            blocks.append((start, current))
            current = None
        elif current is not None:
            current.append(line)
    if current is not None:
        raise ValueError("README.md: the ```cpp block at line %d is not closed" % start)
    return blocks


def contains(haystack, needle):
    if not needle:
        return False
    for i in range(len(haystack) - len(needle) + 1):
        if haystack[i:i + len(needle)] == needle:
            return True
    return False


def main():
    if len(sys.argv) != 2:
        print(__doc__)
        return 2
    source = sys.argv[1]
    with open(os.path.join(source, "README.md"), encoding="utf-8") as f:
        blocks = cpp_blocks(f.read())
    examples = {}
    for path in sorted(glob.glob(os.path.join(source, "examples", "*.[ch]*"))):
        with open(path, encoding="utf-8") as f:
            examples[os.path.relpath(path, source)] = normalized(f.read().splitlines())
    if not blocks:
        print("README.md has no ```cpp block")
        return 1

    failed = 0
    for start, lines in blocks:
        # Blank lines around the code inside the fence do not matter.
        body = normalized(lines)
        while body and not body[0]:
            body.pop(0)
        while body and not body[-1]:
            body.pop()
        found = [name for name, text in examples.items() if contains(text, body)]
        if found:
            print("ok: README.md:%d is in %s" % (start, found[0]))
        else:
            failed += 1
            print("FAILED: README.md:%d (%s) is in none of %s" % (start, body[0] if body else "empty block",
                                                                  ", ".join(examples)))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
