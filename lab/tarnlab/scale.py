"""Full-table scale: wait until every AP's table is as full as it can be, then report what each
daemon costs and what the table did at capacity."""

import concurrent.futures
import os
import statistics
import time

from .nsutil import LabError

TABLE_MAX = 64  # the daemon's default max_ngbr_num
READERS_AT_ONCE = 8


def _complete_rows(ap, expected_macs):
    rows = {row["mac"]: row for row in ap.show()}
    return sum(1 for mac in expected_macs
               if mac in rows and rows[mac].get("name") not in (None, "", "-1")
               and rows[mac].get("version") not in (None, "", "-1"))


def heard_macs(lab):
    """{ap name: MACs its driver hears}, from the scenario."""
    mac_of = {ap.name: ap.mac for ap in lab.aps}
    heard = {ap.name: set() for ap in lab.aps}
    for item in lab.scenario["hears"]:
        heard[item["ap"]].add(mac_of[item["hears"]])
    return heard


def table_status(lab, table_max=TABLE_MAX, heard=None, aps=None):
    """{ap: (complete entries, target)} of `aps` (default every AP): the target is
    min(heard APs, table_max). The tables are read a few at a time: one after another, 128
    of them took longer than the tables took to fill."""
    heard = heard or heard_macs(lab)
    aps = lab.aps if aps is None else aps

    def complete(ap):
        try:
            return _complete_rows(ap, heard[ap.name])
        except LabError:
            return 0

    with concurrent.futures.ThreadPoolExecutor(READERS_AT_ONCE) as pool:
        done = list(pool.map(complete, aps))
    return {ap.name: (have, min(len(heard[ap.name]), table_max))
            for ap, have in zip(aps, done)}


def _proc_stat(pid):
    with open(f"/proc/{pid}/stat") as handle:
        fields = handle.read().rsplit(")", 1)[1].split()
    ticks = os.sysconf("SC_CLK_TCK")
    cpu = (int(fields[11]) + int(fields[12])) / ticks  # utime + stime
    started = int(fields[19]) / ticks  # since boot
    return cpu, started


def _rss_kb(pid):
    with open(f"/proc/{pid}/status") as handle:
        for line in handle:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0


def _uptime():
    with open("/proc/uptime") as handle:
        return float(handle.read().split()[0])


def _capacity_counts(ap):
    """Log lines of a full table: reached full, a new neighbor refused, an entry replaced."""
    full = refused = 0
    with open(ap.log_path, "rb") as handle:
        for line in handle:
            if b"neighbor table is full!!!" in line:
                full += 1
            elif b"table is full,replace error!" in line:
                refused += 1
    return full, refused, full - refused


def converge(lab, timeout=600.0, cache_every=0.0, out=print):
    """Waits for full tables, sending a driver cache reply from every AP every `cache_every`
    seconds when it is not 0. Returns True when every table reached its target.

    While waiting only the tables not yet seen full are read again (reading all 128 took
    seconds of a busy machine, which the figure would have counted); once each was seen full,
    one more pass over all of them confirms it, and a table that lost entries meanwhile is
    waited for again. The figure is when the last table was seen full."""
    pids = {ap.name: ap.daemon_pid for ap in lab.aps}
    started = max(_proc_stat(pid)[1] for pid in pids.values())
    deadline = time.monotonic() + timeout
    next_cache = time.monotonic()
    last_line = ""
    heard = heard_macs(lab)
    status = {ap.name: (0, min(len(heard[ap.name]), TABLE_MAX)) for ap in lab.aps}
    pending = list(lab.aps)
    while True:
        if cache_every and time.monotonic() >= next_cache:
            for ap in lab.aps:
                ap.sim_command({"cmd": "cache"})
            next_cache = time.monotonic() + cache_every
        status.update(table_status(lab, heard=heard, aps=pending))
        pending = [ap for ap in pending if status[ap.name][0] < status[ap.name][1]]
        seen_full = _uptime() - started
        done = len(status) - len(pending)
        line = (f"  {done}/{len(status)} APs complete; entries filled: "
                f"{sum(h for h, _ in status.values())}/{sum(w for _, w in status.values())}")
        if line != last_line:
            out(f"{seen_full:7.1f}s{line}")
            last_line = line
        if not pending:
            confirmed = table_status(lab, heard=heard)
            pending = [ap for ap in lab.aps if confirmed[ap.name][0] < confirmed[ap.name][1]]
            if not pending:
                break
            out(f"  {', '.join(ap.name for ap in pending)} lost entries: waiting again")
            status.update(confirmed)
        dead = [ap.name for ap in lab.aps if not ap.daemon_running()]
        if dead or time.monotonic() > deadline:
            out(f"not complete: {'tarn ended in ' + ', '.join(dead) if dead else 'timeout'}")
            for name, (have, want) in status.items():
                if have < want:
                    out(f"  {name}: {have}/{want}")
            return False
        time.sleep(0.5)
    target = min(len(lab.aps) - 1, TABLE_MAX)
    out(f"every AP lists {target} neighbors with name and version {seen_full:.1f}s after the "
        f"last daemon started (every table read again at {_uptime() - started:.1f}s: still "
        f"full)")
    report(lab, out)
    return True


def report(lab, out=print):
    cpu, rss, counts = {}, {}, {}
    for ap in lab.aps:
        cpu[ap.name] = _proc_stat(ap.daemon_pid)[0]
        rss[ap.name] = _rss_kb(ap.daemon_pid)
        counts[ap.name] = _capacity_counts(ap)
    out("per daemon (CPU seconds since start, VmRSS KiB):")
    names = [ap.name for ap in lab.aps]
    for i in range(0, len(names), 6):
        out("  " + "  ".join(f"{n:>5} {cpu[n]:5.2f}s {rss[n]:5d}K" for n in names[i:i + 6]))
    for label, values, unit in (("CPU", cpu, "s"), ("VmRSS", rss, " KiB")):
        ordered = sorted(values.values())
        out(f"  {label}: min {ordered[0]:.2f}{unit}, median {statistics.median(ordered):.2f}"
            f"{unit}, max {ordered[-1]:.2f}{unit}")
    if not all("-D" in ap.config["daemon_args"] for ap in lab.aps):
        out("table at capacity: not counted (the daemons log it only with -D: lab up --debug)")
        return
    full = sum(c[0] for c in counts.values())
    refused = sum(c[1] for c in counts.values())
    replaced = sum(c[2] for c in counts.values())
    out(f"table at capacity (logs of all APs): full {full} times, new neighbor refused "
        f"{refused} times (no entry with a driver time value), oldest entry replaced "
        f"{replaced} times")
