"""The driver simulator: its message codec (byte layouts, no root needed) and the simulator
process itself inside a lab AP, with the test playing the daemon's side."""

import struct
import sys
import time

import pytest

from tarnlab import drvproto as dp
from tarnlab.simulator import normalize_heard
from tarnsys import FakeDaemonNetlink

little_endian = pytest.mark.skipif(sys.byteorder != "little",
                                   reason="the byte examples are written for little-endian")


# ----- codec: messages from the daemon ------------------------------------------------------

@pytest.mark.no_root
@little_endian
def test_rssi_message_matches_the_48_byte_example():
    expected = bytes.fromhex("30000000" "1b00" "0000" "00000000" "04000000" "040a") + bytes(30)

    assert dp.encode_daemon_message(dp.OP_SET_RSSI, 10) == expected
    decoded = dp.decode_daemon_message(expected)
    assert decoded["header"] == {"len": 48, "type": 27, "flags": 0, "seq": 0, "port": 4}
    assert (decoded["op"], decoded["value"], decoded["problems"]) == (4, 10, [])


@pytest.mark.no_root
@little_endian
def test_ap_information_message_layout():
    payload = bytearray(32)
    payload[0] = 1
    payload[1] = 3  # running version
    payload[4:8] = bytes.fromhex("c0a8010a")
    payload[8:24] = bytes.fromhex("fd000099000000000000000000000011")
    payload[24:30] = bytes.fromhex("027a00000001")
    payload[30] = 48
    message = bytes.fromhex("30000000" "1b00" "0000" "00000000" "04000000") + bytes(payload)

    decoded = dp.decode_daemon_message(message)

    assert decoded["problems"] == []
    assert (decoded["op"], decoded["value"], decoded["ip"], decoded["ip6"], decoded["mac"],
            decoded["max_ngbr"]) == (1, 3, "192.168.1.10", "fd00:99::11", "02:7a:00:00:00:01",
                                     48)
    assert dp.encode_daemon_message(1, 3, ip="192.168.1.10", ip6="fd00:99::11",
                                    mac="02:7a:00:00:00:01", max_ngbr=48) == message
    assert message[16 + 4:16 + 8] == bytes([0xc0, 0xa8, 0x01, 0x0a])
    assert message[16 + 30] == 48


@pytest.mark.no_root
@pytest.mark.parametrize("mutate, problem", [
    (lambda m: m[:40], "datagram is 40 bytes"),
    (lambda m: m + bytes(4), "datagram is 52 bytes"),
    (lambda m: struct.pack("=I", 52) + m[4:], "header length 52"),
    (lambda m: m[:4] + struct.pack("=H", 16) + m[6:], "header type 16"),
    (lambda m: m[:8] + struct.pack("=I", 9) + m[12:], "flags 0 seq 9"),
    (lambda m: m[:12] + struct.pack("=I", 1234) + m[16:], "sender port id 1234"),
    (lambda m: m[:18] + b"\x01" + m[19:], "reserved payload bytes are not zero"),
    (lambda m: m[:47] + b"\x01", "reserved payload bytes are not zero"),
])
def test_decoder_reports_every_framing_fault(mutate, problem):
    good = dp.encode_daemon_message(dp.OP_SET_MAX_NGBR, 32)
    assert dp.decode_daemon_message(good)["problems"] == []

    problems = dp.decode_daemon_message(mutate(good))["problems"]

    assert any(p.startswith(problem) for p in problems), problems


# ----- codec: events to the daemon ------------------------------------------------------------

@pytest.mark.no_root
def test_heard_event_layout():
    payload = dp.encode_heard("02:7a:00:00:00:02", ip="10.99.0.12", ip6="fd00:99::12",
                              radio=1, channel=36, rssi=42, bandwidth=80)
    framed = dp.frame(payload, port=100)

    assert payload[0] == 1
    assert payload[4:8] == bytes([10, 99, 0, 12])
    assert payload[8:24] == bytes.fromhex("fd000099000000000000000000000012")
    assert payload[24:30] == bytes.fromhex("027a00000002")
    assert list(payload[30:34]) == [1, 36, 42, 80]
    assert payload[1:4] == bytes(3) and payload[34:] == bytes(len(payload) - 34)
    assert dp.parse_header(framed) == {"len": len(framed), "type": 27, "flags": 0, "seq": 0,
                                       "port": 100}
    assert len(framed) % 4 == 0 and len(framed) >= 16 + 34
    assert dp.decode_event(framed)["rssi"] == 42


@pytest.mark.no_root
@little_endian
def test_cache_entry_layout():
    radios = [{"radioid": 0, "channel": 6, "txpower": 20, "rssi": 31, "bandwidth": 20},
              {"radioid": 1, "channel": 149, "txpower": 17, "rssi": 55, "bandwidth": 80}]
    entry = dp.encode_cache_entry("02:7a:00:00:00:03", ip="10.99.0.13", ip6="fd00:99::13",
                                  radios=radios, time_value=0x01020304)

    assert len(entry) == 88
    assert entry[32:38] == bytes.fromhex("027a00000003")
    assert entry[40:44] == bytes([10, 99, 0, 13])
    assert entry[44:60] == bytes.fromhex("fd000099000000000000000000000013")
    assert list(entry[60:70]) == [0, 6, 20, 31, 20, 1, 149, 17, 55, 80]
    assert entry[70:80] == bytes(10)
    assert entry[80:84] == bytes([4, 3, 2, 1])  # host byte order
    # Every byte outside the fields is zero.
    assert entry[:32] == bytes(32) and entry[38:40] == bytes(2) and entry[84:] == bytes(4)


@pytest.mark.no_root
def test_cache_reply_holds_count_at_32_and_entries_from_36():
    entries = [dp.encode_cache_entry(f"02:00:00:00:00:{n:02x}", ip=f"10.0.0.{n}",
                                     time_value=n) for n in (1, 2, 3)]
    payload = dp.encode_cache_reply(entries)

    assert payload[0] == 3 and payload[32] == 3
    assert len(payload) == 36 + 3 * 88
    assert payload[36 + 88:36 + 2 * 88] == entries[1]
    decoded = dp.decode_event(dp.frame(payload, port=100))
    assert [e["mac"] for e in decoded["entries"]] == ["02:00:00:00:00:01",
                                                      "02:00:00:00:00:02",
                                                      "02:00:00:00:00:03"]
    assert [e["time"] for e in decoded["entries"]] == [1, 2, 3]
    # A count that promises more than was sent: the decoder stops at the last whole entry.
    short = dp.decode_event(dp.frame(dp.encode_cache_reply(entries[:1], count=5), port=100))
    assert short["count"] == 5 and len(short["entries"]) == 1


@pytest.mark.no_root
def test_drop_and_confirm_events():
    drop = dp.encode_drop("02:7a:00:00:00:04")
    assert drop[0] == 6 and drop[24:30] == bytes.fromhex("027a00000004")
    assert drop[1:24] == bytes(23)
    assert dp.encode_confirm()[0] == 2


@pytest.mark.no_root
@pytest.mark.parametrize("entry", [{"mac": "zz:7a:00:00:00:01"},
                                   {"mac": "02:7a:00:00:00:01", "ip": "10.0.0.300"}])
def test_simulator_refuses_an_unencodable_heard_ap(entry):
    with pytest.raises(ValueError):
        normalize_heard(entry)


# ----- the simulator process, with the test as the daemon --------------------------------------

FAST = {"count": 2, "defaults": {"beacon_interval": 0.3}}


def is_op(op, **fields):
    return lambda event: event["op"] == op and all(event.get(k) == v for k, v in fields.items())


@pytest.fixture
def sim_lab(make_lab):
    lab = make_lab(FAST, daemons=False)
    daemon = FakeDaemonNetlink(lab.ap("ap1"))
    yield lab, daemon
    daemon.close()


def test_simulator_beacons_every_heard_radio(sim_lab):
    lab, daemon = sim_lab
    ap2 = lab.ap("ap2")

    events = daemon.events_for(1.0)

    heard = {(e["mac"], e["radio"]): e for e in events if e["op"] == dp.EV_HEARD}
    assert set(heard) == {(ap2.mac, 0), (ap2.mac, 1)}
    assert (heard[(ap2.mac, 0)]["ip"], heard[(ap2.mac, 0)]["ip6"]) == (ap2.ip4, ap2.ip6)
    assert (heard[(ap2.mac, 0)]["channel"], heard[(ap2.mac, 1)]["channel"]) == (6, 36)
    assert (heard[(ap2.mac, 0)]["bandwidth"], heard[(ap2.mac, 1)]["bandwidth"]) == (20, 80)
    # Repeated like beacons: each radio more than once in a second at 0.3 s.
    assert sum(1 for e in events if e["op"] == dp.EV_HEARD and e["radio"] == 0) >= 2


def test_simulator_confirms_ap_information_and_records_it(sim_lab):
    lab, daemon = sim_lab
    ap1 = lab.ap("ap1")

    daemon.send(dp.OP_SET_IPADDR, 3, ip=ap1.ip4, ip6=ap1.ip6, mac=ap1.mac, max_ngbr=64)
    daemon.wait_event(is_op(dp.EV_CONFIRM))

    received = ap1.driver_record("rx")
    assert [(r["op"], r["value"], r["ip"], r["ip6"], r["mac"], r["max_ngbr"], r["problems"])
            for r in received] == [(1, 3, ap1.ip4, ap1.ip6, ap1.mac, 64, [])]


def test_simulator_answers_a_cache_request(sim_lab):
    lab, daemon = sim_lab
    ap1, ap2 = lab.ap("ap1"), lab.ap("ap2")

    daemon.send(dp.OP_GET_APS)
    reply = daemon.wait_event(is_op(dp.EV_CACHE))

    assert reply["count"] == 1
    entry = reply["entries"][0]
    assert (entry["mac"], entry["ip"], entry["ip6"]) == (ap2.mac, ap2.ip4, ap2.ip6)
    assert [(r["radioid"], r["channel"], r["bandwidth"], r["txpower"])
            for r in entry["radios"][:2]] == [(0, 6, 20, 20), (1, 36, 80, 20)]
    assert entry["radios"][2:] == [dict.fromkeys(entry["radios"][2], 0)] * 2
    assert 0 <= entry["time"] < 5
    assert [r["op"] for r in ap1.driver_record("rx")] == [dp.OP_GET_APS]


def test_simulator_records_rssi_and_count_settings_and_bad_messages(sim_lab):
    lab, daemon = sim_lab
    ap1 = lab.ap("ap1")

    daemon.send(dp.OP_SET_RSSI, 10)
    daemon.send(dp.OP_SET_MAX_NGBR, 16)
    daemon.send_raw(bytes(10))
    daemon.send(dp.OP_SET_RSSI, 11)
    deadline = time.monotonic() + 3
    while len(ap1.driver_record("rx")) < 4 and time.monotonic() < deadline:
        time.sleep(0.05)

    received = ap1.driver_record("rx")
    assert [(r.get("op"), r.get("value")) for r in received] == [(4, 10), (5, 16),
                                                                 (None, None), (4, 11)]
    assert "error" in received[2]


def test_simulator_control_commands(sim_lab):
    lab, daemon = sim_lab
    ap1, ap2 = lab.ap("ap1"), lab.ap("ap2")
    stranger = {"mac": "02:7a:00:00:00:99", "ip": "10.99.0.99", "ip6": "fd00:99::99"}

    ap1.hear(stranger, radio=2, channel=11, rssi=9, bandwidth=40)
    event = daemon.wait_event(is_op(dp.EV_HEARD, mac=stranger["mac"]))
    assert (event["radio"], event["channel"], event["rssi"], event["bandwidth"]) == (2, 11, 9,
                                                                                     40)

    ap1.drop(ap2)
    daemon.wait_event(is_op(dp.EV_DROP, mac=ap2.mac))
    ap1.unhear(stranger)
    # A marker event: whatever was queued before the simulator handled "unhear" comes
    # before it.
    ap1.sim_command({"cmd": "send", "hex": "08000000"})
    daemon.wait_event(is_op(8))
    later = daemon.events_for(0.8)
    assert not [e for e in later if e["op"] == dp.EV_HEARD]

    ap1.sim_command({"cmd": "config", "confirm": False})
    daemon.send(dp.OP_SET_IPADDR, 1, ip=ap1.ip4, mac=ap1.mac, max_ngbr=64)
    assert not [e for e in daemon.events_for(0.5) if e["op"] == dp.EV_CONFIRM]

    ap1.sim_command({"cmd": "send", "hex": "07000000"})
    assert daemon.wait_event(is_op(7))["raw"][16:] == bytes.fromhex("07000000")
    status = ap1.sim_command({"cmd": "status"})
    assert status["heard"] == [] and status["confirm"] is False
