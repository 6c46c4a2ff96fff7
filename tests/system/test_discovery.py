"""Discovery between virtual APs on one bridge, driven by the driver simulator: a heard neighbor
is probed (ndrp) and described by its answer (ndsp), over IPv4 or IPv6; the driver's cache
reply creates entries; and the messages the daemon sends the driver at start-up."""

import collections
import contextlib
import ipaddress
import socket
import time

import pytest

from tarnlab import drvproto
from tarnlab.nbcp import ANSWER_TYPE, PROBE
from tarnlab.show import parse_wireless_table
from tarnsys import NBCP_PORT, udp_socket_in, wait_for

QUIET = {"hears": "none"}  # the test decides what each driver hears


def described(ap, mac, timeout=15.0):
    """The wireless-table record of `mac` once its answer has filled in the name."""
    def record():
        return next((r for r in parse_wireless_table(ap.tarn("show").stdout)
                     if r["mac"] == mac and r["name"]), None)
    return wait_for(record, timeout, what=f"{ap.name} describing {mac}")


def test_heard_neighbor_is_probed_and_described_by_its_answer(make_lab):
    lab = make_lab(QUIET)
    ap1, ap2 = lab["ap1"], lab["ap2"]

    ap1.hear(ap2, radio=1, channel=36, rssi=40, bandwidth=80)

    # The answer's bytes are checked by test_receive_path, their storing by the unit tests:
    # here, the driver's facts for the radio heard, and AP 2's own transmit power, 0 in the lab
    # because its VAPs are veths without wireless extensions.
    record = described(ap1, ap2.mac)
    assert record["radios"][1] == {"radioid": 1, "channel": 36, "bandwidth": 80, "rssi": 40,
                                   "txpower": 0}


def test_neighbor_without_ipv4_is_probed_and_answers_over_ipv6(make_lab):
    lab = make_lab({"aps": [{}, {"ipv6_only": True}], "hears": "none"})
    ap1, ap2 = lab["ap1"], lab["ap2"]
    mark = ap1.log_mark()

    ap1.hear(ap2, radio=0, channel=6, rssi=30, bandwidth=20)

    record = described(ap1, ap2.mac)
    assert (record["ip"], record["ip6"], record["name"]) == ("0.0.0.0", ap2.ip6, "lab-ap2")
    assert f"send ndrp to ip6[{ap2.ip6}] success" in ap1.log_since(mark)


def test_cache_reply_creates_and_probes_entries(make_lab):
    """The driver's facts in a created entry are the unit tests'; here AP 2 is probed and its
    answer's transmit power replaces the driver's."""
    lab = make_lab(QUIET)
    ap1, ap2 = lab["ap1"], lab["ap2"]
    radios = [{"radioid": 0, "channel": 6, "txpower": 20, "rssi": 33, "bandwidth": 20}]
    reply = drvproto.encode_cache_reply([
        drvproto.encode_cache_entry(ap2.mac, ap2.ip4, ap2.ip6, radios, time_value=5)])

    ap1.sim_command({"cmd": "send", "hex": reply.hex()})

    assert described(ap1, ap2.mac)["radios"][0]["txpower"] == 0


# The RSSI threshold 6 as the driver receives it: netlink header (length 48, type 27, port id
# 4), then operation 4, value 6 and zeros.
RSSI_6 = "30000000" "1b00" "0000" "00000000" "04000000" "0406" + "00" * 30


@pytest.mark.parametrize("args, rssi_messages", [(["-D", "-R", "6"], [RSSI_6]), (["-D"], [])],
                         ids=["R6-sent", "no-R"])
def test_start_up_messages_to_the_driver(make_lab, args, rssi_messages):
    lab = make_lab({"count": 1, "hears": "none", "defaults": {"daemon_args": args}})
    ap = lab["ap1"]
    ap.wait_log(r"init ok!\n")
    ap.tarn("set", "count", "32", timeout=10)

    # The driver gets messages in the order they were sent: once the count set now has
    # arrived, whatever start-up sent has arrived before it.
    def received(op):
        return [m for m in ap.driver_record("rx") if m["op"] == op]
    assert [m["value"] for m in wait_for(lambda: received(drvproto.OP_SET_MAX_NGBR),
                                         what="the neighbor count sent")] == [32]
    assert [m["hex"] for m in received(drvproto.OP_SET_RSSI)] == rssi_messages
    info = wait_for(lambda: received(drvproto.OP_SET_IPADDR), what="the AP information sent")
    assert (info[0]["value"], info[0]["ip"], info[0]["ip6"], info[0]["mac"],
            info[0]["max_ngbr"], info[0]["problems"]) == (1, ap.ip4, ap.ip6, ap.mac, 64, [])


def test_a_probe_to_the_broadcast_address_is_answered_by_every_ap(make_lab):
    lab = make_lab({"count": 4, **QUIET})
    prober_ap = lab["ap4"]
    prober_ap.stop_daemon()
    prober = udp_socket_in(prober_ap)
    prober.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
    subnet = ipaddress.IPv4Interface(f"{prober_ap.ip4}/{prober_ap.config['prefix4']}").network
    answering = {lab[name].ip4 for name in ("ap1", "ap2", "ap3")}
    answers = collections.Counter()

    def receive_for(seconds):
        prober.settimeout(seconds)
        with contextlib.suppress(socket.timeout):
            data, source = prober.recvfrom(70000)
            if data[3] == ANSWER_TYPE:
                answers[source[0]] += 1

    with prober:
        prober.sendto(PROBE, (str(subnet.broadcast_address), NBCP_PORT))
        deadline = time.monotonic() + 15
        while set(answers) != answering and time.monotonic() < deadline:
            receive_for(1.0)
        for _ in range(10):  # a second answer from any AP comes right after the first
            receive_for(0.2)
    assert answers == {ip: 1 for ip in answering}
