"""The lab itself: what `up` builds for an AP, and that teardown leaves nothing behind on a
machine that others share, even after a crashed simulator and a stray process."""

import os
import signal
import socket

from tarnlab import lab as labmod
from tarnlab import nsutil
from tarnlab.nsutil import netns_entered, pid_alive


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
    with netns_entered(receiver.netns):
        rx = socket.socket(family, socket.SOCK_DGRAM)
    with netns_entered(sender.netns):
        tx = socket.socket(family, socket.SOCK_DGRAM)
    with rx, tx:
        rx.bind((address, 40123))
        rx.settimeout(2)
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
