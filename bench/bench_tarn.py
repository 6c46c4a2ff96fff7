#!/usr/bin/python3
"""The daemon's costs on a lab bed, printed as one table (figures, not a test). Needs root.

For each build given (the baseline first, then the build under test, one right after the other
on the same machine), in a fresh two-AP lab whose daemons run without -D:

1. Answer rate: AP 2 probes AP 1's daemon with ndrp as fast as it answers; answers per second
   of the daemon's CPU time. Beside it, a bare C UDP responder (bench/udp_responder.c:
   recvfrom + sendto of the same sizes) answers the same flood in the same namespaces.
2. CPU per datagram: batches of one datagram type (12 bytes unless said), each batch followed
   by one probe whose answer shows the batch was handled; the probes' share (from 1.) is taken
   off. Hostile datagrams stand beside an unknown type of the same size.
3. Memory: VmRSS before and after a flood of every type 0-255 (short, random and hostile
   bodies); VmRSS, Pss and private memory of a freshly started daemon with 64 learned and 8
   static neighbors.
4. Discovery latency (daemons with -D, as the end is seen in the log): a driver event to the
   entry filled from the peer's answer, beside a plain UDP echo over the same veth
   (bench/bench_discovery.py).
5. Codec: decode time over a memcpy of the same bytes (tarn_bench, when the build has it).

CPU time is read from /proc/PID/task/*/schedstat (nanoseconds, all threads).

    sudo bench/bench_tarn.py [--base OLD_BUILD_DIR] [--build BUILD_DIR ...] [--quick]
"""

import argparse
import json
import os
import random
import socket
import statistics
import struct
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(REPO, "lab"))
sys.path.insert(0, HERE)

from tarnlab import drvproto  # noqa: E402
from tarnlab import lab as labmod  # noqa: E402
from tarnlab import nsutil  # noqa: E402
import bench_discovery as disc  # noqa: E402

NBCP_PORT = 32766
BARE_PORT = 32767
HDR = 10


# ----- datagrams ------------------------------------------------------------------------------

def tlv(code, value):
    return struct.pack(">HH", code, len(value)) + value


def header(msg_type):
    return bytes([0, 0, 0, msg_type, 0, 0, 0, 0, 0, 0])


def probe_bytes(mac="02:be:00:00:00:01", ip="10.99.0.12"):
    body = tlv(128, b"\x00") + tlv(129, b"\x00") + tlv(130, socket.inet_aton(ip)) + \
        tlv(132, bytes(16)) + tlv(131, drvproto.mac_bytes(mac))
    return header(10) + body + b"\x00\x00"


def short(msg_type, size=12):
    return (header(msg_type) + bytes(max(0, size - HDR)))[:max(size, 4)]


def sized(msg_type, size, fill=0):
    return header(msg_type) + bytes([fill]) * (size - HDR)


def hostile_set():
    """(label, datagram): datagrams built to make the decoder work or write much."""
    kind5_heads = header(5) + struct.pack(">II", 1, 255) + \
        (bytes([1, 0, 0]) + bytes(6) + bytes(8)) * 255  # 255 entries, no neighbors
    kind5_neighbors = header(5) + struct.pack(">II", 1, 1) + bytes([1, 0, 255]) + bytes(14) + \
        (bytes(6) + b"\x00") * 255  # one entry with 255 neighbors
    kind2_open = header(22) + tlv(35, b"\xff")  # 255 entries promised, none sent
    kind5_tlv = header(25) + tlv(90, struct.pack(">I", 255)) + \
        (tlv(102, b"\xff") + tlv(103, b"\x00")) * 60
    type16 = header(16) + b"\xff" + bytes(6) + bytes(3 * 255)
    unknown_elems = header(11) + tlv(200, bytes(300)) * 3
    return [
        ("kind 5 fixed, count 2^32-1, 18 B", header(5) + b"\x00\x00\x00\x01\xff\xff\xff\xff"),
        ("kind 5 fixed, 255 entry heads", kind5_heads),
        ("kind 5 fixed, 255 neighbors", kind5_neighbors),
        ("kind 22 TLV, 255 entries promised", kind2_open),
        ("kind 25 TLV, nested counts", kind5_tlv),
        ("type 16, 255 groups", type16),
        ("ndsp of unknown elements", unknown_elems),
        ("kind 2 fixed, 65507 B of 0xff", sized(2, 65507, 0xFF)),
        ("unknown type, 65507 B", sized(12, 65507)),
    ]


# ----- measuring ------------------------------------------------------------------------------

def cpu_ns(pid):
    total = 0
    for task in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{task}/schedstat") as handle:
                total += int(handle.read().split()[0])
        except OSError:
            pass
    return total


def status_kb(pid, key):
    with open(f"/proc/{pid}/status") as handle:
        for line in handle:
            if line.startswith(key + ":"):
                return int(line.split()[1])
    return 0


def rollup_kb(pid):
    fields = {}
    with open(f"/proc/{pid}/smaps_rollup") as handle:
        for line in handle:
            parts = line.split()
            if len(parts) >= 3 and parts[-1] == "kB":
                fields[parts[0].rstrip(":")] = int(parts[1])
    return fields


class Prober:
    """A UDP socket in AP 2's namespace bound to the nbcp port (where answers go)."""

    def __init__(self, netns, target):
        with nsutil.netns_entered(netns):
            self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
        self.sock.bind(("0.0.0.0", NBCP_PORT))
        self.sock.settimeout(2.0)
        self.target = target
        self.probe = probe_bytes()
        self.answer_size = 0

    def flood(self, count, port=NBCP_PORT, window=16):
        """Sends `count` probes keeping `window` unanswered; returns the answers received."""
        sent = answered = 0
        while answered < count:
            while sent < count and sent - answered < window:
                self.sock.sendto(self.probe, (self.target, port))
                sent += 1
            try:
                data = self.sock.recv(65535)
            except socket.timeout:
                sent = answered  # lost: refill the window
                continue
            self.answer_size = len(data)
            answered += 1
        return answered

    def sync(self):
        """One probe and its answer: everything sent before it has been handled."""
        self.sock.sendto(self.probe, (self.target, NBCP_PORT))
        self.sock.recv(65535)


def answer_rate(prober, pid, count, port=NBCP_PORT):
    prober.flood(200, port)  # warm-up
    before = cpu_ns(pid)
    answered = prober.flood(count, port)
    used = (cpu_ns(pid) - before) / 1e9
    return answered / used, used / answered * 1e6


def batch_for(size):
    return max(1, min(100, 60000 // (size + 700)))


def cost_per_datagram(prober, pid, datagram, count, probe_us):
    """Daemon CPU µs per datagram (the sync probes' share taken off)."""
    batch = batch_for(len(datagram))
    syncs = 0
    before = cpu_ns(pid)
    sent = 0
    while sent < count:
        for _ in range(min(batch, count - sent)):
            prober.sock.sendto(datagram, (prober.target, NBCP_PORT))
            sent += 1
        prober.sync()
        syncs += 1
    used_us = (cpu_ns(pid) - before) / 1e3
    return max(0.0, (used_us - syncs * probe_us) / count)


def every_type_flood(prober, rnd):
    """Every type 0-255: a 12-byte datagram, a random 1400-byte body and the hostile set."""
    for msg_type in range(256):
        for datagram in (short(msg_type), header(msg_type) + rnd.randbytes(1390)):
            prober.sock.sendto(datagram, (prober.target, NBCP_PORT))
        prober.sync()
    for _, datagram in hostile_set():
        prober.sock.sendto(datagram, (prober.target, NBCP_PORT))
        prober.sync()


def fill_neighbors(lab, ap1, learned=64, static=8):
    """64 learned neighbors from one driver cache reply and 8 static ones through the bus."""
    line = disc.DriverLine(ap1)
    entries = [drvproto.encode_cache_entry(f"02:fa:00:00:01:{i:02x}", f"10.99.1.{i + 1}", "",
                                           [{"radioid": 0, "channel": 6, "txpower": 20,
                                             "rssi": 30, "bandwidth": 20}], i + 1)
               for i in range(learned)]
    deadline = time.monotonic() + 10
    while True:  # a daemon just started may not have bound its driver socket yet
        try:
            line.send(drvproto.encode_cache_reply(entries))
            break
        except ConnectionRefusedError:
            if time.monotonic() > deadline:
                raise
            time.sleep(0.1)
    for i in range(static):
        ap1.bus("add_static_neighbor", {"mac": f"02:fb:00:00:02:{i:02x}",
                                        "ip": f"10.99.2.{i + 1}"})
    deadline = time.monotonic() + 10
    while time.monotonic() < deadline:
        table = ap1.tarn("show", "neighbor").stdout
        if table.count("02:fa:00:00:01:") >= learned:
            return True
        time.sleep(0.2)
    return False


def build_responder(workdir):
    binary = os.path.join(workdir, "udp_responder")
    subprocess.run(["cc", "-O2", "-o", binary, os.path.join(HERE, "udp_responder.c")],
                   check=True)
    return binary


def codec_ratios(build_dir):
    binary = os.path.join(build_dir, "bench", "tarn_bench")
    if not os.path.exists(binary):
        return {}
    out = subprocess.run([binary, "--benchmark_format=json", "--benchmark_min_time=0.2",
                          "--benchmark_filter=(memcpy|decode|list72_read)"],
                         capture_output=True, text=True, check=True).stdout
    cpu = {b["name"]: b["cpu_time"] for b in json.loads(out)["benchmarks"]}
    ratios = {}
    for name, copy in (("ndrp", "BM_ndrp_memcpy"), ("ndsp/0", "BM_ndsp_memcpy/0"),
                       ("ndsp/4", "BM_ndsp_memcpy/4")):
        decode = f"BM_{name.split('/')[0]}_decode" + (f"/{name.split('/')[1]}"
                                                       if "/" in name else "")
        if decode in cpu and copy in cpu:
            ratios[f"{name} decode / memcpy"] = cpu[decode] / cpu[copy]
    if "BM_list72_read" in cpu and "BM_list72_memcpy" in cpu:
        ratios["72-entry list read / memcpy"] = cpu["BM_list72_read"] / cpu["BM_list72_memcpy"]
    return ratios


def latency(build_dir, label, cycles, echoes):
    scenario = {"count": 3, "hears": "none", "defaults": {"beacon_interval": 0},
                "debug": True, "log_limit": 64 << 20}  # the end of each cycle is a log line
    with labmod.Lab(scenario, name=f"bl{os.getpid() % 100000}{label}",
                    build_dir=build_dir) as lab:
        ap1, ap2, ap3 = lab["ap1"], lab["ap2"], lab["ap3"]
        line = disc.DriverLine(ap1)
        watch = disc.LogWatch(ap1.log_path)
        known = set()
        disc.event_to_filled([ap2], 4, line, watch, known)
        samples = disc.event_to_filled([ap2], cycles, line, watch, known)
        ap3.stop_daemon()
        echo = disc.Echo(ap3.netns, ap3.ip4)
        echo.start()
        rtts = disc.echo_rtts(ap1.netns, ap3.ip4, echoes)
        echo.stop.set()
    return samples, rtts


def measure(build_dir, label, options, responder):
    rows = {}
    scenario = {"count": 2, "hears": "none",
                "defaults": {"beacon_interval": 0, "daemon_args": []}}
    rnd = random.Random(13)
    with labmod.Lab(scenario, name=f"bt{os.getpid() % 100000}{label}",
                    build_dir=build_dir) as lab:
        ap1, ap2 = lab["ap1"], lab["ap2"]
        pid = ap1.daemon_pid
        ap2.stop_daemon()  # its port takes the answers
        prober = Prober(ap2.netns, ap1.ip4)

        rate, probe_us = answer_rate(prober, pid, options.answers)
        rows["answers per CPU-second: tarn"] = f"{rate / 1000:.1f}k ({probe_us:.1f} µs each)"
        bare = ap1.popen([responder, str(BARE_PORT), str(prober.answer_size)])
        time.sleep(0.3)
        bare_rate, bare_us = answer_rate(prober, bare.pid, options.answers, BARE_PORT)
        bare.kill()
        bare.wait()
        rows["answers per CPU-second: bare C responder"] = \
            f"{bare_rate / 1000:.1f}k ({bare_us:.1f} µs each)"
        rows["tarn CPU per answer / bare responder's"] = f"{probe_us / bare_us:.2f}x"

        rss_start = status_kb(pid, "VmRSS")
        unknown12 = cost_per_datagram(prober, pid, short(12), options.datagrams, probe_us)
        rows["CPU µs, 12-byte unknown type (12)"] = f"{unknown12:.2f}"
        for msg_type in (1, 2, 3, 4, 5, 6, 11, 15, 16, 21, 22, 23, 24, 25, 26):
            cost = cost_per_datagram(prober, pid, short(msg_type), options.datagrams, probe_us)
            rows[f"CPU µs, 12-byte type {msg_type}"] = f"{cost:.2f} ({cost / unknown12:.1f}x)"
        for name, datagram in hostile_set():
            count = max(20, options.datagrams // (1 + len(datagram) // 2000))
            cost = cost_per_datagram(prober, pid, datagram, count, probe_us)
            same = cost_per_datagram(prober, pid, sized(12, len(datagram)), count, probe_us)
            rows[f"CPU µs, hostile: {name} ({len(datagram)} B)"] = \
                f"{cost:.2f} ({cost / same:.1f}x unknown of its size)"

        rss_before = status_kb(pid, "VmRSS")
        every_type_flood(prober, rnd)
        rss_after = status_kb(pid, "VmRSS")
        rows["VmRSS at start, before the flood, after it (KiB)"] = \
            f"{rss_start} / {rss_before} / {rss_after} ({rss_after - rss_before:+d})"

        # The footprint of a daemon that has seen only its neighbors: a fresh start, so that
        # the hostile datagrams above (which make up to 1.7 MiB of stack resident) do not count.
        ap1.stop_daemon()
        ap1.start_daemon()
        pid = ap1.daemon_pid
        filled = fill_neighbors(lab, ap1)
        roll = rollup_kb(pid)
        private = roll.get("Private_Clean", 0) + roll.get("Private_Dirty", 0)
        rows["64 + 8 neighbors: VmRSS / Pss / private (KiB)"] = \
            f"{status_kb(pid, 'VmRSS')} / {roll.get('Pss', 0)} / {private}" + \
            ("" if filled else " (table not full)")
        binary = os.path.join(build_dir, "tarn")
        rows["tarn binary size (bytes, as built)"] = str(os.path.getsize(binary))

    samples, rtts = latency(build_dir, label, options.cycles, options.echoes)
    ms = [s * 1000 for s in samples]
    echo_ms = [s * 1000 for s in rtts]
    rows["event -> filled entry, median / p99 (ms)"] = \
        f"{statistics.median(ms):.3f} / {disc.quantile(ms, 0.99):.3f}"
    rows["veth UDP echo round trip, median / p99 (ms)"] = \
        f"{statistics.median(echo_ms):.3f} / {disc.quantile(echo_ms, 0.99):.3f}"
    for name, ratio in codec_ratios(build_dir).items():
        rows[f"codec: {name}"] = f"{ratio:.1f}x"
    return rows


def print_table(columns):
    labels = list(columns)
    keys = []
    for rows in columns.values():
        keys += [k for k in rows if k not in keys]
    width = max(len(k) for k in keys)
    cell = max(24, *(len(v) for rows in columns.values() for v in rows.values()))
    print(f"| {'figure':<{width}} | " + " | ".join(f"{l:<{cell}}" for l in labels) + " |")
    print(f"|{'-' * (width + 2)}|" + "|".join("-" * (cell + 2) for _ in labels) + "|")
    for key in keys:
        print(f"| {key:<{width}} | " +
              " | ".join(f"{columns[l].get(key, '-'):<{cell}}" for l in labels) + " |")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", action="append",
                        help="build directory under test (default: the lab's); may be given "
                        "more than once, each measured in turn")
    parser.add_argument("--base", help="a baseline build directory, measured first")
    parser.add_argument("--quick", action="store_true", help="fewer samples")
    options = parser.parse_args()
    options.answers = 3000 if options.quick else 20000
    options.datagrams = 300 if options.quick else 2000
    options.cycles = 50 if options.quick else 300
    options.echoes = 100 if options.quick else 500
    if not nsutil.is_root():
        sys.exit("needs root (network and mount namespaces)")

    under_test = options.build or [labmod.default_build_dir()]
    builds = [("before", options.base)] if options.base else []
    builds += [(f"{'after' if options.base else 'build'}: {os.path.basename(d.rstrip('/'))}", d)
               for d in under_test]
    columns = {}
    # Built into a build directory: the APs see it, not the host's /tmp.
    responder = build_responder(os.path.abspath(under_test[0]))
    for number, (label, build_dir) in enumerate(builds):
        print(f"measuring {label}: {os.path.abspath(build_dir)}", flush=True)
        columns[label] = measure(os.path.abspath(build_dir), f"x{number}", options, responder)
    print()
    print_table(columns)


if __name__ == "__main__":
    main()
