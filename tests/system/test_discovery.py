"""Discovery between virtual APs on one bridge: the driver simulator reports a neighbor, the
daemon probes it (ndrp), the neighbor's daemon answers (ndsp), and the table entry fills in.
Also the driver's cache reply, the RSSI threshold at start-up and the first run of each periodic
job. The rules of each driver event (drop, refresh, confirmation) are tested with the handler."""

import socket
import time

import pytest

from tarnlab import drvproto
from tarnlab.show import parse_radio_table, parse_wireless_table

LAB_VERSION = "1.0.0-lab"
QV_IP = "10.99.0.250"
FAKE_MAC = "02:7a:00:00:00:99"  # an AP nobody runs: probes to it go unanswered

QUIET = {"hears": "none"}  # the test decides what each driver hears


# ----- what the daemon prints and logs ------------------------------------------------------

def net_hex(ip):
    """An IPv4 address held in network byte order, as the daemon logs it with %x."""
    return format(int.from_bytes(socket.inet_aton(ip), "little"), "x")


def host_hex(ip):
    """An IPv4 address held in host byte order, as the daemon logs it with %x."""
    return format(int.from_bytes(socket.inet_aton(ip), "big"), "x")


def ip6_head_hex(ip6):
    """The first four bytes of an IPv6 address read as one host-order number (%x)."""
    return format(int.from_bytes(socket.inet_pton(socket.AF_INET6, ip6)[:4], "little"), "x")


def wireless(ap):
    return parse_wireless_table(ap.tarn("show").stdout)


def pvc_table(ap):
    """`tarn show cluster`: mac, ip, ip6, cluster_id, pvc_ip, pvc_mac."""
    rows = {}
    for line in ap.tarn("show", "cluster").stdout.splitlines()[1:]:
        words = line.split()
        if len(words) == 6:
            rows[words[0]] = dict(zip(("mac", "ip", "ip6", "cluster_id", "pvc_ip", "pvc_mac"),
                                      words))
    return rows


def cluster_table(ap):
    """`tarn show ubus`: mac, ip, ip6, qv_ip, cluster_id, state, name, version."""
    rows = {}
    for line in ap.tarn("show", "ubus").stdout.splitlines()[1:]:
        words = line.split()
        if len(words) == 8:
            rows[words[0]] = dict(zip(("mac", "ip", "ip6", "qv_ip", "cluster_id", "state",
                                       "name", "version"), words))
    return rows


def wait_record(ap, mac, ready, timeout=15.0):
    """The wireless-table record of `mac` on `ap` once `ready(record)` holds."""
    deadline = time.monotonic() + timeout
    record = None
    while time.monotonic() < deadline:
        record = next((r for r in wireless(ap) if r["mac"] == mac), None)
        if record is not None and ready(record):
            return record
        time.sleep(0.3)
    raise AssertionError(f"{ap.name}: no ready record for {mac} within {timeout}s; "
                         f"last seen: {record}")


def named(record):
    return record["name"] != ""


def send_event(ap, payload):
    """The simulator frames and sends `payload` as a driver event."""
    ap.sim_command({"cmd": "send", "hex": payload.hex()})


# ----- the exchange -----------------------------------------------------------------------

def test_heard_neighbor_is_probed_and_described_by_its_answer(make_lab):
    lab = make_lab(QUIET)
    ap1, ap2 = lab["ap1"], lab["ap2"]
    mark1, mark2 = ap1.log_mark(), ap2.log_mark()

    ap1.hear(ap2, radio=1, channel=36, rssi=40, bandwidth=80)

    ap1.wait_log(r"hand_receive: neighbor is not existed, add it!", since=mark1)
    ap1.wait_log(rf"send_ndrp_by_ip4: dest ip is {net_hex(ap2.ip4)}\n", since=mark1)
    ap2.wait_log(rf"nbcp_receive:\[ndrp\] type:10, mode:0, ip:{host_hex(ap1.ip4)}\n",
                 since=mark2)
    ap2.wait_log(rf"send ndsp to ip: {net_hex(ap1.ip4)}\n", since=mark2)
    ap1.wait_log(rf"nbcp_receive:\[ndsp\] name-version: lab-ap2-{LAB_VERSION}\n", since=mark1)
    ap1.wait_log(rf"nbcp_receive:\[ndsp\] cluster id:1, pvc ip:{net_hex(ap1.ip4)}\n",
                 since=mark1)

    record = wait_record(ap1, ap2.mac, named)
    assert record["ip"] == ap2.ip4
    assert record["ip6"] == ap2.ip6
    assert record["qv_ip"] == QV_IP
    assert record["tenantId"] == "t-lab"
    assert record["state"] == 0
    assert record["name"] == "lab-ap2"
    assert record["version"] == LAB_VERSION
    assert record["radiocnt"] == 2  # what AP 2 says of itself: three radio devices, two radios
    # The driver's facts for the radio it heard; the transmit power is AP 2's own word, 0 in
    # the lab because its VAPs are veths without wireless extensions.
    assert record["radios"][1] == {"radioid": 1, "channel": 36, "bandwidth": 80, "rssi": 40,
                                   "txpower": 0}

    pvc = pvc_table(ap1)[ap2.mac]
    assert (pvc["cluster_id"], pvc["pvc_ip"], pvc["pvc_mac"]) == ("1", ap1.ip4, ap1.mac)
    cluster = cluster_table(ap1)[ap2.mac]
    assert (cluster["state"], cluster["name"], cluster["version"], cluster["qv_ip"]) == \
        ("0", "lab-ap2", LAB_VERSION, QV_IP)
    radio = next(r for r in parse_radio_table(ap1.tarn("show", "neighbor").stdout)
                 if r["mac"] == ap2.mac)
    assert (radio["name"], radio["tenantId"], radio["state"]) == ("lab-ap2", "t-lab", 0)


def test_neighbor_without_ipv4_is_probed_and_answers_over_ipv6(make_lab):
    lab = make_lab({"aps": [{}, {"ipv6_only": True}], "hears": "none"})
    ap1, ap2 = lab["ap1"], lab["ap2"]
    mark1, mark2 = ap1.log_mark(), ap2.log_mark()

    ap1.hear(ap2, radio=0, channel=6, rssi=30, bandwidth=20)

    ap1.wait_log(rf"send ndrp to ip6\[{ap2.ip6}\] success\n", since=mark1)
    ap2.wait_log(rf"nbcp_receive:\[ndrp\] type:10, mode:0, ip6:{ip6_head_hex(ap1.ip6)}\n",
                 since=mark2)
    ap2.wait_log(rf"send ndsp to ip6: {ip6_head_hex(ap1.ip6)}\n", since=mark2)
    ap1.wait_log(rf"nbcp_receive:\[ndsp\] name-version: lab-ap2-{LAB_VERSION}\n", since=mark1)
    assert "send_ndrp_by_ip4" not in ap1.log_since(mark1)

    record = wait_record(ap1, ap2.mac, named)
    assert record["ip"] == "0.0.0.0"
    assert record["ip6"] == ap2.ip6
    assert (record["name"], record["version"], record["state"]) == ("lab-ap2", LAB_VERSION, 0)


# ----- driver events ------------------------------------------------------------------------

def cache_entry(mac, ip, ip6="", channel=6, txpower=20, time_value=0):
    radios = [{"radioid": 0, "channel": channel, "txpower": txpower, "rssi": 33,
               "bandwidth": 20}]
    return drvproto.encode_cache_entry(mac, ip, ip6, radios, time_value)


def test_cache_reply_creates_probes_and_refreshes_entries(make_lab):
    lab = make_lab(QUIET)
    ap1, ap2 = lab["ap1"], lab["ap2"]
    mark1 = ap1.log_mark()

    send_event(ap1, drvproto.encode_cache_reply([
        cache_entry(ap2.mac, ap2.ip4, ap2.ip6, time_value=5),
        cache_entry(FAKE_MAC, "10.99.0.200", time_value=7)]))

    ap1.wait_log(r"hand_receive: get neighbors cache ok:2\n", since=mark1)
    assert ap1.log_since(mark1).count("neighbor is not exist, add it!\n") == 2
    ap1.wait_log(rf"send_ndrp_by_ip4: dest ip is {net_hex('10.99.0.200')}\n", since=mark1)
    # AP 2 answers, and its own transmit power replaces the driver's.
    real = wait_record(ap1, ap2.mac, named)
    assert real["radios"][0]["txpower"] == 0
    fake = next(r for r in wireless(ap1) if r["mac"] == FAKE_MAC)
    assert (fake["ip"], fake["state"], fake["radiocnt"], fake["name"]) == \
        ("10.99.0.200", 0, 2, "")
    assert fake["radios"][0] == {"radioid": 0, "channel": 6, "bandwidth": 20, "rssi": 33,
                                 "txpower": 20}


# ----- start-up -----------------------------------------------------------------------------

@pytest.mark.parametrize("args, expected", [(["-D", "-R", "6"], [6]), (["-D"], [])],
                         ids=["R6-sent", "no-R"])
def test_rssi_threshold_from_the_command_line_reaches_the_driver(make_lab, args, expected):
    lab = make_lab({"count": 1, "hears": "none", "defaults": {"daemon_args": args}})
    ap = lab["ap1"]
    ap.wait_log(r"init ok!\n")
    time.sleep(0.5)  # anything sent at start-up has reached the simulator by now

    rssi = [m["value"] for m in ap.driver_record("rx") if m["op"] == drvproto.OP_SET_RSSI]
    assert rssi == expected


def test_each_periodic_job_runs_once_at_start_up(make_lab):
    lab = make_lab({"count": 1, "hears": "none"})
    ap = lab["ap1"]
    ap.wait_log(r"init ok!\n")
    log = ap.log_text()
    start_up = log[:log.index("init ok!\n")]

    jobs = ["Create neighbors learn ageing timer\n", "Create neighbor table ageing timer\n",
            "Create static neighbor update timer\n", "Create ip detect timer\n"]
    positions = [start_up.find(job) for job in jobs]
    assert all(p >= 0 for p in positions), dict(zip(jobs, positions))
    assert positions == sorted(positions)
    # The first learning pass refreshed this AP's cluster facts and tenant.
    learning = start_up[positions[0]:positions[1]]
    assert "get_cluster_info: pvc-info = 1:" in learning
    assert "get_tenantId: tenantId:t-lab\n" in learning
