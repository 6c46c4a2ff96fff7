#!/usr/bin/env python3
"""Checks every `#include "folder/..."` of src/ and devbus/ against src/DEPENDENCIES.

Fails, naming file and line, on an include of another folder that the list neither allows as
a folder pair nor names as a shared header, and on any include of another folder from a folder
listed as "FROM -> nothing". With --pairs prints the folder pairs in use.
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
ALLOW_LIST = ROOT / "src" / "DEPENDENCIES"
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"/]+)/([^"]+)"')
RULE = re.compile(r"^(\S+)\s*->\s*(\S+)(?:\s+(.*))?$")


def read_allow_list():
    pairs, shared, closed = set(), set(), set()
    for number, line in enumerate(ALLOW_LIST.read_text().splitlines(), 1):
        line = line.strip()
        if not line or line.startswith("#"):
            continue
        rule = RULE.match(line)
        if rule is None or not rule.group(3):
            sys.exit(f"{ALLOW_LIST.relative_to(ROOT)}:{number}: not 'FROM -> TO reason': {line}")
        source, target = rule.group(1), rule.group(2)
        if target == "nothing":
            closed.add(source)
        elif source == "*":
            shared.add(target)
        else:
            pairs.add((source, target))
    return pairs, shared, closed


def sources():
    """(folder, path) of every C++ file: src/<folder>/... and devbus/..."""
    for path in sorted((ROOT / "src").glob("*/*")):
        yield path.parent.name, path
    for path in sorted((ROOT / "devbus").glob("*")):
        yield "devbus", path


def main():
    pairs, shared, closed = read_allow_list()
    folders = {p.name for p in (ROOT / "src").iterdir() if p.is_dir()} | {"devbus"}
    used, faults = {}, []
    for folder, path in sources():
        if path.suffix not in (".h", ".cpp"):
            continue
        for number, line in enumerate(path.read_text().splitlines(), 1):
            include = INCLUDE.match(line)
            if include is None or include.group(1) not in folders:
                continue
            target = include.group(1)
            if target == folder:
                continue
            used[(folder, target)] = used.get((folder, target), 0) + 1
            header = f"{target}/{include.group(2)}"
            allowed = (folder, target) in pairs or (header in shared and folder not in closed)
            if not allowed:
                faults.append(f"{path.relative_to(ROOT)}:{number}: {folder} -> {header} "
                              f"is not allowed by src/DEPENDENCIES")
    if "--pairs" in sys.argv[1:]:
        for (source, target), count in sorted(used.items()):
            print(f"{source}->{target} {count}")
    for fault in faults:
        print(fault, file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
