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
BASE = {
    "src/low/shared.h": "#pragma once\n",
    "src/low/impl.h": "#pragma once\n",
    "src/top/top.cpp": '#include "low/impl.h"\n#include "top/top.h"\n',
    "src/top/top.h": "#pragma once\n",
    "src/mid/mid.cpp": '#include "low/shared.h"\n#include <string>\n',
    "devbus/bus.cpp": '#include "devbus/bus.h"\n',
    "devbus/bus.h": "#pragma once\n",
}


def run_checker(files, allow_list=ALLOW_LIST):
    with tempfile.TemporaryDirectory() as root:
        for name, text in {**BASE, **files, "src/DEPENDENCIES": allow_list}.items():
            path = pathlib.Path(root, name)
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text)
        return subprocess.run([sys.executable, str(CHECKER), "--root", root],
                              capture_output=True, text=True, timeout=60)


class CheckIncludes(unittest.TestCase):
    def test_tree_that_keeps_to_the_list_passes(self):
        result = run_checker({})
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stderr, "")

    def test_each_bypass_fails_naming_where(self):
        cases = [
            # (what, files added or replaced, allow-list or None, text the failure names)
            ("relative include", {"src/mid/x.cpp": '#include "../top/top.h"\n'}, None,
             "src/mid/x.cpp:1: mid -> top/top.h"),
            ("relative include through a folder", {"src/mid/x.cpp": '#include "low/../top/top.h"\n'},
             None, "src/mid/x.cpp:1: mid -> top/top.h"),
            ("angle include", {"src/mid/x.cpp": "#include <top/top.h>\n"}, None,
             "src/mid/x.cpp:1: mid -> top/top.h"),
            ("file of another suffix", {"src/mid/table.inc": '\n#include "top/top.h"\n'}, None,
             "src/mid/table.inc:2: mid -> top/top.h"),
            ("file without suffix", {"src/mid/README": '#  include "top/top.h"\n'}, None,
             "src/mid/README:1: mid -> top/top.h"),
            ("file in a subfolder", {"src/mid/deep/er/x.h": '#include "top/top.h"\n'}, None,
             "src/mid/deep/er/x.h:1: mid -> top/top.h"),
            ("file directly in src", {"src/loose.h": '#include "top/top.h"\n'}, None,
             "src/loose.h:1: src -> top/top.h"),
            ("include upwards", {"src/low/impl.h": '#include "top/top.h"\n'}, None,
             "src/low/impl.h:1: low -> top/top.h"),
            ("closed folder and a shared header", {"src/low/impl.h": '#include "../low/x.h"\n',
                                                   "src/low/x.h": '#include "low/shared.h"\n'},
             ALLOW_LIST.replace("low -> nothing", "mid -> nothing"),
             "src/mid/mid.cpp:1: mid -> low/shared.h"),
            ("src including devbus", {"src/top/top.h": '#include "devbus/bus.h"\n'}, None,
             "src/top/top.h:1: top -> devbus/bus.h"),
            ("missing header under a folder's name", {"src/mid/x.cpp": '#include "top/gone.h"\n'},
             None, "src/mid/x.cpp:1: mid -> top/gone.h"),
            ("pair rule nothing uses", {}, ALLOW_LIST + "mid -> top   never used\n",
             "src/DEPENDENCIES:4: mid -> top is used by no include"),
            ("shared rule nothing uses", {}, ALLOW_LIST + "* -> top/top.h   never used\n",
             "src/DEPENDENCIES:4: * -> top/top.h is used by no include"),
            ("shared rule only pair users use", {"src/mid/mid.cpp": "\n"}, None,
             "src/DEPENDENCIES:1: * -> low/shared.h is used by no include"),
        ]
        for what, files, allow_list, expected in cases:
            with self.subTest(what):
                result = run_checker(files, allow_list or ALLOW_LIST)
                self.assertEqual(result.returncode, 1, result.stderr)
                self.assertIn(expected, result.stderr)

    def test_rule_without_reason_is_refused(self):
        result = run_checker({}, ALLOW_LIST + "mid -> low\n")
        self.assertNotEqual(result.returncode, 0)
        self.assertIn("src/DEPENDENCIES:4: not 'FROM -> TO reason'", result.stderr)


if __name__ == "__main__":
    unittest.main()
