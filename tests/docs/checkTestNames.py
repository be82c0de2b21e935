#!/usr/bin/env python3
"""Fails when a document names a test, or a file of the tests, that is not there.

usage: checkTestNames.py SOURCE_DIRECTORY
"""

import pathlib
import re
import sys

root = pathlib.Path(sys.argv[1])
macro = re.compile(r"\bTEST(?:_P|_F)?\(\s*(\w+)\s*,\s*(\w+)\s*\)")
tests = {
    ".".join(match.groups())
    for pattern in ("*.cpp", "*.h")
    for file in (root / "tests").rglob(pattern)
    for match in macro.finditer(file.read_text())
}

# `Prefix/Suite.Name...`; "..." stands for the end of a name. A name that begins with "..." is of the
# suite that was named before, and not looked at.
named = re.compile(r"`(?:\w+/)?([A-Z]\w+)\.([A-Z]\w+)(\.\.\.)?(?:/[^`]*)?`")
path = re.compile(r"`((?:tests/)?[\w/]+Test\.cpp)`")
found, strangers = 0, []
for document in [root / "README.md", root / "tests/README.md", *(root / "docs").glob("*.md")]:
    text = document.read_text()
    for match in named.finditer(text):
        suite, name, cut = match.groups()
        whole = f"{suite}.{name}"
        known = any(test.startswith(whole) for test in tests) if cut else whole in tests
        found += 1
        if not known:
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
