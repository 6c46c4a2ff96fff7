"""The lab's monitoring mode end to end: tarn-info's metrics written in every AP, served by
Debian's node exporter and scraped by a real Prometheus; a hostile neighbor's texts through
JSON (Python and Node), promtool and Prometheus; and every process of the mode ended with the
lab, also when its `up` fails. (The writer's file for a stopped daemon is test_info's.)"""

import json
import re
import shutil
import socket
import struct
import subprocess

import pytest

from conftest import unique_lab_name
from tarnlab import lab as labmod, monitor
from tarnlab.nsutil import LabError, pid_alive
from tarnsys import NBCP_PORT, udp_socket_in, wait_for

HOSTILE_MAC = "02:7a:00:00:00:66"
HOSTILE_IP4 = "10.99.0.66"  # nothing holds it: probes go unanswered, only our answer arrives
HOSTILE_IP6 = "fd00:99::66"
# 21 of the 31 bytes a name keeps: a double quote, a newline, markup, a lone byte that is
# no UTF-8, a lead byte followed by no continuation, and a backslash.
HOSTILE_NAME = b'ap"5\n<img src=x>\xff\xc3(\\z'
HOSTILE_TENANT = b"\x1b[31mred\x1b[0m"  # a terminal escape
HOSTILE_VERSION = b"6.6.6"


def utf8_rule(raw):
    """The documented rule: valid UTF-8 kept, a backslash doubled, every other byte \\xHH."""
    return raw.replace(b"\\", b"\\\\").decode("utf-8", "backslashreplace")


def tlv(code, value):
    return struct.pack(">HH", code, len(value)) + value


def hostile_answer():
    """An ndsp (type 11, mode 0) for HOSTILE_MAC, element by element."""
    radio = (tlv(145, b"\x00") + tlv(146, b"\x0b") + tlv(147, b"\x11") + tlv(148, b"\x21") +
             tlv(155, b"\x14") + tlv(144, b"\x00"))
    return (bytes([0, 0, 0, 11]) + bytes(6) +
            tlv(134, b"\x01") + tlv(135, b"\x00") +
            tlv(136, socket.inet_aton(HOSTILE_IP4)) + tlv(137, bytes.fromhex(
                HOSTILE_MAC.replace(":", ""))) +
            tlv(138, socket.inet_aton(HOSTILE_IP4)) +
            tlv(156, socket.inet_pton(socket.AF_INET6, HOSTILE_IP6)) +
            tlv(140, b"\x00") + tlv(154, HOSTILE_TENANT) + tlv(141, HOSTILE_VERSION) +
            tlv(142, HOSTILE_NAME) + tlv(143, b"\x01") + radio + b"\x00\x00")


def by_ap(samples):
    return {labels["ap"]: value for labels, value in samples}


def query_by_ap(lab, expression):
    return by_ap(monitor.query(lab, expression))


def neighbor_in(document, mac):
    return next((n for n in document["neighbors"] if n["mac"] == mac), None)


def tarn_info(ap, *args):
    """tarn-info's standard output as bytes (the hostile texts must not be decoded here)."""
    proc = ap.popen([monitor.tarn_info_binary(ap.lab)] + list(args), stdout=subprocess.PIPE,
                    stderr=subprocess.PIPE)
    out, err = proc.communicate(timeout=30)
    assert proc.returncode == 0, err
    return out


def rule_metrics():
    """The metric names the shipped alert rules use."""
    with open(monitor.RULES, encoding="utf-8") as rules:
        return set(re.findall(r"\b(tarn_[a-z_]+)\b", rules.read()))


def plant_hostile_neighbor(lab):
    """ap1's driver hears the hostile AP, which goes unanswered until ap1 gets its answer from
    a socket in ap2. (`tarn show` is not read once the answer may have arrived: it prints
    texts as received.)"""
    ap1 = lab["ap1"]
    ap1.hear({"mac": HOSTILE_MAC, "ip": HOSTILE_IP4, "ip6": HOSTILE_IP6}, radio=0, channel=11,
             rssi=33, bandwidth=20)
    # The unanswered rule's condition picks it from the real metrics, and only it.
    unanswered = wait_for(lambda: monitor.query(lab, "tarn_neighbor_answered == 0"), timeout=60,
                          what="an unanswered neighbor in Prometheus")
    assert [(labels["ap"], labels["mac"]) for labels, _ in unanswered] == [("ap1", HOSTILE_MAC)]
    sender = udp_socket_in(lab["ap2"], port=0)
    with sender:
        def answered():
            sender.sendto(hostile_answer(), (ap1.ip4, NBCP_PORT))
            hostile = neighbor_in(json.loads(tarn_info(ap1, "--json")), HOSTILE_MAC)
            return hostile is not None and hostile["version"] == HOSTILE_VERSION.decode()
        # tarn-info's shared answer may be up to 5 s old
        wait_for(answered, timeout=30, what="the hostile answer taken by ap1")


def check_json_in_python_and_node(ap):
    raw = tarn_info(ap, "--json")
    text = raw.decode("utf-8")  # strict: the document is valid UTF-8
    hostile = neighbor_in(json.loads(text), HOSTILE_MAC)
    assert hostile is not None
    assert (hostile["name"], hostile["tenant"], hostile["version"]) == \
        (utf8_rule(HOSTILE_NAME), utf8_rule(HOSTILE_TENANT), "6.6.6")
    node = subprocess.run(
        ["node", "-e", "let s = ''; process.stdin.setEncoding('utf8');"
         "process.stdin.on('data', d => s += d).on('end', () => {"
         "const n = JSON.parse(s).neighbors.find(x => x.mac === process.argv[1]);"
         "process.stdout.write(JSON.stringify([n.name, n.tenant]));});", HOSTILE_MAC],
        input=raw, capture_output=True, timeout=30, check=True)
    assert json.loads(node.stdout) == [utf8_rule(HOSTILE_NAME), utf8_rule(HOSTILE_TENANT)]


def check_promtool(ap):
    raw = tarn_info(ap, "--prometheus")
    assert HOSTILE_MAC.encode() in raw
    lint = subprocess.run(["promtool", "check", "metrics"], input=raw, capture_output=True,
                          timeout=30)
    assert lint.returncode == 0, lint.stdout + lint.stderr


@pytest.mark.skipif(not shutil.which("promtool") or not shutil.which("node"),
                    reason="needs promtool and node (scripts/install-deps.sh)")
def test_prometheus_scrapes_every_ap_and_a_hostile_name_arrives_exact(make_lab):
    lab = make_lab(4, monitor=True)
    lab.wait_discovered(timeout=60)
    aps = {ap.name for ap in lab.aps}

    def every_ap_reports_three():
        return (query_by_ap(lab, "up") == dict.fromkeys(aps, 1.0) and
                query_by_ap(lab, "tarn_up") == dict.fromkeys(aps, 1.0) and
                query_by_ap(lab, "tarn_neighbors_learned") == dict.fromkeys(aps, 3.0) and
                query_by_ap(lab, "count by (ap) (tarn_neighbor_info)") ==
                dict.fromkeys(aps, 3.0))
    wait_for(every_ap_reports_three, timeout=90, what="up 1 and 3 neighbors on every AP")
    names = {(labels["ap"], labels["name"]) for labels, _ in
             monitor.query(lab, "tarn_neighbor_info")}
    assert names == {(ap, f"lab-{other}") for ap in aps for other in aps if other != ap}
    # Every metric the alert rules name is one the APs report.
    assert {name for name in rule_metrics() if not monitor.query(lab, name)} == set()

    plant_hostile_neighbor(lab)
    check_json_in_python_and_node(lab["ap1"])
    check_promtool(lab["ap1"])

    selector = f'tarn_neighbor_info{{mac="{HOSTILE_MAC}",version="6.6.6"}}'
    hostile = wait_for(lambda: monitor.query(lab, selector), timeout=60,
                       what="the hostile AP in Prometheus")
    assert len(hostile) == 1
    assert len(monitor.query(lab, f'tarn_neighbor_info{{mac="{HOSTILE_MAC}"}}')) == 1
    labels = hostile[0][0]
    assert labels["ap"] == "ap1"
    assert labels["name"] == utf8_rule(HOSTILE_NAME)
    assert labels["tenant"] == utf8_rule(HOSTILE_TENANT)
    assert query_by_ap(lab, "up") == dict.fromkeys(aps, 1.0)
    assert [(t["ap"], t["health"], t["lastError"]) for t in monitor.targets(lab)
            if t["health"] != "up"] == []

    started = list(lab.monitor_pids)
    assert len(started) == 2 * len(lab.aps) + 1
    lab.down()
    assert [pid for pid in started if pid_alive(pid)] == []


def test_a_failed_monitor_up_ends_what_it_started(monkeypatch):
    monkeypatch.setattr(monitor, "PROMETHEUS", "/bin/false")
    lab = labmod.Lab(2, name=unique_lab_name(), monitor=True)
    try:
        with pytest.raises(LabError, match="Prometheus did not become ready"):
            lab.up()
        assert len(lab.monitor_pids) == 2 * len(lab.aps) + 1
        assert [pid for pid in lab.monitor_pids if pid_alive(pid)] == []
        assert lab.leftovers() == []
    finally:
        lab.down()
