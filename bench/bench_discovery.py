#!/usr/bin/python3
"""Discovery latency in the lab (prints figures; not a test). Needs root.

1. Event to filled entry: AP 1's driver reports a peer (event 1) and AP 1's table entry is
   filled from the peer daemon's answer (the "[ndsp] name-version" log line, written once the
   entry has been updated). Each cycle first drops the peer (event 6), so every report creates
   a new entry and sends a probe. The peers are real daemons.
2. Filling a table of 64 neighbors: one cache reply naming 64 APs; time until the 64th entry is
   filled. The 64 neighbors are answered by a small responder in one AP's namespace (its
   daemon stopped) that owns 64 addresses and answers each probe with an answer carrying the
   MAC it stands for; the lab has no room for 64 daemons.
3. Beside both, the round trip of a plain UDP echo between the same two namespaces over the
   same veth and bridge.

Events are sent straight to the daemon's netlink port from AP 1's namespace, as the driver
does. The end of each measurement is seen by polling AP 1's log file, so the figures include
the daemon's debug logging (needed to see the moment) and up to ~0.1 ms of polling.

    sudo bench/bench_discovery.py [--cycles 1000] [--peers 3] [--rounds 20] [--echo 1000]
"""

import argparse
import os
import select
import socket
import statistics
import struct
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "lab"))

from tarnlab import drvproto  # noqa: E402
from tarnlab import lab as labmod  # noqa: E402
from tarnlab import nsutil  # noqa: E402

NBCP_PORT = 32766
ECHO_PORT = 40001
FAKE_BASE = 100  # the responder's addresses: subnet hosts 100..163
POLL = 0.00005


# ----- driver events straight to the daemon ---------------------------------------------------

class DriverLine:
    """A netlink socket in AP 1's namespace that sends events to the daemon's port id 4."""

    def __init__(self, ap):
        with nsutil.netns_entered(ap.netns):
            self.sock = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW,
                                      drvproto.NETLINK_USERSOCK)
        self.sock.bind((0, 0))
        self.port = self.sock.getsockname()[0]

    def send(self, payload):
        self.sock.sendto(drvproto.frame(payload, self.port), (drvproto.DAEMON_PORT, 0))

    def heard(self, mac, ip, ip6=""):
        self.send(drvproto.encode_heard(mac, ip, ip6, radio=0, channel=6, rssi=30,
                                        bandwidth=20))

    def drop(self, mac):
        self.send(drvproto.encode_drop(mac))


class LogWatch:
    """Reads a daemon log as it grows."""

    def __init__(self, path):
        self.file = open(path, "rb")
        self.file.seek(0, os.SEEK_END)
        self.pending = b""

    def skip(self):
        self.file.read()
        self.pending = b""

    def wait_count(self, marker, count, timeout=10.0):
        """Waits until `marker` has appeared `count` times since the last skip()."""
        deadline = time.perf_counter() + timeout
        seen = 0
        while True:
            chunk = self.file.read()
            if chunk:
                self.pending += chunk
                seen = self.pending.count(marker)
                if seen >= count:
                    return time.perf_counter()
            elif time.perf_counter() > deadline:
                raise TimeoutError(f"{marker!r}: {seen} of {count} within {timeout}s")
            else:
                time.sleep(POLL)


# ----- the responder of the 64 neighbors ------------------------------------------------------

def tlv(code, value):
    return struct.pack(">HH", code, len(value)) + value


def answer_bytes(mac, name):
    """An answer carrying the fields a table entry shows."""
    body = b"".join([
        tlv(134, b"\x01"), tlv(135, b"\x00"), tlv(137, drvproto.mac_bytes(mac)),
        tlv(140, b"\x00"), tlv(154, b"t-bench"), tlv(141, b"bench"), tlv(142, name.encode()),
        tlv(143, b"\x00"),
    ])
    return bytes([0, 0, 0, 11, 0, 0, 0, 0, 0, 0]) + body + b"\x00\x00"


class Responder(threading.Thread):
    """Answers probes at each of its addresses with the answer of the AP it stands for."""

    def __init__(self, netns, addresses, macs):
        super().__init__(daemon=True)
        self.socks = {}
        with nsutil.netns_entered(netns):
            for address, mac in zip(addresses, macs):
                sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
                sock.bind((address, NBCP_PORT))
                self.socks[sock] = answer_bytes(mac, "fake" + address.rsplit(".", 1)[1])
        self.stop = threading.Event()

    def run(self):
        socks = list(self.socks)
        while not self.stop.is_set():
            ready, _, _ = select.select(socks, [], [], 0.2)
            for sock in ready:
                data, (source, _) = sock.recvfrom(2048)
                if len(data) > 3 and data[3] == 10:
                    sock.sendto(self.socks[sock], (source, NBCP_PORT))


class Echo(threading.Thread):
    def __init__(self, netns, address):
        super().__init__(daemon=True)
        with nsutil.netns_entered(netns):
            self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.bind((address, ECHO_PORT))
        self.sock.settimeout(0.2)
        self.stop = threading.Event()

    def run(self):
        while not self.stop.is_set():
            try:
                data, source = self.sock.recvfrom(2048)
            except socket.timeout:
                continue
            self.sock.sendto(data, source)


def echo_rtts(netns, server, count):
    with nsutil.netns_entered(netns):
        sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.settimeout(2.0)
    payload = bytes(60)  # the size of a probe
    samples = []
    for _ in range(count + 20):
        t0 = time.perf_counter()
        sock.sendto(payload, (server, ECHO_PORT))
        sock.recvfrom(2048)
        samples.append(time.perf_counter() - t0)
    sock.close()
    return samples[20:]  # after the warm-up


# ----- figures --------------------------------------------------------------------------------

def quantile(samples, q):
    ordered = sorted(samples)
    return ordered[min(len(ordered) - 1, int(round(q * (len(ordered) - 1))))]


def show(label, samples):
    ms = [s * 1000 for s in samples]
    print(f"  {label:<44} n={len(ms):<5} median {statistics.median(ms):8.3f} ms   "
          f"p99 {quantile(ms, 0.99):8.3f} ms   max {max(ms):8.3f} ms")


def event_to_filled(peers, cycles, line, watch, known):
    """`known`: the MACs now in AP 1's table; kept up to date."""
    samples = []
    for i in range(cycles):
        peer = peers[i % len(peers)]
        if peer.mac in known:
            line.drop(peer.mac)
            watch.wait_count(b"hand_receive: delete neighbor\n", 1)
        watch.skip()
        marker = f"name-version: lab-{peer.name}-".encode()
        t0 = time.perf_counter()
        line.heard(peer.mac, peer.ip4, peer.ip6)
        samples.append(watch.wait_count(marker, 1) - t0)
        known.add(peer.mac)
        watch.skip()
    return samples


def fill_table(fake_macs, fake_ips, rounds, line, watch):
    entries = [drvproto.encode_cache_entry(mac, ip, "", [{"radioid": 0, "channel": 6,
                                                          "txpower": 20, "rssi": 30,
                                                          "bandwidth": 20}], i + 1)
               for i, (mac, ip) in enumerate(zip(fake_macs, fake_ips))]
    reply = drvproto.encode_cache_reply(entries)
    samples = []
    for round_number in range(rounds):
        if round_number > 0:  # empty the table of the previous round's entries
            for mac in fake_macs:
                line.drop(mac)
            watch.wait_count(b"hand_receive: delete neighbor\n", len(fake_macs))
        watch.skip()
        t0 = time.perf_counter()
        line.send(reply)
        samples.append(watch.wait_count(b"name-version: fake", len(fake_macs)) - t0)
        watch.skip()
    return samples


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--cycles", type=int, default=1000)
    parser.add_argument("--peers", type=int, default=3)
    parser.add_argument("--rounds", type=int, default=20)
    parser.add_argument("--echo", type=int, default=1000)
    parser.add_argument("--fill", type=int, default=64)
    options = parser.parse_args()
    if not nsutil.is_root():
        sys.exit("needs root (network and mount namespaces)")

    count = options.peers + 2  # AP 1, the peers, the responder's AP
    scenario = {"count": count, "hears": "none", "defaults": {"beacon_interval": 0},
                "debug": True, "log_limit": 64 << 20}  # the end of each cycle is a log line
    with labmod.Lab(scenario, name=f"bench{os.getpid()}") as lab:
        ap1 = lab["ap1"]
        peers = [lab[f"ap{k}"] for k in range(2, options.peers + 2)]
        host = lab[f"ap{count}"]
        host.stop_daemon()
        line = DriverLine(ap1)
        watch = LogWatch(ap1.log_path)

        # Warm-up: address resolution and first answers.
        known = set()
        event_to_filled(peers, 2 * len(peers), line, watch, known)
        print(f"tarn discovery bench: lab of {count} APs on one bridge, build "
              f"{lab.build_dir}")

        event_samples = event_to_filled(peers, options.cycles, line, watch, known)
        print(f"event 1 to entry filled from a peer daemon's answer "
              f"({len(peers)} peers, drop + report per cycle):")
        show("event -> filled", event_samples)

        subnet = lab.scenario["subnet4"].split("/")[0].rsplit(".", 1)[0]
        fake_ips = [f"{subnet}.{FAKE_BASE + i}" for i in range(options.fill)]
        fake_macs = [f"02:fb:00:00:00:{i:02x}" for i in range(options.fill)]
        for ip in fake_ips:
            nsutil.run(["ip", "-n", host.netns, "addr", "add", f"{ip}/24", "dev",
                        host.config["uplink"]])
        responder = Responder(host.netns, fake_ips, fake_macs)
        responder.start()
        for peer in peers:  # an empty table: the 64 new entries replace nothing
            line.drop(peer.mac)
        watch.wait_count(b"hand_receive: delete neighbor\n", len(peers))
        fill_samples = fill_table(fake_macs, fake_ips, options.rounds, line, watch)
        print(f"filling a table of {options.fill} neighbors from one cache reply "
              f"(answers from a responder):")
        show(f"cache reply -> {options.fill} entries filled", fill_samples)
        responder.stop.set()

        echo = Echo(host.netns, fake_ips[0])
        echo.start()
        rtts = echo_rtts(ap1.netns, fake_ips[0], options.echo)
        echo.stop.set()
        print("plain UDP echo between the same namespaces (60-byte datagrams):")
        show("echo round trip", rtts)
        median_echo = statistics.median(rtts)
        print(f"  medians in echo round trips: event -> filled "
              f"{statistics.median(event_samples) / median_echo:.1f}, "
              f"{options.fill}-entry fill {statistics.median(fill_samples) / median_echo:.1f}")


if __name__ == "__main__":
    main()
