"""The LuCI application's menu and ACL files read as JSON against the calls the view declares
(its rpcd plugin runs in test_web_scripts.py and against a lab in test_web.py)."""

import json
import os
import re

from tarnlab.web import REPO

ROOT = os.path.join(REPO, "openwrt", "luci-app-tarn", "root", "usr", "share")
VIEW = os.path.join(REPO, "openwrt", "luci-app-tarn", "htdocs", "luci-static", "resources",
                    "view", "tarn", "neighbors.js")


def load(*path):
    with open(os.path.join(*path), encoding="utf-8") as handle:
        return handle.read() if path[-1].endswith(".js") else json.load(handle)


def test_acl_grants_exactly_the_view_s_calls():
    acl = load(ROOT, "rpcd", "acl.d", "luci-app-tarn.json")
    read = {"ubus": {"luci.tarn": ["getNeighbors"]}}
    write = {"ubus": {"tarn": ["add_static_neighbor", "del_static_neighbor"]}}
    assert list(acl) == ["luci-app-tarn"]
    role = acl["luci-app-tarn"]
    assert role.pop("description") and role == {"read": read, "write": write}
    declared = re.findall(r"rpc\.declare\(\{\s*object:\s*'([^']+)',\s*method:\s*'([^']+)'",
                          load(VIEW))
    assert set(declared) == {(obj, method) for grant in (read, write)
                             for obj, methods in grant["ubus"].items() for method in methods}


def test_menu_entry_under_status_opens_the_view():
    menu = load(ROOT, "luci", "menu.d", "luci-app-tarn.json")
    assert list(menu) == ["admin/status/tarn"] and menu["admin/status/tarn"]["title"]
    entry = menu["admin/status/tarn"]
    assert entry["action"] == {"type": "view", "path": "tarn/neighbors"}
    assert VIEW.endswith(os.path.join("view", entry["action"]["path"] + ".js"))
    assert os.path.isfile(VIEW) and entry["depends"] == {"acl": ["luci-app-tarn"]}
