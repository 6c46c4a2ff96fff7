#!/usr/bin/env python3
"""Checks every include of src/ and devbus/ against src/DEPENDENCIES.

Every file under src/ (but the list itself) and devbus/ is read, whatever its suffix or depth;
a file belongs to the first folder of its path (src/proto/x/y.inc is proto's). Each include,
quoted or angled, is resolved as the compiler would find it: a quoted one first beside the
including file, then in the include directories (src/ and the repository root). An include
that lands in another folder must be allowed by a folder pair or name a shared header, and a
folder listed as "FROM -> nothing" includes no other folder at all. Every rule of the list must
be used by at least one include: a rule nothing uses allows what nobody asked for.

Fails naming file and line (or the list's line for an unused rule). --pairs prints the folder
pairs in use; --root DIR checks another tree (the checker's own test uses it).
"""
import argparse
import os
import pathlib
import re
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^">]+)[">]')
RULE = re.compile(r"^(\S+)\s*->\s*(\S+)(?:\s+(.*))?$")


class AllowList:
    def __init__(self, path, root):
        self.pairs, self.shared, self.closed = {}, {}, set()
        for number, line in enumerate(path.read_text(errors="replace").splitlines(), 1):
            line = line.strip()
            if not line or line.startswith("#"):
                continue
            rule = RULE.match(line)
            if rule is None or not rule.group(3):
                sys.exit(f"{path.relative_to(root)}:{number}: not 'FROM -> TO reason': {line}")
            source, target = rule.group(1), rule.group(2)
            if target == "nothing":
                self.closed.add(source)
            elif source == "*":
                self.shared[target] = number
            else:
                self.pairs[(source, target)] = number


class Tree:
    """Where the files live and which folder a path belongs to."""

    def __init__(self, root):
        self.root = root
        self.src = root / "src"
        self.devbus = root / "devbus"
        self.include_dirs = (self.src, root)

    def files(self):
        """(folder, path) of every file under src/ and devbus/, but the allow-list."""
        allow_list = self.src / "DEPENDENCIES"
        for base in (self.src, self.devbus):
            if not base.is_dir():
                continue
            for directory, subdirs, names in os.walk(base):
                subdirs.sort()
                for name in sorted(names):
                    path = pathlib.Path(directory, name)
                    if path != allow_list:
                        yield self.folder_of(path), path

    def folder_of(self, path):
        """devbus, src/<first folder>, or None outside both; "src" for a file in src/ itself."""
        path = pathlib.Path(os.path.normpath(path))
        for base, name in ((self.devbus, "devbus"), (self.src, None)):
            try:
                relative = path.relative_to(base)
            except ValueError:
                continue
            if name:
                return name
            return relative.parts[0] if len(relative.parts) > 1 else "src"
        return None

    def resolve(self, including, quote, name):
        """The path the compiler would open, or None (a system header)."""
        candidates = [including.parent] if quote == '"' else []
        candidates += list(self.include_dirs)
        for directory in candidates:
            path = pathlib.Path(os.path.normpath(directory / name))
            if path.is_file():
                return path
        # A missing file under a folder's name still tells where it points (the compiler
        # fails on it anyway); anything else is taken as a system header.
        if quote == '"' and (name.startswith(".") or "/" in name):
            return pathlib.Path(os.path.normpath(including.parent / name)) \
                if name.startswith(".") else pathlib.Path(os.path.normpath(self.src / name))
        return None

    def shared_name(self, path):
        """The allow-list's name of a header: its path below src/ (or devbus/...)."""
        path = pathlib.Path(os.path.normpath(path))
        try:
            return path.relative_to(self.src).as_posix()
        except ValueError:
            return path.relative_to(self.root).as_posix()


def check(root):
    """(faults, pairs in use with their counts)."""
    tree = Tree(root)
    allow = AllowList(tree.src / "DEPENDENCIES", root)
    used_pairs, used_shared, faults = {}, set(), []
    for folder, path in tree.files():
        text = path.read_bytes().decode("utf-8", errors="replace")
        for number, line in enumerate(text.splitlines(), 1):
            include = INCLUDE.match(line)
            if include is None:
                continue
            target_path = tree.resolve(path, include.group(1), include.group(2))
            target = tree.folder_of(target_path) if target_path else None
            if target is None or target == folder:
                continue
            header = tree.shared_name(target_path)
            pair = (folder, target)
            used_pairs[pair] = used_pairs.get(pair, 0) + 1
            if pair in allow.pairs:
                continue
            if header in allow.shared and folder not in allow.closed:
                used_shared.add(header)
                continue
            faults.append(f"{path.relative_to(root)}:{number}: {folder} -> {header} "
                          f"is not allowed by src/DEPENDENCIES")
    for (source, target), number in sorted(allow.pairs.items(), key=lambda item: item[1]):
        if (source, target) not in used_pairs:
            faults.append(f"src/DEPENDENCIES:{number}: {source} -> {target} is used by no "
                          f"include: remove the rule")
    for header, number in sorted(allow.shared.items(), key=lambda item: item[1]):
        if header not in used_shared:
            faults.append(f"src/DEPENDENCIES:{number}: * -> {header} is used by no include "
                          f"outside a pair's rule: remove the rule")
    return faults, used_pairs


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--pairs", action="store_true", help="print the folder pairs in use")
    parser.add_argument("--root", type=pathlib.Path,
                        default=pathlib.Path(__file__).resolve().parent.parent)
    options = parser.parse_args()
    faults, used = check(options.root.resolve())
    if options.pairs:
        for (source, target), count in sorted(used.items()):
            print(f"{source}->{target} {count}")
    for fault in faults:
        print(fault, file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
