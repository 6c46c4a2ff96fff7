#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets: known-good inputs of every parser, plus a few
edge cases. Run from anywhere; the files land in fuzz/corpus/<target>."""
import json
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def header(msg_type, flag=0):
    return bytes([flag, 0, 0, msg_type, 0, 0, 0, 0, 0, 0])


def el(code, value):
    return struct.pack(">HH", code, len(value)) + value


def u8(code, v):
    return el(code, bytes([v]))


def u32(code, v):
    return el(code, struct.pack(">I", v))


def string(code, text):
    return el(code, text.encode())


END = b"\x00\x00"
MAC = bytes([0x00, 0x11, 0x22, 0x33, 0x44, 0x55])
IP6 = bytes([0xFE, 0x80] + [0] * 13 + [1])


def ndrp(mode=0):
    return (header(10) + u8(128, 0) + u8(129, mode) + u32(130, 0xC0A8010A) +
            el(132, bytes(16)) + el(131, MAC) + END)


def radios(count, codes, end_code):
    out = b""
    for i in range(count):
        out += b"".join(u8(c, 10 * i + k) for k, c in enumerate(codes)) + u8(end_code, 0)
    return out


def ndsp(radiocnt, sent=None, terminator=True):
    sent = radiocnt if sent is None else sent
    body = (u8(134, 1) + u8(135, 3) + u32(136, 0xC0A8010A) + el(137, MAC) + u32(150, 0xC0A80101) +
            u32(151, 42) + el(152, MAC) + u8(153, 1) + u32(138, 0xC0A8010A) + el(156, IP6) +
            u32(149, 0x0A000001) + el(139, MAC) + u8(140, 0) + string(154, "tenant-1") +
            string(141, "2.4.1.1000") + string(142, "AP-Lobby") + u8(143, radiocnt) +
            radios(sent, [145, 146, 147, 148, 155], 144))
    return header(11) + body + (END if terminator else b"")


def list_entry(radiocnt, name="AP-1"):
    return (u32(6, 0x0A000005) + el(24, IP6) + u32(17, 0x0A000001) + el(7, MAC) + u8(8, 0) +
            string(22, "tenant-1") + string(9, "2.4.1") + string(10, name) + u32(18, 0) +
            u32(19, 7) + el(20, MAC) + u8(21, 1) + u8(11, radiocnt) +
            radios(min(radiocnt, 4), [13, 14, 15, 16, 23], 12) + u8(60, 0))


def list_reply(entries, terminator=True):
    hdr = bytes([0, 0, 0, 0]) + struct.pack("=H", 51) + bytes(2)
    return hdr + b"".join(entries) + (END if terminator else b"")


PARSE = {
    "ndrp_golden": ndrp(),
    "ndrp_mode3": ndrp(3),
    "ndsp_no_radio": ndsp(0),
    "ndsp_four_radios": ndsp(4),
    "ndsp_six_radios": ndsp(6),
    "ndsp_no_terminator": ndsp(2, terminator=False),
    "ndsp_radio_count_above_sent": ndsp(3, sent=1),
    "ndsp_long_name": header(11) + string(142, "n" * 300) + u8(140, 2) + END,
    "unknown_type_12": header(12) + u8(134, 1) + END,
    "kind1_tlv": header(21) + u8(15, 1) + el(18, MAC) + u8(20, 2) +
    radios(2, [22, 23, 24, 25], 21) + u8(19, 5) + END,
    "kind2_tlv": header(22) + u8(31, 1) + el(34, MAC) + u8(35, 1) + el(37, MAC) + u8(38, 2) +
    u32(40, 9) + string(41, "text") + u8(42, 1) + u8(36, 0) + END,
    "kind3_tlv": header(23) + u8(51, 1) + u8(59, 1) + radios(1, [61, 62, 63, 64], 60) +
    u32(56, 3) + string(57, "a") + string(58, "b") + string(65, "c") + string(66, "d") + END,
    "kind4_tlv": header(24) + el(70, MAC) + u8(71, 1) + el(73, MAC) + u8(74, 1) +
    radios(1, [76, 77, 78, 79], 75) + u8(72, 0) + END,
    "kind5_tlv": header(25) + u32(89, 1) + u32(90, 1) + u8(92, 1) + u8(96, 1) +
    radios(1, [98, 99, 100, 101], 97) + u8(102, 1) + el(104, MAC) + u8(105, 1) +
    radios(1, [107, 108, 109, 110], 106) + u8(103, 0) + el(93, MAC) + u32(94, 1) +
    u32(95, 2) + u8(91, 0) + END,
    "kind6_tlv": header(26) + u8(81, 1) + u32(82, 2) + u8(83, 2) + el(85, MAC) + u8(84, 0) +
    el(85, MAC) + u8(84, 0) + u32(86, 3) + END,
    "kind1_fixed": header(1) + bytes([1, 2, 3]) + MAC + bytes([5, 2, 1, 2, 3, 4, 5, 6]),
    "kind2_fixed": header(2) + bytes([1, 2, 3]) + MAC + bytes([1]) + MAC + bytes([1, 2]) +
    struct.pack(">I", 7) + bytes([1, 9, 9, 9]),
    "kind3_fixed": header(3) + bytes([1, 2, 3]) + MAC + bytes([5, 1, 1, 2, 3]) +
    struct.pack(">I", 7) + b"x" * 112,
    "kind4_fixed": header(4) + MAC + bytes([1]) + MAC + bytes([1, 1, 2, 3, 4]),
    "kind5_fixed": header(5) + struct.pack(">II", 1, 1) + bytes([1, 1, 1]) + MAC +
    struct.pack(">II", 2, 3) + bytes([1, 2, 3]) + MAC + bytes([1, 1, 2, 3, 4]),
    "kind6_fixed": header(6) + bytes([1]) + struct.pack(">I", 2) + bytes([1]) + MAC +
    struct.pack(">I", 3),
    "type15_subtype2_flag": header(15, flag=1) + struct.pack(">HI", 2, 5) + MAC,
    "type15_subtype3": header(15) + struct.pack(">HI", 3, 5) + MAC,
    "type16": header(16) + bytes([2]) + MAC + bytes([1, 2, 3, 4, 5, 6]),
}

LIST = {
    "list_empty": list_reply([]),
    "list_two_entries": list_reply([list_entry(0), list_entry(2, "AP-2")]),
    "list_four_radios": list_reply([list_entry(4)]),
    "list_six_radios_entry": list_reply([list_entry(6)]),
    "list_no_terminator": list_reply([list_entry(1)], terminator=False),
    "list_unclosed_entry": list_reply([list_entry(1), list_entry(1)[:-5]]),
    "list_long": list_reply([list_entry(2, "AP-%d" % i) for i in range(80)]),
}


def driver_event(op, payload):
    return struct.pack("=IHHII", 16 + len(payload), 0, 0, 0, 100) + bytes([op]) + payload


def heard(mac, radio=0, rssi=40):
    return bytes(3) + bytes([10, 99, 0, 20]) + IP6 + mac + bytes([radio, 6, rssi, 20])


def cache_entry(mac):
    return (bytes(32) + mac + bytes(2) + bytes([10, 99, 0, 21]) + IP6 +
            bytes([0, 6, 20, 40, 20] * 4) + struct.pack("=I", 7) + bytes(4))


DRIVER = {
    "heard": driver_event(1, heard(MAC)),
    "heard_radio_9": driver_event(1, heard(MAC, radio=9)),
    # The last radio slot and one past it.
    "heard_radio_3": driver_event(1, heard(MAC, radio=3)),
    "heard_radio_4": driver_event(1, heard(MAC, radio=4)),
    "config_ok": driver_event(2, b""),
    "cache_two": driver_event(3, bytes(31) + bytes([2, 0, 0, 0]) + cache_entry(MAC) +
                              cache_entry(bytes([2, 0, 0, 0, 0, 1]))),
    "cache_count_above_sent": driver_event(3, bytes(31) + bytes([9, 0, 0, 0]) + cache_entry(MAC)),
    "dropped": driver_event(6, bytes(23) + MAC),
}


def local(op, value=0, payload=b""):
    return struct.pack("=BxxxHxx", value, op) + payload


LOCAL = {"op%d" % op: local(op) for op in (1, 2, 3, 5, 6, 8)}
LOCAL.update({"set_rssi": local(4, 44), "set_count": local(12, 32),
              "probe_ip": local(10, payload=struct.pack("=I", 0x0A63000B)), "short": b"\x00\x00"})


def static_file(entries):
    return json.dumps({"static_neighbor": entries}).encode()


NODE = {"mac": "00:11:22:33:44:55", "ip": "10.0.0.5", "ip6": "fd00::5"}
STATIC = {
    "two": static_file([NODE, {"mac": "02:00:00:00:00:51", "ip": "10.99.0.51"}]),
    "nine": static_file([{"mac": "02:00:00:00:00:%02x" % i} for i in range(9)]),
    "malformed_texts": static_file([{"mac": "1ff::zz:1", "ip": "x" * 16, "ip6": "nope"}]),
    "not_an_array": b'{"static_neighbor": {"mac": "00:11:22:33:44:55"}}',
}


def frame(payload):
    return struct.pack(">I", len(payload)) + payload


def call(method, args):
    return b"\x07" + frame(b"call\0tarn\0" + method.encode() + b"\0" + json.dumps(args).encode())


BUS = {
    "qv": call("qv_static_neighbor", {"neighbor_list": [NODE, {"mac": "02:00:00:00:00:51"}]}),
    # One record past the list's 8 nodes: the ninth is dropped.
    "qv_nine": call("qv_static_neighbor",
                    {"neighbor_list": [{"mac": "02:00:00:00:00:%02x" % i} for i in range(9)]}),
    "add": call("add_static_neighbor", NODE),
    "del": call("del_static_neighbor", {"mac": NODE["mac"]}),
    "qv_del": call("qv_del_static_neighbor", {"mac_list": [{"mac": NODE["mac"]}]}),
    "debug_set": call("debug_set", {"debug_switch": 0}),
    "debug_get": call("debug_get", {}),
    "reload": b"\x01" + frame(b"send\0userconfig.reload\0" +
                              json.dumps({"ModifiedConfig": ["static_neighbor.conf"]}).encode()),
    "too_large": b"\x02" + struct.pack(">I", 1 << 20),
    "list": b"\x03" + frame(b"list\0tarn\0"),
}

SHOW = {
    "ubus": b"mac  ip  ip6  qv_ip  cluster_id  state  name  version\n"
            b"02:7a:00:00:00:02  10.99.0.12  fd00:99::12  10.99.0.250  1  0  lab-ap2  1.0.0\n",
    "neighbor": b"mac ip qv_ip tenantId state name version radiocnt radioid channel rssi txpower "
                b"radioid channel rssi txpower\n02:7a:00:00:00:02 10.99.0.12 0.0.0.0 t 0 n v 2 "
                b"0 6 40 20 1 36 40 20\n",
}

COMMAND = {"pvc_mac": b"00-11-22-33-44-55", "padded": b"  STANDALONE \t", "wide": b"1ff-2-x"}


def write(directory, corpus):
    path = os.path.join(HERE, "corpus", directory)
    os.makedirs(path, exist_ok=True)
    for name, data in corpus.items():
        with open(os.path.join(path, name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    write("parse", PARSE)
    write("list", LIST)
    write("driver", DRIVER)
    write("local", LOCAL)
    write("static", STATIC)
    write("bus", BUS)
    write("show", SHOW)
    write("command", COMMAND)
