#!/usr/bin/env python3
"""Writes the seed corpora of the nbcp fuzz targets: known-good datagrams and lists, plus a few
edge cases. Run from anywhere; the files land in fuzz/corpus/parse and fuzz/corpus/list."""
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


def write(directory, corpus):
    path = os.path.join(HERE, "corpus", directory)
    os.makedirs(path, exist_ok=True)
    for name, data in corpus.items():
        with open(os.path.join(path, name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    write("parse", PARSE)
    write("list", LIST)
