"""The LuCI application's pieces that run without LuCI: the rpcd plugin "luci.tarn" run as rpcd
runs it (inside a lab AP, against its daemon), and the menu and ACL files read as JSON against
the calls the view declares."""

import json
import os
import re

from tarnlab.web import REPO
from tarnsys import wait_for

APP = os.path.join(REPO, "openwrt", "luci-app-tarn")
PLUGIN = os.path.join(APP, "root", "usr", "libexec", "rpcd", "luci.tarn")
ACL = os.path.join(APP, "root", "usr", "share", "rpcd", "acl.d", "luci-app-tarn.json")
MENU = os.path.join(APP, "root", "usr", "share", "luci", "menu.d", "luci-app-tarn.json")
RESOURCES = os.path.join(APP, "htdocs", "luci-static", "resources")
VIEW = os.path.join(RESOURCES, "view", "tarn", "neighbors.js")


def load(path):
    with open(path, encoding="utf-8") as handle:
        return json.load(handle)


def declared_calls():
    """(object, method) of every rpc.declare in the view."""
    with open(VIEW, encoding="utf-8") as handle:
        source = handle.read()
    return {(obj, method) for obj, method in re.findall(
        r"rpc\.declare\(\{\s*object:\s*'([^']+)',\s*method:\s*'([^']+)'", source)}


def grants(section):
    return {(obj, method) for obj, methods in section["ubus"].items() for method in methods}


def test_acl_grants_exactly_the_view_s_calls():
    acl = load(ACL)
    assert list(acl) == ["luci-app-tarn"]
    role = acl["luci-app-tarn"]
    assert set(role) == {"description", "read", "write"}
    assert set(role["read"]) == {"ubus"} and set(role["write"]) == {"ubus"}
    assert grants(role["read"]) == {("luci.tarn", "getNeighbors")}
    assert grants(role["write"]) == {("tarn", "add_static_neighbor"),
                                     ("tarn", "del_static_neighbor")}
    assert declared_calls() == grants(role["read"]) | grants(role["write"])


def test_menu_entry_under_status_opens_the_view():
    menu = load(MENU)
    assert list(menu) == ["admin/status/tarn"]
    entry = menu["admin/status/tarn"]
    assert entry["action"] == {"type": "view", "path": "tarn/neighbors"}
    assert os.path.isfile(os.path.join(RESOURCES, "view", entry["action"]["path"] + ".js"))
    assert entry["depends"] == {"acl": ["luci-app-tarn"]}
    assert entry["title"]


def run_plugin(ap, *args):
    result = ap.exec(["/bin/sh", PLUGIN, *args], input_text="{}")
    return result.returncode, result.stdout, result.stderr


def test_rpcd_plugin_protocol(make_lab):
    assert os.access(PLUGIN, os.X_OK), "rpcd runs the plugin only when it is executable"
    lab = make_lab(2)
    lab.wait_discovered(timeout=60)
    ap1, ap2 = lab["ap1"], lab["ap2"]

    status, out, _ = run_plugin(ap1, "list")
    assert status == 0 and json.loads(out) == {"getNeighbors": {}}
    assert set(json.loads(out)) == {m for o, m in declared_calls() if o == "luci.tarn"}

    status, out, err = run_plugin(ap1, "call", "getNeighbors")
    assert status == 0, err
    table = json.loads(out)
    info = json.loads(ap1.exec(["tarn-info", "--json"], check=True).stdout)
    # Both read the same shared answer (at most 5 s old), so they agree field for field.
    assert table == info and [n["mac"] for n in table["neighbors"]] == [ap2.mac]

    status, out, _ = run_plugin(ap1, "call", "noSuchMethod")
    assert status != 0 and "error" in json.loads(out)

    ap1.stop_daemon()
    # tarn-info may still serve its shared answer for up to 5 s.
    replies = []
    wait_for(lambda: replies.append(run_plugin(ap1, "call", "getNeighbors")) or
             "error" in json.loads(replies[-1][1]), timeout=20, what="the error object")
    status, out, err = replies[-1]
    assert status == 0, err  # rpcd passes the object on only when the plugin succeeds
    reply = json.loads(out)
    assert list(reply) == ["error"] and reply["error"].startswith("tarn-info: ")
