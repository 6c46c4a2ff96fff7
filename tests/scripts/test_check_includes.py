#!/usr/bin/env python3
"""scripts/check-includes.py against small trees: each way round the allow-list must fail, and
the tree that keeps to it must pass. Run by CTest (no root needed)."""
import pathlib
import subprocess
import sys
import tempfile
import unittest

CHECKER = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "check-includes.py"

ALLOW_LIST = """\
* -> low/shared.h     every folder's shared declaration
top -> low            top builds on low
low -> nothing        low stands alone
"""
# The tree that keeps to the list: each rule used once.
BASE = {"src/low/shared.h": "", "src/low/impl.h": "", "src/top/top.h": "", "devbus/bus.h": "",
        "src/top/top.cpp": '#include "low/impl.h"\n#include "top/top.h"\n',
        "src/mid/mid.cpp": '#include "low/shared.h"\n#include <string>\n',
        "devbus/bus.cpp": '#include "devbus/bus.h"\n'}
TOP = '#include "top/top.h"'
UNUSED = "is used by no include"

# An include that breaks the list: file added or replaced | its text | line and edge named
INCLUDES = [
    ("src/mid/x.cpp", '#include "../top/top.h"', "1: mid -> top/top.h"),
    ("src/mid/x.cpp", '#include "low/../top/top.h"', "1: mid -> top/top.h"),
    ("src/mid/x.cpp", "#include <top/top.h>", "1: mid -> top/top.h"),
    ("src/mid/table.inc", "\n" + TOP, "2: mid -> top/top.h"),
    ("src/mid/README", '#  include "top/top.h"', "1: mid -> top/top.h"),
    ("src/mid/deep/er/x.h", TOP, "1: mid -> top/top.h"),
    ("src/loose.h", TOP, "1: src -> top/top.h"),
    ("src/low/impl.h", TOP, "1: low -> top/top.h"),
    ("src/top/top.h", '#include "devbus/bus.h"', "1: top -> devbus/bus.h"),
    ("src/mid/x.cpp", '#include "top/gone.h"', "1: mid -> top/gone.h"),
]
# A list that the tree breaks: allow-list | files added or replaced | what stderr names
RULES = [
    # A folder closed by 'nothing' may not take even the shared header (low, open, may).
    (ALLOW_LIST.replace("low -> nothing", "mid -> nothing"),
     {"src/low/impl.h": '#include "../low/x.h"\n', "src/low/x.h": '#include "low/shared.h"\n'},
     "src/mid/mid.cpp:1: mid -> low/shared.h"),
    (ALLOW_LIST + "mid -> top   unused\n", {}, "src/DEPENDENCIES:4: mid -> top " + UNUSED),
    (ALLOW_LIST + "* -> top/top.h  unused\n", {}, "src/DEPENDENCIES:4: * -> top/top.h " + UNUSED),
    # Only top uses the shared header now, and it has a pair rule.
    (ALLOW_LIST, {"src/mid/mid.cpp": "\n"}, "src/DEPENDENCIES:1: * -> low/shared.h " + UNUSED),
    (ALLOW_LIST + "mid -> low\n", {}, "src/DEPENDENCIES:4: not 'FROM -> TO reason'"),
]


def run_checker(files, allow_list):
    with tempfile.TemporaryDirectory() as root:
        for name, text in {**BASE, **files, "src/DEPENDENCIES": allow_list}.items():
            path = pathlib.Path(root, name)
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text)
        return subprocess.run([sys.executable, str(CHECKER), "--root", root],
                              capture_output=True, text=True, timeout=60)


class CheckIncludes(unittest.TestCase):
    def test_the_tree_that_keeps_to_the_list_passes_and_each_bypass_fails_naming_where(self):
        result = run_checker({}, ALLOW_LIST)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        cases = [(ALLOW_LIST, {path: text + "\n"}, f"{path}:{where}")
                 for path, text, where in INCLUDES]
        for allow_list, files, named in cases + RULES:
            with self.subTest(named):
                result = run_checker(files, allow_list)
                self.assertEqual(result.returncode, 1, result.stderr)
                self.assertIn(named, result.stderr)


if __name__ == "__main__":
    unittest.main()
