"""Byte layouts of the netlink messages between tarn and the Wi-Fi driver.

Every message is a 16-byte netlink header (host byte order: length, type, flags, sequence,
sender port id) followed by a payload. The daemon sends 32-byte payloads (`drv_msg`); the
driver answers with events (`drv_event`) whose first byte is the operation.
"""

import ipaddress
import struct

NLMSG_HDR = struct.Struct("=IHHII")
NLMSG_HDR_LEN = NLMSG_HDR.size  # 16
NETLINK_USERSOCK = 2
MSG_TYPE = 27
DAEMON_PORT = 4
DRV_MSG_LEN = 32
DAEMON_MSG_LEN = NLMSG_HDR_LEN + DRV_MSG_LEN  # 48

# Operations of the daemon's messages to the driver.
OP_SET_IPADDR = 1
OP_GET_APS = 2
OP_SET_RSSI = 4
OP_SET_MAX_NGBR = 5

# Operations of the driver's events to the daemon.
EV_HEARD = 1
EV_CONFIRM = 2
EV_CACHE = 3
EV_DROP = 6

CACHE_COUNT_OFFSET = 32
CACHE_ENTRIES_OFFSET = 36
CACHE_ENTRY_LEN = 88
CACHE_MAX_ENTRIES = 255  # the count is one byte
RADIO_SLOTS = 4

_ZERO_IP6 = bytes(16)


def mac_bytes(text):
    parts = text.replace("-", ":").split(":")
    if len(parts) != 6:
        raise ValueError(f"not a MAC address: {text!r}")
    return bytes(int(part, 16) for part in parts)


def mac_text(raw):
    return ":".join(f"{byte:02x}" for byte in raw)


def ip4_bytes(text):
    """Network-order bytes of a dotted quad; empty or None gives 0.0.0.0."""
    return ipaddress.IPv4Address(text or "0.0.0.0").packed


def ip6_bytes(text):
    return ipaddress.IPv6Address(text).packed if text else _ZERO_IP6


def ip4_text(raw):
    return str(ipaddress.IPv4Address(raw))


def ip6_text(raw):
    return str(ipaddress.IPv6Address(raw))


def _align4(length):
    return (length + 3) & ~3


def frame(payload, port, msg_type=MSG_TYPE, seq=0, flags=0):
    """Puts a netlink header in front of `payload`; the length counts the header and the
    payload padded to a multiple of four, and the padding is sent as zero bytes."""
    length = _align4(NLMSG_HDR_LEN + len(payload))
    padded = payload + bytes(length - NLMSG_HDR_LEN - len(payload))
    return NLMSG_HDR.pack(length, msg_type, flags, seq, port) + padded


def parse_header(data):
    if len(data) < NLMSG_HDR_LEN:
        raise ValueError(f"{len(data)} bytes cannot hold a netlink header")
    length, msg_type, flags, seq, port = NLMSG_HDR.unpack_from(data)
    return {"len": length, "type": msg_type, "flags": flags, "seq": seq, "port": port}


# ----- messages from the daemon to the driver -------------------------------------------------

def decode_daemon_message(data):
    """Decodes one message received from the daemon into a plain dict.

    Every field is reported whatever the operation, so that a test can see stray bytes; the
    `problems` list names whatever differs from the fixed framing (length, type, flags,
    sequence, port id 4, payload size)."""
    header = parse_header(data)
    payload = bytes(data[NLMSG_HDR_LEN:NLMSG_HDR_LEN + DRV_MSG_LEN])
    problems = []
    if len(data) != DAEMON_MSG_LEN:
        problems.append(f"datagram is {len(data)} bytes, not {DAEMON_MSG_LEN}")
    if header["len"] != DAEMON_MSG_LEN:
        problems.append(f"header length {header['len']}")
    if header["type"] != MSG_TYPE:
        problems.append(f"header type {header['type']}")
    if header["flags"] != 0 or header["seq"] != 0:
        problems.append(f"flags {header['flags']} seq {header['seq']}")
    if header["port"] != DAEMON_PORT:
        problems.append(f"sender port id {header['port']}")
    if len(payload) < DRV_MSG_LEN:
        problems.append(f"payload is {len(payload)} bytes")
        payload = payload + bytes(DRV_MSG_LEN - len(payload))
    if payload[2:4] != b"\0\0" or payload[31] != 0:
        problems.append("reserved payload bytes are not zero")
    return {
        "header": header,
        "op": payload[0],
        "value": payload[1],
        "ip": ip4_text(payload[4:8]),
        "ip6": ip6_text(payload[8:24]),
        "mac": mac_text(payload[24:30]),
        "max_ngbr": payload[30],
        "problems": problems,
        "hex": bytes(data).hex(),
    }


# ----- events from the driver to the daemon ---------------------------------------------------

def encode_heard(mac, ip="", ip6="", radio=0, channel=0, rssi=0, bandwidth=0):
    """Payload of event 1: the driver heard the AP `mac` on one of its radios."""
    payload = bytearray(36)
    payload[0] = EV_HEARD
    payload[4:8] = ip4_bytes(ip)
    payload[8:24] = ip6_bytes(ip6)
    payload[24:30] = mac_bytes(mac)
    payload[30] = radio & 0xFF
    payload[31] = channel & 0xFF
    payload[32] = rssi & 0xFF
    payload[33] = bandwidth & 0xFF
    return bytes(payload)


def encode_confirm():
    """Payload of event 2: the driver accepted this AP's information."""
    return bytes([EV_CONFIRM]) + bytes(3)


def encode_drop(mac):
    """Payload of event 6: the driver forgot the neighbor `mac`."""
    payload = bytearray(32)
    payload[0] = EV_DROP
    payload[24:30] = mac_bytes(mac)
    return bytes(payload)


def encode_cache_entry(mac, ip="", ip6="", radios=(), time_value=0):
    """One 88-byte neighbor cache entry.

    `radios` holds up to four dicts (radioid, channel, txpower, rssi, bandwidth), one per radio
    slot in slot order; missing slots are zero."""
    if len(radios) > RADIO_SLOTS:
        raise ValueError(f"{len(radios)} radio records, at most {RADIO_SLOTS}")
    entry = bytearray(CACHE_ENTRY_LEN)
    entry[32:38] = mac_bytes(mac)
    entry[40:44] = ip4_bytes(ip)
    entry[44:60] = ip6_bytes(ip6)
    for slot, radio in enumerate(radios):
        base = 60 + 5 * slot
        entry[base:base + 5] = bytes(radio.get(key, 0) & 0xFF for key in
                                     ("radioid", "channel", "txpower", "rssi", "bandwidth"))
    struct.pack_into("=I", entry, 80, time_value & 0xFFFFFFFF)
    return bytes(entry)


def encode_cache_reply(entries):
    """Payload of event 3: byte 32 holds the entry count, the entries start at byte 36."""
    if len(entries) > CACHE_MAX_ENTRIES:
        raise ValueError(f"{len(entries)} cache entries, at most {CACHE_MAX_ENTRIES}")
    head = bytearray(CACHE_ENTRIES_OFFSET)
    head[0] = EV_CACHE
    head[CACHE_COUNT_OFFSET] = len(entries)
    return bytes(head) + b"".join(entries)
