#!/usr/bin/python3
"""Hostile soak: a bounded mix of hostile datagrams on all four receiving sockets of a daemon
(IPv4 and IPv6 nbcp, the driver's netlink port, the local control socket), plus local requests
from a process that never reads its answers. Afterwards the daemon must still answer a probe
and `tarn show`, and end with status 0 on SIGTERM with no sanitizer report in its output.
Prints the datagrams sent per socket, what the daemon counted, and its memory before and after.
Meant for the ASan+UBSan build; needs root. Traffic stays inside the lab's own namespaces.

    sudo lab/soak_hostile.py [--build-dir build-asan] [--rounds 20000] [--seed 14]
"""

import argparse
import contextlib
import glob
import json
import os
import random
import signal
import socket
import struct
import subprocess
import sys
import time

LAB_DIR = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(LAB_DIR)
sys.path.insert(0, LAB_DIR)

from tarnlab import drvproto  # noqa: E402
from tarnlab import lab as labmod  # noqa: E402
from tarnlab import nsutil  # noqa: E402
from tarnlab.nbcp import NBCP_PORT, PROBE, probe_answered  # noqa: E402

TARN_SOCKET = "/tmp/socket/tarn_socket"
NBCP_MAX = 65507  # the largest UDP payload
LOCAL_MAX = 65535
# A small quarantine keeps freed blocks from counting as memory in use (the default 256 MiB
# would show as growth); use-after-free is still caught within it.
QUARANTINE = "quarantine_size_mb=4"
SANITIZER_MARKS = ("Sanitizer", "runtime error:")
# Runs inside the AP: sends operation-1 requests from a bound socket and never reads answers.
NEVER_READS = """
import socket, struct, sys, time
reader = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
reader.bind("/tmp/never_reads")
reader.settimeout(2.0)
for _ in range(int(sys.argv[1])):
    reader.sendto(struct.pack("=BxxxHxx", 0, 1), "/tmp/socket/tarn_socket")
print("sent", flush=True)
time.sleep(3600)
"""


def seeds(corpus):
    return [open(path, "rb").read() for path in sorted(glob.glob(
        os.path.join(REPO, "fuzz", "corpus", corpus, "*")))]


def mutated(rng, seed, limit):
    data = bytearray(seed)
    for _ in range(rng.randint(1, 8)):
        if data and rng.random() < 0.7:
            data[rng.randrange(len(data))] = rng.randrange(256)
        else:
            data[rng.randint(0, len(data)):] = rng.randbytes(rng.randint(0, 64))
    return bytes(data[:limit])


def hostile(rng, seed_list, limit):
    """Random bytes of any length up to the limit, or a valid message with bytes changed."""
    roll = rng.random()
    if roll < 0.4 and seed_list:
        return mutated(rng, rng.choice(seed_list), limit)
    if roll < 0.45:
        return rng.randbytes(limit)
    return rng.randbytes(rng.choice((0, 1, 3, 4, 9, 10, 16, 60, 300, 2000)))


def local_request(rng):
    op = rng.choice([1, 2, 3, 4, 5, 6, 7, 8, 10, 11, 12, 51, 0, rng.randrange(65536)])
    if op == 11 and rng.random() < 0.9:
        op = 5  # each new version runs a shell command: keep them few
    value = rng.randrange(256)
    payload = rng.randbytes(rng.choice((0, 0, 4, 180, 2000)))
    if rng.random() < 0.01:
        payload = rng.randbytes(LOCAL_MAX - 8)
    return struct.pack("=BxxxHxx", value, op) + payload


def rss_kib(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0


def counters(ap):
    result = ap.bus("debug_get", timeout=30)
    if result.returncode != 0:
        return {}
    return json.loads(result.stdout)["Socket_rcvCount"]


def soak(lab, rounds, rng):
    ap1, ap2 = lab.ap("ap1"), lab.ap("ap2")
    ap1.start_daemon([], env={"ASAN_OPTIONS": QUARANTINE + ":detect_leaks=1",
                              "UBSAN_OPTIONS": "print_stacktrace=1"})
    time.sleep(1.0)  # start-up's first jobs
    pid = ap1.daemon_pid
    rss_before = rss_kib(pid)

    with nsutil.netns_entered(ap2.netns):
        sender4 = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        sender6 = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
    with nsutil.netns_entered(ap1.netns):
        driver = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, drvproto.NETLINK_USERSOCK)
    local = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    local.settimeout(10.0)  # a daemon that stopped reading fails the soak
    sent = {"nbcp IPv4": 0, "nbcp IPv6": 0, "driver netlink": 0, "local control": 0,
            "local op 1, never read": 0}
    never_reads = ap1.popen([sys.executable, "-c", NEVER_READS, "40"], stdout=subprocess.PIPE,
                            text=True)
    try:
        sender4.bind(("0.0.0.0", NBCP_PORT))
        sender6.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
        sender6.bind(("::", NBCP_PORT))
        driver.bind((0, 0))
        port = driver.getsockname()[0]
        nbcp_seeds, driver_seeds = seeds("parse") + [PROBE], seeds("driver")
        longest_wait = 0.0  # the longest a local request waited for room in the daemon's queue
        if never_reads.stdout.readline().strip() != "sent":
            raise SystemExit("soak: the never-reading process could not send its requests")
        sent["local op 1, never read"] = 40
        for _ in range(rounds):
            with contextlib.suppress(BlockingIOError, ConnectionRefusedError):
                sender4.sendto(hostile(rng, nbcp_seeds, NBCP_MAX), (ap1.ip4, NBCP_PORT))
                sent["nbcp IPv4"] += 1
            with contextlib.suppress(BlockingIOError, ConnectionRefusedError):
                sender6.sendto(hostile(rng, nbcp_seeds, NBCP_MAX), (ap1.ip6, NBCP_PORT, 0, 0))
                sent["nbcp IPv6"] += 1
            if rng.random() < 0.5:
                payload = hostile(rng, [s[16:] for s in driver_seeds], 30000)
                driver.sendto(drvproto.frame(payload, port), (drvproto.DAEMON_PORT, 0))
                sent["driver netlink"] += 1
            if rng.random() < 0.25:
                began = time.monotonic()
                local.sendto(local_request(rng), ap1.path(TARN_SOCKET))
                longest_wait = max(longest_wait, time.monotonic() - began)
                sent["local control"] += 1
        time.sleep(2.0)  # let the daemon drain its queues
        answered = probe_answered(sender4, ap1.ip4)
        show = ap1.tarn("show", timeout=30)
        counted = counters(ap1)
        rss_after = rss_kib(pid)
    finally:
        never_reads.kill()
        never_reads.wait()
        for sock in (sender4, sender6, driver, local):
            sock.close()
    status = ap1.stop_daemon(signal.SIGTERM, timeout=30)
    log = ap1.log_text()
    return {"sent": sent, "counted": counted, "longest wait": longest_wait, "rss": (rss_before, rss_after),
            "probe answered": answered, "show": show, "exit status": status,
            "sanitizer lines": [line for line in log.splitlines()
                                if any(mark in line for mark in SANITIZER_MARKS)]}


def report(figures):
    print("hostile soak: datagrams sent per socket")
    for name, count in figures["sent"].items():
        print(f"  {name:24} {count:7d}")
    print("  handled by the daemon (its receive counters): " +
          ", ".join(f"{k}={v}" for k, v in figures["counted"].items()))
    print(f"  longest wait of a local request for room in the daemon's queue: "
          f"{figures['longest wait'] * 1000:.0f} ms")
    before, after = figures["rss"]
    print(f"  RSS before {before} KiB, after {after} KiB")
    show = figures["show"]
    rows = max(0, len(show.stdout.splitlines()) - 2)
    print(f"  afterwards: probe answered: {figures['probe answered']}; `tarn show` exit "
          f"{show.returncode}, {rows} rows; SIGTERM exit status {figures['exit status']}; "
          f"sanitizer lines: {len(figures['sanitizer lines'])}")
    for line in figures["sanitizer lines"][:20]:
        print("    " + line)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build-dir", default=os.path.join(REPO, "build-asan"))
    parser.add_argument("--rounds", type=int, default=20000)
    parser.add_argument("--seed", type=int, default=14)
    args = parser.parse_args()
    scenario = {"count": 2, "hears": "all"}
    with labmod.Lab(scenario, name=f"soak{os.getpid()}", build_dir=os.path.abspath(
            args.build_dir), owner_pid=os.getpid(), daemons=False) as lab:
        figures = soak(lab, args.rounds, random.Random(args.seed))
    report(figures)
    ok = (figures["probe answered"] and figures["show"].returncode == 0 and
          figures["exit status"] == 0 and not figures["sanitizer lines"])
    print("hostile soak: " + ("passed" if ok else "FAILED"))
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
