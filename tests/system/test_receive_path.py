"""The answer path against a running daemon: the WLAN check sees VAP links come and go from one
answer to the next, and no datagram type leaves the daemon's memory larger."""

import random
import socket
import struct

import pytest

from tarnlab import nsutil

NBCP_PORT = 32766
STATE_ELEMENT = 140
LAB = {"count": 2, "hears": "none", "aps": [{"name": "ap1", "vaps": []}, {"name": "ap2"}]}


def header(msg_type):
    return bytes([0, 0, 0, msg_type]) + bytes(6)


def tlv(code, value):
    return struct.pack(">HH", code, len(value)) + value


def answer_state(answer):
    """The info.state element of an ndsp."""
    pos = 10
    while pos + 4 <= len(answer):
        code, length = struct.unpack_from(">HH", answer, pos)
        if code == 0:
            break
        if code == STATE_ELEMENT:
            return answer[pos + 4]
        pos += 4 + length
    raise AssertionError(f"no state element in {answer.hex()}")


class Prober:
    """A socket on AP 2's nbcp port (its daemon stopped), where AP 1's answers arrive."""

    def __init__(self, lab):
        ap1, ap2 = lab["ap1"], lab["ap2"]
        ap2.stop_daemon()
        with nsutil.netns_entered(ap2.netns):
            self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.bind(("0.0.0.0", NBCP_PORT))
        self.sock.settimeout(5.0)
        self.target = (ap1.ip4, NBCP_PORT)
        self.probe = header(10) + tlv(129, b"\x00") + b"\x00\x00"

    def send(self, datagram):
        self.sock.sendto(datagram, self.target)

    def answer(self):
        """Probes and returns the answer: everything sent before has been handled by then."""
        self.send(self.probe)
        return self.sock.recv(65535)


def vm_rss_kb(pid):
    with open(f"/proc/{pid}/status") as handle:
        for line in handle:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    raise AssertionError("no VmRSS")


def test_vap_link_created_and_removed_shows_in_the_next_answer(make_lab):
    lab = make_lab(LAB)
    ap1 = lab["ap1"]
    prober = Prober(lab)
    assert answer_state(prober.answer()) == 2  # no VAP: wireless ageing
    ap1.wait_log(r"is_have_wlan: vap number is 0\n")

    nsutil.run(["ip", "-n", ap1.netns, "link", "add", "ath37", "type", "veth", "peer", "name",
                "vp37"])
    mark = ap1.log_mark()
    assert answer_state(prober.answer()) == 0
    ap1.wait_log(r"is_have_wlan: vap number is 1\n", since=mark)

    nsutil.run(["ip", "-n", ap1.netns, "link", "del", "ath37"])
    mark = ap1.log_mark()
    assert answer_state(prober.answer()) == 2
    ap1.wait_log(r"is_have_wlan: vap number is 0\n", since=mark)


def hostile_datagrams():
    yield header(5) + struct.pack(">II", 1, 0xFFFFFFFF)  # promises 2^32-1 entries
    yield header(22) + tlv(35, b"\xff")  # 255 entries promised, none sent
    yield header(25) + tlv(90, struct.pack(">I", 255)) + tlv(102, b"\xff") * 40
    yield header(16) + b"\xff" + bytes(6 + 3 * 255)


@pytest.mark.parametrize("body", ["short", "random"])
def test_memory_stays_flat_after_every_type(make_lab, body):
    lab = make_lab(LAB)
    pid = lab["ap1"].daemon_pid
    prober = Prober(lab)
    rnd = random.Random(255)
    for _ in range(20):  # the answer path's own first allocations
        prober.answer()
    prober.send(header(12) + bytes(2))
    before = vm_rss_kb(pid)

    for msg_type in range(256):
        if body == "short":
            prober.send(header(msg_type) + bytes(2))  # 12 bytes
        else:
            prober.send(header(msg_type) + rnd.randbytes(rnd.randrange(2, 1400)))
        prober.answer()
    for datagram in hostile_datagrams():
        prober.send(datagram)
        prober.answer()

    grown = vm_rss_kb(pid) - before
    assert grown <= 64, f"VmRSS grew by {grown} KiB"
