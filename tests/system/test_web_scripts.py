"""The page's CGI and the rpcd plugin as processes, under the AP's shell (busybox ash), with a
stand-in tarn-info whose output and exit status each row chooses: the reply for every way
tarn-info can end, its message escaped whatever it holds, and the plugin's rpcd protocol. The
LuCI app's menu and ACL read as JSON against the calls its view declares."""

import json
import os
import re
import subprocess

import pytest

from tarnlab.web import REPO, WWW_TREE

CGI = os.path.join(WWW_TREE, "cgi-bin", "tarn-neighbors")
APP = os.path.join(REPO, "openwrt", "luci-app-tarn")
PLUGIN = os.path.join(APP, "root", "usr", "libexec", "rpcd", "luci.tarn")
VIEW = os.path.join(APP, "htdocs", "luci-static", "resources", "view", "tarn", "neighbors.js")
TABLE = '{"schema":1,"neighbors":[]}'
NASTY = 'tarn-info: "quoted" \\ back\tslash\x01 </script>'
ESCAPED = {"error": 'tarn-info: "quoted" \\ backslash </script>'}


@pytest.fixture
def run(tmp_path):
    """run(script, *args, stdout=, stderr=, status=, present=, method=): the script run under
    busybox with a PATH of busybox's tools and, if `present`, a tarn-info that prints
    `stdout`/`stderr` and exits `status`."""
    for tool in ("head", "tr", "sed", "mktemp", "rm", "cat"):
        os.symlink("/bin/busybox", tmp_path / tool)

    def run_script(script, *args, stdout="", stderr="", status=0, present=True, method="GET"):
        if present:
            (tmp_path / "out").write_text(stdout)
            (tmp_path / "err").write_text(stderr)
            (tmp_path / "tarn-info").write_text(f"#!/bin/busybox sh\ncat {tmp_path}/out\n"
                                                f"cat {tmp_path}/err >&2\nexit {status}\n")
            (tmp_path / "tarn-info").chmod(0o755)
        # Bytes, decoded here: text mode would turn the CGI's CRLF into LF.
        result = subprocess.run(["/bin/busybox", "sh", script, *args], capture_output=True,
                                env={"PATH": str(tmp_path), "REQUEST_METHOD": method,
                                     "TMPDIR": "/tmp"}, timeout=30, stdin=subprocess.DEVNULL)
        return result.returncode, result.stdout.decode(), result.stderr.decode()
    return run_script


@pytest.mark.parametrize("stand_in, code, error", [
    ({"stdout": TABLE}, "200 OK", None),
    ({"stderr": NASTY + "\nsecond line", "status": 1}, "503 Service Unavailable",
     ESCAPED["error"]),
    ({"status": 1}, "503 Service Unavailable", "tarn-info: exited with status 1"),
    ({"stderr": "usage: tarn-info ...", "status": 2}, "500 Internal Server Error",
     "usage: tarn-info ..."),
    ({"present": False}, "500 Internal Server Error", ": tarn-info: not found"),
    ({"stdout": TABLE, "method": "POST"}, "405 Method Not Allowed", "only GET is answered"),
])
def test_cgi_reply(run, stand_in, code, error):
    exit_status, out, err = run(CGI, **stand_in)
    assert exit_status == 0, err
    head, _, body = out.partition("\r\n\r\n")
    headers = dict(line.split(": ", 1) for line in head.split("\r\n"))
    assert (headers["Status"], headers["Content-Type"]) == (code, "application/json")
    if error is None:
        assert body == TABLE + "\n"
    elif stand_in.get("present", True):
        assert json.loads(body) == {"error": error}
    else:  # the shell's own words, which end in the missing command's
        assert list(json.loads(body)) == ["error"] and json.loads(body)["error"].endswith(error)


@pytest.mark.parametrize("args, stand_in, exit_status, reply", [
    (["list"], {}, 0, {"getNeighbors": {}}),
    (["call", "getNeighbors"], {"stdout": TABLE}, 0, json.loads(TABLE)),
    (["call", "getNeighbors"], {"stderr": NASTY, "status": 1}, 0, ESCAPED),
    (["call", "getNeighbors"], {"status": 3}, 0, {"error": "tarn-info: exited with status 3"}),
    (["call", "noSuchMethod"], {"stdout": TABLE}, 1, {"error": "unknown method"}),
    (["frobnicate"], {"stdout": TABLE}, 2, None),  # a usage line on standard error
])
def test_plugin_reply(run, args, stand_in, exit_status, reply):
    status, out, err = run(PLUGIN, *args, **stand_in)
    assert status == exit_status, err
    assert (out == "" and "usage" in err) if reply is None else json.loads(out) == reply


def read_json(*path):
    with open(os.path.join(APP, "root", "usr", "share", *path), encoding="utf-8") as handle:
        return json.load(handle)


def test_menu_opens_the_view_and_the_acl_grants_exactly_the_view_s_calls():
    menu = read_json("luci", "menu.d", "luci-app-tarn.json")
    assert list(menu) == ["admin/status/tarn"] and menu["admin/status/tarn"]["title"]
    entry = menu["admin/status/tarn"]
    assert entry["action"] == {"type": "view", "path": "tarn/neighbors"}
    assert entry["depends"] == {"acl": ["luci-app-tarn"]}
    acl = read_json("rpcd", "acl.d", "luci-app-tarn.json")
    read = {"ubus": {"luci.tarn": ["getNeighbors"]}}
    write = {"ubus": {"tarn": ["add_static_neighbor", "del_static_neighbor"]}}
    assert list(acl) == ["luci-app-tarn"]
    role = acl["luci-app-tarn"]
    assert role.pop("description") and role == {"read": read, "write": write}
    with open(VIEW, encoding="utf-8") as view:
        declared = re.findall(r"rpc\.declare\(\{\s*object:\s*'([^']+)',\s*method:\s*'([^']+)'",
                              view.read())
    assert set(declared) == {(obj, method) for grant in (read, write)
                             for obj, methods in grant["ubus"].items() for method in methods}
