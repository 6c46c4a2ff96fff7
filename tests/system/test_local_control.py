"""Local control messages and the client commands that send them, against real daemons in lab
APs: get/set rssi, set count, set V, the probe of one address, the silent and the unknown
operations, and the show tables with static neighbors."""

import os
import socket
import struct
import time

import pytest

from tarnlab import show
from tarnlab.nsutil import netns_entered
from tarnsys import (CLIENT_PATH, LISTENING_LOG, NBCP_PORT, local_listener, local_message,
                     receive_all, send_local)

SHORT = 10  # seconds a command that should end at once may take
SHOW_TIMEOUT = 15  # seconds a show client waits for the daemon's list
STATE_LEGEND = ("[state] 0:active 1:offline 2:wireless ageing  3:static active "
                "4:static offline")


def start(ap, *args):
    ap.start_daemon(list(args) or None)
    ap.wait_log(LISTENING_LOG)


def driver_ops(ap, op):
    """Values of every message with this operation the daemon sent the simulated driver."""
    return [entry["value"] for entry in ap.driver_record("rx") if entry.get("op") == op]


def wait_for(predicate, timeout=SHORT, what="condition"):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if predicate():
            return
        time.sleep(0.1)
    raise AssertionError(f"{what} not reached within {timeout} s")


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


# ----- count and version reach the driver ------------------------------------------------------

@pytest.fixture
def lone_ap(make_lab):
    """One AP with its driver simulator and daemon, hearing nobody."""
    lab = make_lab({"count": 1, "hears": "none"}, bridge=False)
    ap = lab.ap("ap1")
    ap.wait_log(LISTENING_LOG)
    return ap


def test_set_count_reaches_the_driver(lone_ap):
    assert lone_ap.tarn("set", "count", "32", timeout=SHORT).returncode == 0
    wait_for(lambda: driver_ops(lone_ap, 5) == [32], what="operation 5 with 32 at the driver")
    # The same count again changes nothing.
    lone_ap.tarn("set", "count", "32", timeout=SHORT)
    lone_ap.wait_log(r"handle_recvmsg: operation=12\b[\s\S]*handle_recvmsg: operation=12\b")
    time.sleep(0.3)
    assert driver_ops(lone_ap, 5) == [32]


def test_set_count_empties_the_table(make_lab):
    # The driver reports its neighbors only when it starts hearing them, so an emptied table
    # stays empty until the simulator is told to report again.
    lab = make_lab({"count": 2, "defaults": {"beacon_interval": 3600}})
    ap1 = lab.ap("ap1")
    # The simulator's first report may come before the daemon listens; report once more now.
    ap1.hear(lab.ap("ap2"))
    wait_for(lambda: len(ap1.show()) == 1, timeout=20, what="ap2 in ap1's table")

    assert ap1.tarn("set", "count", "32", timeout=SHORT).returncode == 0
    wait_for(lambda: driver_ops(ap1, 5) == [32], what="operation 5 with 32 at the driver")
    assert ap1.show() == []


def uci_version_calls(ap):
    return [command for _, command in ap.calls()
            if "tarn.config.version" in command or command == "uci commit tarn"]


def test_set_version_stores_it_once_and_resends_the_ap_information(lone_ap):
    assert lone_ap.tarn("set", "V", "3", timeout=SHORT).returncode == 0
    wait_for(lambda: 3 in driver_ops(lone_ap, 1), what="operation 1 with version 3")
    wait_for(lambda: len(uci_version_calls(lone_ap)) == 2, what="the uci commands")
    assert uci_version_calls(lone_ap) == ["uci set tarn.config.version=3", "uci commit tarn"]
    assert lone_ap.uci().get("tarn.config.version") == "3"
    assert driver_ops(lone_ap, 4)[-1] == 5  # the threshold is sent again after the address

    # The running version again: no command, nothing to the driver.
    sent_before = len(lone_ap.driver_record("rx"))
    lone_ap.tarn("set", "V", "3", timeout=SHORT)
    lone_ap.wait_log(r"handle_recvmsg: operation=11\b[\s\S]*handle_recvmsg: operation=11\b")
    time.sleep(0.3)
    assert len(uci_version_calls(lone_ap)) == 2
    assert len(lone_ap.driver_record("rx")) == sent_before


# ----- probe of one address --------------------------------------------------------------------

def test_dump_ip_probes_the_given_address_with_mode_3(make_lab):
    lab = make_lab({"count": 2, "hears": "none"}, daemons=False)
    ap1, ap2 = lab.ap("ap1"), lab.ap("ap2")
    with netns_entered(ap2.netns):
        receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    with receiver:
        receiver.bind(("0.0.0.0", NBCP_PORT))
        start(ap1, "-D")

        host_order = struct.unpack("!I", socket.inet_aton(ap2.ip4))[0]
        send_local(ap1, local_message(10, payload=struct.pack("=I", 0)))
        send_local(ap1, local_message(10, payload=struct.pack("=I", host_order)))

        receiver.settimeout(SHORT)
        probe, source = receiver.recvfrom(2048)
        assert source[0] == ap1.ip4
        assert len(probe) == 60
        assert probe[3] == 10  # ndrp
        assert probe[19] == 3  # mode 3
        receiver.settimeout(0.5)
        with pytest.raises(socket.timeout):
            receiver.recv(2048)  # address 0 sent nothing
    ap1.wait_log(r"dump ip :0\n")
    ap1.wait_log(rf"dump ip :{host_order:x}\n")


# ----- silent and unknown operations -----------------------------------------------------------

def test_add_and_delete_mac_are_silent_and_unknown_operations_are_logged(node):
    start(node, "-D")
    mark = node.log_mark()
    with local_listener(node, CLIENT_PATH) as client:
        send_local(node, local_message(6, payload=bytes(180)))
        send_local(node, local_message(7))
        node.wait_log(r"handle_recvmsg: operation=7\b", since=mark)
        send_local(node, local_message(0))
        send_local(node, local_message(51))
        node.wait_log(r"unknow msg type:51!!!", since=mark)
        answers = receive_all(client, wait=0.3)

    log = node.log_since(mark)
    assert answers == []
    assert "handle_recvmsg: operation=6\n" in log
    assert "unknow msg type:0!!!" in log
    assert log.count("unknow msg type") == 2


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
