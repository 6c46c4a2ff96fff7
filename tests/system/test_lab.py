"""The lab itself: what `up` builds for an AP, and that teardown leaves nothing behind on a
machine that others share, even after a crashed simulator and a stray process."""

import contextlib
import json
import os
import signal
import socket

import pytest

from tarnlab import lab as labmod
from tarnlab import nsutil
from tarnlab import scenario as scen
from tarnlab.nsutil import pid_alive
from tarnsys import udp_socket_in, wait_for


def leftovers(name, pids):
    """What of lab `name` still exists: namespaces, mounts, state, live processes."""
    found = [ns for ns in nsutil.netns_list() if ns.startswith(f"tarnlab-{name}-")]
    with open("/proc/self/mountinfo", encoding="utf-8") as mounts:
        found += [line.split()[4] for line in mounts if f"tarnlab-{name}-" in line]
    if os.path.exists(os.path.join(labmod.STATE_ROOT, name)):
        found.append("state directory")
    return found + [f"pid {pid}" for pid in pids if pid and pid_alive(pid)]


def udp_reaches(sender, receiver, address, family):
    """True when a datagram sent from one AP to `address` arrives in the other."""
    with udp_socket_in(receiver, family, 40123) as rx, udp_socket_in(sender, family, 0) as tx:
        tx.sendto(b"lab", (address, 40123))
        return rx.recvfrom(16)[0] == b"lab"


def test_two_aps_are_built_and_removed_completely(make_lab):
    lab = make_lab(2, daemons=False)
    ap1, ap2 = lab.ap("ap1"), lab.ap("ap2")

    # Links as the daemon sees them through sysfs inside the AP, on a private /tmp.
    links = ap1.exec(["ls", "/sys/class/net"], check=True).stdout.split()
    assert sorted(links) == ["ath00", "ath10", "eth0", "lo", "rp0", "rp1", "vp00", "vp10",
                             "wifi0", "wifi1"]
    ap1.write_file("/tmp/only-here", "x")
    assert not os.path.exists(ap2.path("/tmp/only-here"))
    assert not os.path.exists("/tmp/only-here")
    # The uplinks meet on the bridge over IPv4 and IPv6.
    assert udp_reaches(ap1, ap2, ap2.ip4, socket.AF_INET)
    assert udp_reaches(ap2, ap1, ap1.ip6, socket.AF_INET6)

    stray = ap1.popen(["sleep", "300"])
    os.kill(ap1.sim_pid, signal.SIGKILL)
    pids = [pid for ap in lab.aps for pid in (ap.holder_pid, ap.sim_pid)] + [stray.pid]
    lab.down()
    stray.wait(5)
    assert leftovers(lab.name, pids) == []


@pytest.mark.parametrize("scenario, refused", [
    ({"count": scen.MAX_APS}, None),
    ({"count": scen.MAX_APS + 1}, "129 APs; the lab builds 1 to 128"),
    ({"count": 1, "log_limit": scen.MIN_LOG_LIMIT}, None),
    ({"count": 1, "log_limit": scen.MIN_LOG_LIMIT - 1}, "log_limit: a number of bytes"),
    ({"count": 1, "debug": "yes"}, "debug: true or false"),
])
def test_scenario_limits(scenario, refused):
    with pytest.raises(scen.ScenarioError, match=refused) if refused else contextlib.nullcontext():
        scen.resolve(scenario)


def test_daemons_log_debug_lines_only_when_asked(make_lab):
    lab = make_lab({"count": 2, "debug": False, "aps": [{}, {"daemon_args": ["-D"]}]})
    lab.wait_discovered(timeout=30)
    # A driver report handled is a debug line on the AP that asked for them, none on the other.
    assert ["hand_receive" in ap.log_text() for ap in lab.aps] == [False, True]


def test_each_aps_log_and_driver_record_stop_at_the_limit(make_lab):
    limit = scen.MIN_LOG_LIMIT
    lab = make_lab({"count": 2, "log_limit": limit, "defaults": {"beacon_interval": 0.2}})
    ap1 = lab["ap1"]
    wait_for(lambda: os.path.getsize(ap1.log_path) >= limit, 60, what="a full daemon log")
    wait_for(lambda: os.path.getsize(ap1.record_path) >= limit - 512, 60,
             what="a full driver record")
    for _ in range(2):  # more lines than fit, after the limit was reached
        ap1.sim_command({"cmd": "beacon"})
    # The daemon's writes past the limit fail; it goes on and still answers.
    assert os.path.getsize(ap1.log_path) == limit
    assert ap1.daemon_running() and ap1.tarn("show").returncode == 0
    # The record ends with one note instead of the lines that did not fit.
    with open(ap1.record_path, encoding="utf-8") as record:
        lines = record.read().splitlines()
    assert sum(len(line) + 1 for line in lines[:-1]) <= limit
    assert json.loads(lines[-1])["what"] == "record limit reached"
    assert ap1.driver_record("rx")  # what came before the limit still reads


def test_a_fleet_of_the_most_aps_fills_every_table(make_lab):
    """128 APs, each hearing the 127 others: every table ends with min(heard, 64) entries with
    name and version (about 45 s in all on a 2-core machine)."""
    from tarnlab import scale
    lab = make_lab({"count": scen.MAX_APS, "debug": False})
    heard = scale.heard_macs(lab)

    def every_table_full():
        status = scale.table_status(lab, heard=heard)
        return all(have >= want for have, want in status.values()) and status

    # Generous: an answer lost on a busy machine is asked for again by the learning pass
    # (every 150 s).
    status = wait_for(every_table_full, 400, what="every table full")
    assert set(status.values()) == {(scale.TABLE_MAX, scale.TABLE_MAX)}
