"""The nbcp answer path against a running daemon: the answer's bytes on the wire, the WLAN check
seeing VAP links come and go from one answer to the next, and no datagram type leaving the
daemon's memory larger."""

import os
import random
import struct

from tarnlab import nsutil
from tarnsys import NBCP_PORT, udp_socket_in, wait_for

# AP 1 has no VAP; AP 2's daemon is stopped and the test probes from AP 2's nbcp port.
LAB = {"count": 2, "hears": "none", "aps": [{"name": "ap1", "vaps": []}, {"name": "ap2"}]}
STATE_AT = 119  # offset of the info.state value in AP 1's answer below


def header(msg_type):
    return bytes([0, 0, 0, msg_type]) + bytes(6)


PROBE = header(10) + struct.pack(">HHB", 129, 1, 0) + bytes(2)

# AP 1's answer, element by element: what the lab gives AP 1 (10.99.0.11, fd00:99::11,
# 02:7a:00:00:00:01, head of cluster 1, management address 10.99.0.250, tenant t-lab, two
# radios whose channel and power veths cannot tell) in the order and forms of the ndsp.
NO_WLAN_ANSWER = bytes.fromhex("".join([
    "0000000b000000000000",  # header, type 11
    "0086000101", "0087000100",  # kind_flag 1, mode 0
    "008800040a63000b", "00890006027a00000001",  # ip, mac
    "009600040a63000b", "0097000400000001",  # pvc_ip, cluster_id
    "00980006027a00000001", "0099000101",  # pvc_mac, cluster_flag
    "008a00040a63000b", "009c0010fd000099000000000000000000000011",  # info.ip, info.ip6
    "009500040a6300fa", "008b0006000000000000",  # info.qv_ip, info.mac (zero)
    "008c000102",  # info.state 2: no VAP, wireless ageing
    "009a0005742d6c6162", "008d0009312e302e302d6c6162", "008e00076c61622d617031",
    "008f000102",  # radiocnt
    "0091000100", "0092000100", "0093000100", "0094000100", "009b000100", "0090000100",
    "0091000101", "0092000100", "0093000100", "0094000100", "009b000100", "0090000100",
    "0000",
]))


class Prober:
    """A socket on AP 2's nbcp port, where AP 1's answers arrive."""

    def __init__(self, lab):
        lab["ap2"].stop_daemon()
        self.sock = udp_socket_in(lab["ap2"])
        self.target = (lab["ap1"].ip4, NBCP_PORT)

    def send(self, datagram):
        self.sock.sendto(datagram, self.target)

    def answer(self):
        """Probes and returns the answer: everything sent before has been handled by then."""
        self.send(PROBE)
        return self.sock.recv(65535)


def rss_kb(pid):
    """The resident size in KiB from a walk of the page tables: VmRSS comes from counters each
    CPU updates in batches, some 32 pages per CPU off at any moment."""
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as rollup:
        return int(next(line for line in rollup if line.startswith("Rss:")).split()[1])


def vm_kb(pid):
    """The Vm figures of /proc/PID/status in KiB, read at one time (VmRSS and its peak VmHWM)."""
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        return {line.split(":")[0]: int(line.split()[1]) for line in status
                if line.startswith("Vm")}


def test_answer_bytes_and_vap_links_coming_and_going(make_lab):
    lab = make_lab(LAB)
    ap1 = lab["ap1"]
    prober = Prober(lab)
    assert prober.answer() == NO_WLAN_ANSWER

    nsutil.run(["ip", "-n", ap1.netns, "link", "add", "ath37", "type", "veth", "peer", "name",
                "vp37"])
    active = NO_WLAN_ANSWER[:STATE_AT] + bytes([0]) + NO_WLAN_ANSWER[STATE_AT + 1:]
    assert prober.answer() == active

    nsutil.run(["ip", "-n", ap1.netns, "link", "del", "ath37"])
    assert prober.answer() == NO_WLAN_ANSWER


# Kind 5 in its fixed form: 255 entry heads of one byte each, every one on a page of its own in
# the decode area.
SPREAD_KIND5 = header(5) + struct.pack(">II", 1, 255) + (b"\x01" + bytes(16)) * 255


def datagrams_adding_no_entry():
    """(what, datagram) for every type with random bytes, then hostile ones."""
    rnd = random.Random(255)
    for msg_type in range(256):
        yield f"type {msg_type}", header(msg_type) + rnd.randbytes(rnd.randrange(2, 1400))
    yield "kind 5 promising 2^32-1 entries", header(5) + struct.pack(">II", 1, 0xFFFFFFFF)
    yield "255 entries promised, none sent", header(22) + struct.pack(">HHB", 35, 1, 255)
    yield "nested counts of 255", (header(25) + struct.pack(">HHI", 90, 4, 255) +
                                   struct.pack(">HHB", 102, 1, 255) * 40)
    yield "type 16 of 255 items", header(16) + b"\xff" + bytes(6 + 3 * 255)
    yield "255 entry heads", SPREAD_KIND5
    yield "255 entry heads again", SPREAD_KIND5


def test_memory_has_no_peak_and_comes_back_after_each_datagram(make_lab):
    lab = make_lab(LAB)
    pid = lab["ap1"].daemon_pid
    prober = Prober(lab)
    prober.answer()  # the receive thread is running, its decode area in place
    figures = vm_kb(pid)
    peak, resident = figures["VmHWM"], figures["VmRSS"]
    assert peak <= resident + 64, f"start-up peak {peak} KiB, resident {resident} KiB"

    for _ in range(20):  # the answer path's own first allocations
        prober.answer()
    prober.send(header(12) + bytes(2))
    before = rss_kb(pid)
    grown = {}
    for what, datagram in datagrams_adding_no_entry():
        prober.send(datagram)
        if datagram[3] == PROBE[3]:
            prober.sock.recv(65535)  # a probe itself: its answer must not pass for the next one
        prober.answer()  # handled by now; nothing later may be needed to give memory back
        grown[what] = rss_kb(pid) - before
    worst = max(grown, key=grown.get)
    assert grown[worst] <= 64, f"RSS grew by {grown[worst]} KiB after {worst}"


def test_a_closed_standard_output_does_not_end_the_daemon(make_lab):
    """Every datagram's type line goes to standard output. With its reader gone, the writes fail
    (SIGPIPE is ignored while the bus loop runs, as on the AP) and the daemon goes on."""
    lab = make_lab(LAB)
    ap1 = lab["ap1"]
    ap1.stop_daemon()
    reader, writer = os.pipe()
    ap1.start_daemon(stdout=writer)
    os.close(writer)
    os.close(reader)
    prober = Prober(lab)
    wait_for(lambda: ap1.bus("debug_get").returncode == 0, what="the bus loop")
    for _ in range(8):  # type lines enough to fill the standard library's buffer many times
        for _ in range(50):  # few enough for the socket's queue
            prober.send(header(12) + bytes(2))
        assert prober.answer() == NO_WLAN_ANSWER
    assert ap1.daemon_running(), ap1.daemon_status()
