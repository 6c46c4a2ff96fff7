"""The lab's monitoring mode end to end: tarn-info's metrics written in every AP, served by
Debian's node exporter and scraped by a real Prometheus; a hostile neighbor's texts through
strict UTF-8 JSON, promtool and Prometheus; and every process of the mode ended with the lab,
also when its `up` fails. (The writer's file for a stopped daemon is test_info's.)"""

import json
import re
import shutil
import subprocess

import pytest

from conftest import unique_lab_name
from tarnlab import lab as labmod, monitor
from tarnlab.nsutil import LabError, pid_alive
from tarnsys import NBCP_PORT, ndsp, udp_socket_in, wait_for

# Nothing holds the hostile AP's addresses: probes go unanswered, only our answer arrives.
HOSTILE_MAC, HOSTILE_IP4, HOSTILE_IP6 = "02:7a:00:00:00:66", "10.99.0.66", "fd00:99::66"
# The name (21 of the 31 bytes a name keeps): a double quote, a newline, markup, a lone byte that
# is no UTF-8, a lead byte followed by no continuation, a backslash. The tenant: a terminal escape.
HOSTILE_NAME, HOSTILE_TENANT = b'ap"5\n<img src=x>\xff\xc3(\\z', b"\x1b[31mred\x1b[0m"
# The documented rule: valid UTF-8 kept, a backslash doubled, any other byte \xHH.
EXPECTED = [raw.replace(b"\\", b"\\\\").decode("utf-8", "backslashreplace")
            for raw in (HOSTILE_NAME, HOSTILE_TENANT)]


def per_ap(lab, expression):
    return {labels["ap"]: value for labels, value in monitor.query(lab, expression)}


def tarn_info(ap, *args):
    """tarn-info's standard output as bytes (the hostile texts must not be decoded here)."""
    proc = ap.popen([monitor.tarn_info_binary(ap.lab), *args], stdout=subprocess.PIPE,
                    stderr=subprocess.PIPE)
    out, err = proc.communicate(timeout=30)
    assert proc.returncode == 0, err
    return out


def hostile_in(ap):
    """The hostile neighbor in tarn-info's JSON, decoded as strict UTF-8."""
    return next((n for n in json.loads(tarn_info(ap, "--json").decode("utf-8"))["neighbors"]
                 if n["mac"] == HOSTILE_MAC), None)


def plant_hostile_neighbor(lab):
    """ap1's driver hears the hostile AP, unanswered until ap1 gets its answer from a socket in
    ap2. (`tarn show` is not read after that: it prints texts as received.)"""
    ap1 = lab["ap1"]
    ap1.hear({"mac": HOSTILE_MAC, "ip": HOSTILE_IP4, "ip6": HOSTILE_IP6}, radio=0, channel=11,
             rssi=33, bandwidth=20)
    # The unanswered rule's condition picks it from the real metrics, and only it.
    unanswered = wait_for(lambda: monitor.query(lab, "tarn_neighbor_answered == 0"), timeout=60,
                          what="an unanswered neighbor in Prometheus")
    assert [(labels["ap"], labels["mac"]) for labels, _ in unanswered] == [("ap1", HOSTILE_MAC)]
    with udp_socket_in(lab["ap2"], port=0) as sender:
        def answered():
            sender.sendto(ndsp(HOSTILE_MAC, HOSTILE_NAME, b"6.6.6", HOSTILE_TENANT, radios=1),
                          (ap1.ip4, NBCP_PORT))
            return (hostile_in(ap1) or {}).get("version") == "6.6.6"
        # tarn-info's shared answer may be up to 5 s old
        wait_for(answered, timeout=30, what="the hostile answer taken by ap1")


@pytest.mark.skipif(not shutil.which("promtool"), reason="needs promtool (scripts/install-deps.sh)")
def test_prometheus_scrapes_every_ap_and_a_hostile_name_arrives_exact(make_lab):
    lab = make_lab(4, monitor=True)
    lab.wait_discovered(timeout=60)
    aps = {ap.name for ap in lab.aps}
    every_ap = {"up": 1.0, "tarn_up": 1.0, "tarn_neighbors_learned": 3.0,
                "count by (ap) (tarn_neighbor_info)": 3.0}
    wait_for(lambda: all(per_ap(lab, query) == dict.fromkeys(aps, value)
                         for query, value in every_ap.items()),
             timeout=90, what="up 1 and 3 neighbors on every AP")
    # Every metric the alert rules name is one the APs report.
    with open(monitor.RULES, encoding="utf-8") as rules:
        rule_metrics = set(re.findall(r"\b(tarn_[a-z_]+)\b", rules.read()))
    assert {name for name in rule_metrics if not monitor.query(lab, name)} == set()

    plant_hostile_neighbor(lab)
    hostile = hostile_in(lab["ap1"])
    assert [hostile["name"], hostile["tenant"], hostile["version"]] == EXPECTED + ["6.6.6"]
    metrics = tarn_info(lab["ap1"], "--prometheus")
    assert HOSTILE_MAC.encode() in metrics
    lint = subprocess.run(["promtool", "check", "metrics"], input=metrics, capture_output=True,
                          timeout=30)
    assert lint.returncode == 0, lint.stdout + lint.stderr

    selector = f'tarn_neighbor_info{{mac="{HOSTILE_MAC}",version="6.6.6"}}'
    hostile = wait_for(lambda: monitor.query(lab, selector), timeout=60,
                       what="the hostile AP in Prometheus")
    every_version = monitor.query(lab, f'tarn_neighbor_info{{mac="{HOSTILE_MAC}"}}')
    assert len(every_version) == len(hostile) == 1
    assert [hostile[0][0][label] for label in ("ap", "name", "tenant")] == ["ap1"] + EXPECTED
    # The hostile texts cost no scrape: every target still up.
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
