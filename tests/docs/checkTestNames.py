#!/usr/bin/env python3
"""Fails when a document names a test, or a file of the tests, that is not there.

usage: checkTestNames.py SOURCE_DIRECTORY
"""

import pathlib
import re
import sys

root = pathlib.Path(sys.argv[1])
macro = re.compile(r"\bTEST(?:_P|_F)?\(\s*(\w+)\s*,\s*(\w+)\s*\)")
tests = "\n".join(
    ".".join(match.groups())
    for pattern in ("*.cpp", "*.h")
    for file in (root / "tests").rglob(pattern)
    for match in macro.finditer(file.read_text())
)

# `Prefix/Suite.Name`; "..." stands for any part of it. What begins with "..." is of the suite that
# was named before in the paragraph or row.
word = r"[A-Z]\w*[a-z]\w*"
named = re.compile(rf"`(?:\w+/)?((?:\.{{3}})?{word}(?:\.(?:\.\.)?{word})*(?:\.{{3}})?)(?:/[^`]*)?`")
path = re.compile(r"`((?:tests/)?[\w/]+Test\.cpp)`")
found, strangers = 0, []


def pattern_of(name):
    """What tests of the name are called, as a regular expression."""
    return r"[\w.]*".join(re.escape(part) for part in name.split("..."))


for document in [root / "README.md", root / "tests/README.md", *(root / "docs").glob("*.md")]:
    text = document.read_text()
    for line in text.splitlines():
        if not line or line.startswith("|"):
            suite = ""
        for match in named.finditer(line):
            name = match.group(1)
            if "." not in name:
                continue
            if name.startswith("..."):
                pattern = re.escape(suite + ".") + pattern_of(name)
            else:
                suite = name.partition(".")[0]
                pattern = pattern_of(name)
            found += 1
            if not re.search(f"^{pattern}$", tests, re.MULTILINE):
                strangers.append(f"{document.relative_to(root)}: {match.group(0)}")
    for match in path.finditer(text):
        name = match.group(1).removeprefix("tests/")
        found += 1
        if not (root / "tests" / name).exists() and not list((root / "tests").rglob(name)):
            strangers.append(f"{document.relative_to(root)}: {match.group(0)}")

if strangers:
    sys.exit("not among the tests:\n" + "\n".join(strangers))
if found < 50:
    sys.exit(f"the documents name {found} tests; the search for them is broken")
print(f"{found} names of tests in the documents are those of tests")
