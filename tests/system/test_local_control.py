"""The local socket end to end: client commands against real daemons in lab APs (get/set rssi,
the show tables with static neighbors, a show without a daemon). What each operation does is
tested with the local control handler."""

import os
import time

import pytest

from tarnlab import show
from tarnsys import CLIENT_PATH, LISTENING_LOG

SHORT = 10  # seconds a command that should end at once may take
SHOW_TIMEOUT = 15  # seconds a show client waits for the daemon's list
STATE_LEGEND = ("[state] 0:active 1:offline 2:wireless ageing  3:static active "
                "4:static offline")


def start(ap, *args):
    ap.start_daemon(list(args) or None)
    ap.wait_log(LISTENING_LOG)


# ----- rssi ----------------------------------------------------------------------------------

def test_get_rssi_prints_the_default_then_the_value_set(node):
    start(node, "-D")

    first = node.tarn("get", "rssi", timeout=SHORT)
    assert first.returncode == 0
    assert first.stdout == "current rssi  limit:5\n"
    assert not os.path.exists(node.path(CLIENT_PATH))

    assert node.tarn("set", "rssi", "44", timeout=SHORT).returncode == 0
    node.wait_log(r"handle_recvmsg: operation=4\b")
    second = node.tarn("get", "rssi", timeout=SHORT)
    assert second.stdout == "current rssi  limit:44\n"


# ----- show ------------------------------------------------------------------------------------

def test_show_without_a_daemon_prints_nothing_after_its_time_out(node):
    began = time.monotonic()
    result = node.tarn("show", timeout=SHOW_TIMEOUT + 10)
    took = time.monotonic() - began

    assert result.returncode == 0
    assert result.stdout == ""
    assert took >= SHOW_TIMEOUT - 0.5
    assert os.path.exists(node.path(CLIENT_PATH))


STATIC_A = {"mac": "02:00:00:00:00:51", "ip": "10.99.0.51"}
STATIC_B = {"mac": "02:00:00:00:00:52", "ip6": "fd00:99::52"}


@pytest.fixture
def ap_with_static_neighbors(make_lab):
    """One AP whose static neighbor file names two APs that do not answer."""
    lab = make_lab({"hears": "none", "aps": [{"name": "ap1",
                                                "static_neighbors": [STATIC_A, STATIC_B]}]},
                   bridge=False)
    ap = lab.ap("ap1")
    ap.wait_log(LISTENING_LOG)
    return ap


def test_show_lists_the_static_neighbors(ap_with_static_neighbors):
    result = ap_with_static_neighbors.tarn("show", timeout=SHOW_TIMEOUT + 5)

    assert result.returncode == 0
    records = show.parse_wireless_table(result.stdout)
    # Loaded newest first: the file's last entry heads the list.
    assert [r["mac"] for r in records] == [STATIC_B["mac"], STATIC_A["mac"]]
    assert [r["ip"] for r in records] == ["0.0.0.0", STATIC_A["ip"]]
    assert records[0]["ip6"] == STATIC_B["ip6"]
    assert all(r["state"] == 4 and r["radiocnt"] == 2 for r in records)
    assert all(len(r["radios"]) == 2 for r in records)
    assert result.stdout.splitlines()[-1] == STATE_LEGEND
    assert not os.path.exists(ap_with_static_neighbors.path(CLIENT_PATH))


@pytest.mark.parametrize("words, header", [
    (["cluster"], ["mac", "ip", "ip6", "cluster_id", "pvc_ip", "pvc_mac"]),
    (["ubus"], ["mac", "ip", "ip6", "qv_ip", "cluster_id", "state", "name", "version"]),
    (["neighbor"], ["mac", "ip", "qv_ip", "tenantId", "state", "name", "version", "radiocnt"]),
    (["anything"], ["mac", "ip", "ip6", "qv_ip", "tenantId", "state", "name", "version"]),
], ids=["cluster", "ubus", "neighbor", "other-word"])
def test_show_kinds_list_the_static_neighbors(ap_with_static_neighbors, words, header):
    result = ap_with_static_neighbors.tarn("show", *words, timeout=SHOW_TIMEOUT + 5)

    assert result.returncode == 0
    lines = result.stdout.splitlines()
    assert lines[0].split()[:len(header)] == header
    macs = [line.split()[0] for line in lines[1:] if line[:2] == "02"]
    assert macs == [STATIC_B["mac"], STATIC_A["mac"]]
