"""tarn-info against running daemons in the lab: the JSON of a 4-AP lab, a full table with every
static neighbor, the shared answer that spares the driver, the change events of --watch, and the
failures and metrics file without a daemon."""

import contextlib
import json
import os
import signal
import subprocess
import threading
import time
from concurrent.futures import ThreadPoolExecutor

from tarnlab import drvproto, nsutil
from tarnsys import NBCP_PORT, ndsp, udp_socket_in, wait_for

CACHE_AGE_S = 5
ONE_AP = {"count": 1, "hears": "none"}
# Distinct driver facts per heard AP and radio (channel, rssi, bandwidth), so that a value from
# the wrong entry shows.
RADIOS = {name: [{"radio": i, "channel": c, "rssi": r, "bandwidth": b}
                 for i, (c, r, b) in enumerate(facts)]
          for name, facts in {"ap2": [(1, 41, 20), (36, 51, 80)],
                              "ap3": [(6, 42, 40), (44, 52, 160)],
                              "ap4": [(11, 43, 20), (149, 53, 80)]}.items()}
FOUR_APS = {"count": 4, "hears": [{"ap": "ap1", "hears": name, **radio}
                                  for name, radios in RADIOS.items() for radio in radios]}


def info(ap, *args, timeout=30):
    """Runs tarn-info (the build's, on the lab's PATH) inside the AP like ap.exec, but safe to
    call from several threads at once."""
    return subprocess.run(nsutil.nsenter_argv(ap.holder_pid) + ["tarn-info", *args], env=ap.env(),
                          capture_output=True, text=True, timeout=timeout, stdin=subprocess.DEVNULL)


def neighbors(ap):
    result = info(ap)
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout)["neighbors"]


def four_ap_lab(make_lab):
    lab = make_lab(FOUR_APS)

    def answered_all():
        entries = neighbors(lab["ap1"])
        return entries if len(entries) == 3 and all(n["answered"] for n in entries) else None
    return lab, wait_for(answered_all, 30, what="ap1 listing ap2-ap4")


def cache_requests(ap):
    return len([e for e in ap.driver_record("rx") if e.get("op") == drvproto.OP_GET_APS])


def test_json_lists_exactly_the_heard_aps_with_the_drivers_values(make_lab):
    lab, entries = four_ap_lab(make_lab)
    assert sorted(n["mac"] for n in entries) == sorted(lab[a].mac for a in RADIOS)
    for n in entries:
        name, ap = next((name, lab[name]) for name in RADIOS if lab[name].mac == n["mac"])
        assert n == {**n, "learned": True, "static": False, "state": 0, "state_name": "active",
                     "name": f"lab-{name}", "version": "1.0.0-lab", "tenant": "t-lab",
                     "ip": ap.ip4, "ip6": ap.ip6, "qv_ip": "10.99.0.250", "radio_count": 2,
                     "cluster": {"flag": 1, "id": 1, "pvc_ip": lab["ap1"].ip4,
                                 "pvc_mac": lab["ap1"].mac}}
        # The transmit power is the neighbor's own word: 0 for the lab's veth VAPs.
        assert n["radios"] == [{"index": r["radio"], "radioid": r["radio"], "txpower": 0,
                                **{k: r[k] for k in ("channel", "bandwidth", "rssi")}}
                               for r in RADIOS[name]]


NAME_MAX, VERSION_MAX, TENANT_MAX = 31, 15, 63


def named(ap, prefix, count):
    entries = neighbors(ap)
    return entries if sum(n["name"].startswith(prefix) for n in entries) == count else None


def test_full_table_with_longest_texts_and_every_static_neighbor_arrives(make_lab):
    statics = [f"02:7c:00:00:02:{i:02x}" for i in range(8)]
    ap1 = make_lab({**ONE_AP, "aps": [{"static_neighbors": [
        {"mac": m, "ip": f"10.99.2.{i + 1}"} for i, m in enumerate(statics)]}]})["ap1"]
    learned = [f"02:7b:00:00:01:{i:02x}" for i in range(64)]
    radios = [{"radioid": r, "channel": 36 + 4 * r, "txpower": 0, "rssi": 20 + r,
               "bandwidth": 80} for r in range(4)]
    ap1.sim_command({"cmd": "send", "hex": drvproto.encode_cache_reply([
        drvproto.encode_cache_entry(mac, f"10.99.1.{i + 1}", "", radios, time_value=i + 1)
        for i, mac in enumerate(learned)]).hex()})
    wait_for(lambda: len(neighbors(ap1)) == 72, 30, what="64 learned and 8 static entries")
    # Each learned one answers, from inside ap1, with 4 radios and the longest texts.
    with udp_socket_in(ap1, port=0) as sock:
        for i, mac in enumerate(learned):
            name = b"n" * (NAME_MAX - 2) + b"%02x" % i
            sock.sendto(ndsp(mac, name, b"v" * VERSION_MAX, b"t" * TENANT_MAX),
                        (ap1.ip4, NBCP_PORT))
    entries = wait_for(lambda: named(ap1, "nnn", 64), 30, what="64 answers taken")

    assert len(entries) == 72
    assert sorted(n["mac"] for n in entries[:64]) == sorted(learned)
    # The daemon loaded the file: each entry went to the front of its static list.
    assert [n["mac"] for n in entries[64:]] == statics[::-1]
    for n in entries[:64]:
        assert (n["learned"], n["static"], len(n["name"]), n["version"], n["tenant"]) == \
            (True, False, NAME_MAX, "v" * VERSION_MAX, "t" * TENANT_MAX)
        assert (n["radio_count"], [r["txpower"] for r in n["radios"]]) == (4, [10, 11, 12, 13])
    assert all((n["learned"], n["static"]) == (False, True) for n in entries[64:])


def test_hundred_calls_share_answers(make_lab):
    lab, _ = four_ap_lab(make_lab)
    ap1 = lab["ap1"]
    time.sleep(CACHE_AGE_S + 1)  # the answer read above is stale by now
    before = cache_requests(ap1)
    failures = []

    def caller():  # 10 calls spread over about 8 s, spanning one expiry of the shared answer
        for _ in range(10):
            time.sleep(0.8)
            result = info(ap1)
            if result.returncode != 0 or len(json.loads(result.stdout)["neighbors"]) != 3:
                failures.append(result.stderr or result.stdout)

    started = time.monotonic()
    with ThreadPoolExecutor(10) as pool:
        list(pool.map(lambda _: caller(), range(10)))  # re-raises what a caller raised
    elapsed, requests = time.monotonic() - started, cache_requests(ap1) - before
    print(f"100 calls in {elapsed:.1f} s: {requests} driver cache requests")
    assert failures == []
    # One request when the calls start, one more per full cache age they span: 2 in 9 s.
    assert 1 <= requests <= 1 + int(elapsed // CACHE_AGE_S)


def test_watch_reports_a_drop_and_the_return(make_lab):
    lab, _ = four_ap_lab(make_lab)
    ap1, ap3 = lab["ap1"], lab["ap3"]
    time.sleep(CACHE_AGE_S + 1)  # the watch's first read then asks the driver: a sign it ran
    requests = cache_requests(ap1)
    proc = ap1.popen(["tarn-info", "--watch", "1"], stdout=subprocess.PIPE, text=True)
    events = []

    def read_events():
        for line in proc.stdout:
            events.append(json.loads(line))
    threading.Thread(target=read_events, daemon=True).start()

    def event(kind, mac=None):
        return next((e for e in list(events) if e["event"] == kind and e.get("mac") == mac), None)
    try:
        wait_for(lambda: cache_requests(ap1) > requests, 30, what="the watch's first read")
        ap1.drop(ap3)
        removed = wait_for(lambda: event("removed", ap3.mac), 30, what="a removed event")
        assert (removed["reason"], removed["neighbor"]["name"]) == ("dropped", "lab-ap3")
        for radio in RADIOS["ap3"]:
            ap1.hear(ap3, **radio)
        added = wait_for(lambda: event("added", ap3.mac), 30, what="an added event")
        assert added["neighbor"]["mac"] == ap3.mac
        ap1.stop_daemon()
        wait_for(lambda: event("daemon_down"), 30, what="a daemon_down event")
        ap1.start_daemon()
        wait_for(lambda: event("daemon_up"), 30, what="a daemon_up event")
    finally:
        proc.terminate()
        proc.wait(timeout=10)
    # Ended by a signal while it waited, it still removed its reply socket.
    assert proc.returncode == 0 and [f for f in os.listdir(ap1.path("/tmp/socket"))
                                     if f.startswith("tarn_info.") and f[10:].isdigit()] == []


def test_silent_or_missing_daemon_fails_with_a_message_and_the_metrics_say_so(make_lab):
    ap1 = make_lab(ONE_AP)["ap1"]
    # A daemon that is there but does not answer: no shared answer yet, so the call waits for
    # it, and gives up.
    os.kill(ap1.daemon_pid, signal.SIGSTOP)
    try:
        result = info(ap1, timeout=10)
    finally:
        os.kill(ap1.daemon_pid, signal.SIGCONT)
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr.startswith("tarn-info: no answer")

    metrics = ap1.path("/tmp/tarn.prom")

    def metrics_say(line):
        with contextlib.suppress(FileNotFoundError), open(metrics) as f:
            return line in f.read()
    writer = ap1.popen(["tarn-info", "--prometheus", "--output", "/tmp/tarn.prom",
                        "--interval", "1"])
    try:
        wait_for(lambda: metrics_say("\ntarn_up 1\n"), 30, what="tarn_up 1 in the file")
        # A fresh shared answer is there now: it must not stand in for a stopped daemon.
        ap1.stop_daemon()
        for args in ([], ["--prometheus"]):
            result = info(ap1, *args, timeout=10)
            assert (result.returncode, result.stdout) == (1, ""), args
            assert result.stderr.startswith("tarn-info: ") and result.stderr.count("\n") == 1
        wait_for(lambda: metrics_say("\ntarn_up 0\n"), 30, what="tarn_up 0 in the file")
    finally:
        writer.terminate()
        writer.wait(timeout=10)
    assert writer.returncode == 0
    assert [f for f in os.listdir(os.path.dirname(metrics)) if f.endswith(".tmp")] == []
