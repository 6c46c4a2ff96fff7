"""tarn-info against running daemons in the lab: the JSON of a 4-AP lab, a full table with
every static neighbor, a learned neighbor's claimed state, the shared answer that spares the
driver, and the change events of --watch."""

import contextlib
import json
import os
import signal
import socket
import subprocess
import threading
import time

from tarnlab import drvproto, nsutil
from tarnlab.show import parse_wireless_table
from tarnsys import NBCP_PORT, ndsp, udp_socket_in, wait_for

LAB_VERSION = "1.0.0-lab"
CACHE_AGE_S = 5


def info_binary(lab):
    return os.path.join(lab.build_dir, "tarn-info")


def run_in(ap, argv, timeout=30):
    """Runs argv inside the AP like ap.exec, but safe to call from several threads at once."""
    env = [f"{key}={value}" for key, value in ap.env().items()]
    return subprocess.run(nsutil.nsenter_argv(ap.holder_pid) + ["env", "-i"] + env + argv,
                          capture_output=True, text=True, timeout=timeout,
                          stdin=subprocess.DEVNULL)


def info(ap, *args, timeout=30):
    return run_in(ap, [info_binary(ap.lab)] + list(args), timeout=timeout)


def neighbors(ap):
    result = info(ap)
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout)["neighbors"]


def by_mac(entries):
    return {n["mac"]: n for n in entries}


def hears(listener, heard, radios):
    return [{"ap": listener, "hears": heard, **radio} for radio in radios]


# ----- the answer of a 4-AP lab ---------------------------------------------------------------

# Distinct driver facts per heard AP and radio, so that a value from the wrong entry shows.
RADIOS = {
    "ap2": [{"radio": 0, "channel": 1, "rssi": 41, "bandwidth": 20},
            {"radio": 1, "channel": 36, "rssi": 51, "bandwidth": 80}],
    "ap3": [{"radio": 0, "channel": 6, "rssi": 42, "bandwidth": 40},
            {"radio": 1, "channel": 44, "rssi": 52, "bandwidth": 160}],
    "ap4": [{"radio": 0, "channel": 11, "rssi": 43, "bandwidth": 20},
            {"radio": 1, "channel": 149, "rssi": 53, "bandwidth": 80}],
}
FOUR_APS = {"count": 4, "hears": [h for name, radios in RADIOS.items()
                                  for h in hears("ap1", name, radios)]}


def answered_all(ap, count):
    entries = neighbors(ap)
    return entries if len(entries) == count and all(n["answered"] for n in entries) else None


def test_json_lists_exactly_the_heard_aps_with_the_drivers_values(make_lab):
    lab = make_lab(FOUR_APS)
    ap1 = lab["ap1"]

    entries = wait_for(lambda: answered_all(ap1, 3), 30, what="ap1 listing ap2-ap4 answered")

    assert sorted(n["mac"] for n in entries) == sorted(lab[a].mac for a in RADIOS)
    for name, radios in RADIOS.items():
        ap = lab[name]
        n = by_mac(entries)[ap.mac]
        assert (n["learned"], n["static"], n["state"], n["state_name"]) == \
            (True, False, 0, "active")
        assert (n["name"], n["version"], n["tenant"]) == (f"lab-{name}", LAB_VERSION, "t-lab")
        assert (n["ip"], n["ip6"], n["qv_ip"]) == (ap.ip4, ap.ip6, "10.99.0.250")
        assert n["cluster"] == {"flag": 1, "id": 1, "pvc_ip": lab["ap1"].ip4,
                                "pvc_mac": lab["ap1"].mac}
        assert n["radio_count"] == 2
        # The transmit power is the neighbor's own word: 0 for the lab's veth VAPs.
        assert n["radios"] == [{"index": r["radio"], "radioid": r["radio"],
                                "channel": r["channel"], "bandwidth": r["bandwidth"],
                                "rssi": r["rssi"], "txpower": 0} for r in radios]


# ----- hand-made answers: a full table with the longest texts ---------------------------------

NAME_MAX, VERSION_MAX, TENANT_MAX = 31, 15, 63


def fake_mac(i):
    return f"02:7b:00:00:01:{i:02x}"


def cache_reply(macs):
    radios = [{"radioid": r, "channel": 36 + 4 * r, "txpower": 0, "rssi": 20 + r,
               "bandwidth": 80} for r in range(4)]
    return drvproto.encode_cache_reply([
        drvproto.encode_cache_entry(mac, f"10.99.1.{i + 1}", "", radios, time_value=i + 1)
        for i, mac in enumerate(macs)])


def describe(ap, mac, **fields):
    """Sends `ap`'s daemon an answer for `mac` from a socket inside the AP."""
    sock = udp_socket_in(ap, port=0)
    with sock:
        sock.sendto(ndsp(mac, **fields), (ap.ip4, NBCP_PORT))


STATIC_MACS = [f"02:7c:00:00:02:{i:02x}" for i in range(8)]
ONE_AP_FULL = {"count": 1, "hears": "none",
               "aps": [{"static_neighbors": [{"mac": m, "ip": f"10.99.2.{i + 1}"}
                                             for i, m in enumerate(STATIC_MACS)]}]}


def test_full_table_with_longest_texts_and_every_static_neighbor_arrives(make_lab):
    lab = make_lab(ONE_AP_FULL)
    ap1 = lab["ap1"]
    learned = [fake_mac(i) for i in range(64)]
    ap1.sim_command({"cmd": "send", "hex": cache_reply(learned).hex()})
    wait_for(lambda: len(neighbors(ap1)) == 72, 30, what="64 learned and 8 static entries")

    for i, mac in enumerate(learned):
        describe(ap1, mac, name=b"n" * (NAME_MAX - 2) + b"%02x" % i, version=b"v" * VERSION_MAX,
                 tenant=b"t" * TENANT_MAX)

    def all_named():
        entries = neighbors(ap1)
        return entries if sum(n["name"].startswith("nnn") for n in entries) == 64 else None
    entries = wait_for(all_named, 30, what="64 answers taken")

    assert len(entries) == 72
    assert sorted(n["mac"] for n in entries[:64]) == sorted(learned)
    # The daemon loaded the file: each entry went to the front of its static list.
    assert [n["mac"] for n in entries[64:]] == STATIC_MACS[::-1]
    for n in entries[:64]:
        assert (n["learned"], n["static"], len(n["name"]), n["version"], n["tenant"]) == \
            (True, False, NAME_MAX, "v" * VERSION_MAX, "t" * TENANT_MAX)
        assert (n["radio_count"], [r["txpower"] for r in n["radios"]]) == (4, [10, 11, 12, 13])
    for n in entries[64:]:
        assert (n["learned"], n["static"]) == (False, True)


def test_learned_neighbor_claiming_static_state_stays_learned(make_lab):
    lab = make_lab({"count": 1, "hears": "none"})
    ap1 = lab["ap1"]
    mac = fake_mac(1)
    ap1.sim_command({"cmd": "send", "hex": cache_reply([mac]).hex()})
    wait_for(lambda: len(neighbors(ap1)) == 1, 30, what="the learned entry")

    describe(ap1, mac, name=b"claims-static", version=b"1", tenant=b"t", state=3, radios=2)

    entry = wait_for(lambda: next((n for n in neighbors(ap1) if n["name"] == "claims-static"),
                                  None), 30, what="the answer claiming state 3")
    assert (entry["state"], entry["state_name"], entry["learned"], entry["static"]) == \
        (3, "static_active", True, False)


# ----- the shared answer: 100 callers, the driver asked at most once per 5 s ------------------

def cache_requests(ap):
    return [e for e in ap.driver_record("rx") if e.get("op") == drvproto.OP_GET_APS]


def show_rows(ap):
    result = run_in(ap, [ap.lab.tarn_binary, "show"])
    assert result.returncode == 0, result.stderr
    return sorted((r["mac"], r["name"], r["version"]) for r in parse_wireless_table(result.stdout))


def test_hundred_calls_share_answers_and_tarn_show_is_unaffected(make_lab):
    lab = make_lab(FOUR_APS)
    ap1 = lab["ap1"]
    wait_for(lambda: answered_all(ap1, 3), 30, what="ap1 listing ap2-ap4 answered")
    rows_before = show_rows(ap1)
    assert len(rows_before) == 3
    time.sleep(CACHE_AGE_S + 1)  # the answer read above is stale by now
    before = len(cache_requests(ap1))

    failures, shows = [], []

    def caller(count):
        # Spread over about 8 s, so the calls span one expiry of the shared answer.
        for _ in range(count):
            time.sleep(0.8)
            result = info(ap1)
            if result.returncode != 0 or len(json.loads(result.stdout)["neighbors"]) != 3:
                failures.append(result.stderr or result.stdout)

    started = time.monotonic()
    threads = [threading.Thread(target=caller, args=(10,)) for _ in range(10)]
    for t in threads:
        t.start()
    while any(t.is_alive() for t in threads):
        shows.append(show_rows(ap1))
    for t in threads:
        t.join()
    elapsed = time.monotonic() - started
    requests = len(cache_requests(ap1)) - before

    print(f"100 calls in {elapsed:.1f} s: {requests} driver cache requests; "
          f"{len(shows)} tarn show runs meanwhile")
    assert failures == []
    # One request when the calls start, one more per full cache age they span: 2 in 9 s.
    assert 1 <= requests <= 1 + int(elapsed // CACHE_AGE_S)
    assert shows and all(rows == rows_before for rows in shows)
    leftovers = [f for f in os.listdir(ap1.path("/tmp/socket")) if f.startswith("tarn_info.")
                 and f not in ("tarn_info.cache", "tarn_info.lock")]
    assert leftovers == []


# ----- --watch --------------------------------------------------------------------------------

def read_events(proc, lines, stop):
    for line in proc.stdout:
        lines.append((time.monotonic(), json.loads(line)))
        if stop.is_set():
            return


def test_watch_reports_a_drop_and_the_return(make_lab):
    lab = make_lab(FOUR_APS)
    ap1, ap3 = lab["ap1"], lab["ap3"]
    wait_for(lambda: answered_all(ap1, 3), 30, what="ap1 listing ap2-ap4 answered")
    time.sleep(CACHE_AGE_S + 1)  # the watch's first read then asks the driver: a sign it ran
    requests = len(cache_requests(ap1))
    interval = 1
    proc = ap1.popen([info_binary(lab), "--watch", str(interval)], stdout=subprocess.PIPE,
                     text=True)
    events, stop = [], threading.Event()
    reader = threading.Thread(target=read_events, args=(proc, events, stop), daemon=True)
    reader.start()
    try:
        wait_for(lambda: len(cache_requests(ap1)) > requests, 30, what="the watch's first read")
        dropped_at = time.monotonic()
        ap1.drop(ap3)

        def event(kind):
            return next(((at, e) for at, e in events
                         if e["event"] == kind and e.get("mac") == ap3.mac), None)
        removed_at, removed = wait_for(lambda: event("removed"), 30, what="a removed event")
        print(f"removed reported {removed_at - dropped_at:.1f} s after the drop "
              f"(interval {interval} s + cache age {CACHE_AGE_S} s + 1 s allowed)")
        assert removed["reason"] == "dropped"
        assert removed["neighbor"]["name"] == "lab-ap3"

        for radio in RADIOS["ap3"]:
            ap1.hear(ap3, **{k: v for k, v in radio.items()})
        _, added = wait_for(lambda: event("added"), 30, what="an added event")
        assert added["neighbor"]["mac"] == ap3.mac

        def daemon_event(kind):
            return any(e["event"] == kind for _, e in events)
        ap1.stop_daemon()
        wait_for(lambda: daemon_event("daemon_down"), 30, what="a daemon_down event")
        ap1.start_daemon()
        wait_for(lambda: daemon_event("daemon_up"), 30, what="a daemon_up event")
    finally:
        stop.set()
        proc.terminate()
        proc.wait(timeout=10)
    assert proc.returncode == 0
    assert not any(f.startswith("tarn_info.") and f[len("tarn_info."):].isdigit()
                   for f in os.listdir(ap1.path("/tmp/socket")))


def test_silent_or_missing_daemon_fails_with_a_message(make_lab):
    lab = make_lab({"count": 1, "hears": "none"})
    ap1 = lab["ap1"]
    # A daemon that is there but does not answer: no cached answer yet, so the call waits for
    # it, and gives up.
    os.kill(ap1.daemon_pid, signal.SIGSTOP)
    try:
        started = time.monotonic()
        result = info(ap1, timeout=10)
        print(f"tarn-info with a stopped daemon: {time.monotonic() - started:.2f} s")
    finally:
        os.kill(ap1.daemon_pid, signal.SIGCONT)
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr.startswith("tarn-info: no answer")

    ap1.stop_daemon()
    for args in ([], ["--prometheus"], ["--json"]):
        started = time.monotonic()
        result = info(ap1, *args, timeout=10)
        print(f"tarn-info {' '.join(args)} without a daemon: {time.monotonic() - started:.2f} s")
        assert (result.returncode, result.stdout) == (1, "")
        assert result.stderr.startswith("tarn-info: ") and result.stderr.count("\n") == 1


def test_metrics_file_kept_current_until_terminated(make_lab):
    lab = make_lab({"count": 1, "hears": "none"})
    ap1 = lab["ap1"]
    metrics = ap1.path("/tmp/tarn.prom")

    def metrics_say(line):
        with contextlib.suppress(FileNotFoundError), open(metrics) as f:
            return line in f.read()
    proc = ap1.popen([info_binary(lab), "--prometheus", "--output", "/tmp/tarn.prom",
                      "--interval", "1"])
    try:
        wait_for(lambda: metrics_say("\ntarn_up 1\n"), 30, what="tarn_up 1 in the file")
        # Without a daemon the file still gets written, and says so.
        ap1.stop_daemon()
        wait_for(lambda: metrics_say("\ntarn_up 0\n"), 30, what="tarn_up 0 in the file")
    finally:
        proc.terminate()
        proc.wait(timeout=10)
    assert proc.returncode == 0
    assert [f for f in os.listdir(os.path.dirname(metrics)) if f.endswith(".tmp")] == []
