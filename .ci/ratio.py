#!/usr/bin/env python3
"""Counts the C++ lines of the tests against the lines of the code.

A counted line is a non-blank line of a .cpp/.h/.hpp/.cc file that is not
only a comment (// lines and the inside of /* */ blocks are left out).
Tests are tests/ and examples/*/tests; code is every other such file of
the tree except bench/ and build/. Prints both counts and the ratio.
"""
import os
import re
import sys

EXTS = (".cpp", ".h", ".hpp", ".cc")
SKIP_DIRS = {"build", ".git"}


def counted_lines(path):
    n = 0
    in_block = False
    with open(path, encoding="utf-8", errors="replace") as f:
        for line in f:
            s = line.strip()
            code = ""
            while s:
                if in_block:
                    end = s.find("*/")
                    if end < 0:
                        s = ""
                        break
                    s = s[end + 2:].strip()
                    in_block = False
                    continue
                if s.startswith("//"):
                    break
                if s.startswith("/*"):
                    in_block = True
                    s = s[2:]
                    continue
                code = s
                break
            if code:
                n += 1
    return n


def kind(rel):
    parts = rel.split(os.sep)
    if parts[0] in ("bench",) or parts[0] in SKIP_DIRS:
        return None
    if parts[0] == "tests":
        return "test"
    if len(parts) > 2 and parts[0] == "examples" and parts[2] == "tests":
        return "test"
    return "code"


def main():
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.dirname(
        os.path.dirname(os.path.abspath(__file__)))
    totals = {"test": 0, "code": 0}
    for dirpath, dirnames, filenames in os.walk(root):
        rel_dir = os.path.relpath(dirpath, root)
        if rel_dir == ".":
            dirnames[:] = [d for d in dirnames if d not in SKIP_DIRS and d != "bench"]
        for name in filenames:
            if not name.endswith(EXTS):
                continue
            rel = os.path.normpath(os.path.join(rel_dir, name))
            k = kind(rel)
            if k:
                totals[k] += counted_lines(os.path.join(dirpath, name))
    t, c = totals["test"], totals["code"]
    print(f"test lines: {t}")
    print(f"code lines: {c}")
    print(f"ratio: {100.0 * t / c:.1f}%")


if __name__ == "__main__":
    main()
