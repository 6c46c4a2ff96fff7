"""Helpers of the system tests: talking to a daemon inside a lab AP from the test process."""

import contextlib
import os
import socket
import struct
import time

from tarnlab import drvproto
from tarnlab.nsutil import netns_entered

TARN_SOCKET = "/tmp/socket/tarn_socket"
BUS_SOCKET = "/tmp/socket/tarn_bus"
CLIENT_PATH = "/tmp/tmp_tarn_dump"
STATIC_CONF = "/var/config/static_neighbor.conf"
NBCP_PORT = 32766
LISTENING_LOG = "recv_thread: receive fd listening >>>>>"


def ndsp(mac, name, version, tenant, state=0, radios=4):
    """An answer (type 11, mode 0) describing `mac`, with `radios` radios."""
    elements = [(0x86, b"\x01"), (0x87, b"\x00"), (0x89, drvproto.mac_bytes(mac)),
                (0x8c, bytes([state])), (0x9a, tenant), (0x8d, version), (0x8e, name),
                (0x8f, bytes([radios]))]
    for r in range(radios):
        elements += [(0x91, bytes([r])), (0x92, b"\x00"), (0x93, bytes([10 + r])),
                     (0x94, b"\x00"), (0x9b, b"\x00"), (0x90, b"\x00")]
    body = b"".join(struct.pack(">HH", code, len(value)) + value for code, value in elements)
    return bytes([0, 0, 0, 11]) + bytes(6) + body + b"\x00\x00"


def local_message(op, value=0, payload=b""):
    """A local control message: value in byte 0, op (host order) in bytes 4-5."""
    return struct.pack("=BxxxHxx", value, op) + payload


def send_local(ap, data, path=TARN_SOCKET):
    """Sends one datagram to a local socket path inside the AP."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sock:
        sock.sendto(data, ap.path(path))


@contextlib.contextmanager
def local_listener(ap, path):
    """A datagram socket bound at `path` inside the AP (an old file there is removed)."""
    host_path = ap.path(path)
    with contextlib.suppress(FileNotFoundError):
        os.unlink(host_path)
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    try:
        sock.bind(host_path)
        yield sock
    finally:
        sock.close()
        with contextlib.suppress(FileNotFoundError):
            os.unlink(host_path)


def receive_all(sock, wait=0.3):
    """Every datagram that arrives within `wait` seconds of the last one."""
    datagrams = []
    sock.settimeout(wait)
    while True:
        try:
            datagrams.append(sock.recv(70000))
        except socket.timeout:
            return datagrams


def send_driver_event(ap, payload, to_port=drvproto.DAEMON_PORT):
    """Sends one framed driver event to the daemon's netlink port from inside the AP."""
    with netns_entered(ap.netns):
        sock = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, drvproto.NETLINK_USERSOCK)
    with sock:
        sock.bind((0, 0))
        sock.sendto(drvproto.frame(payload, sock.getsockname()[0]), (to_port, 0))


def udp_socket_in(ap, family=socket.AF_INET, port=NBCP_PORT):
    """A UDP socket in the AP's network namespace, bound to the wildcard address at `port`."""
    with netns_entered(ap.netns):
        sock = socket.socket(family, socket.SOCK_DGRAM)
    sock.bind(("::" if family == socket.AF_INET6 else "0.0.0.0", port))
    sock.settimeout(5.0)
    return sock


def wait_for(predicate, timeout=10.0, what="condition"):
    """The first true value of predicate(), polled until `timeout` seconds have passed."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"{what} not reached within {timeout} s")
        time.sleep(0.1)
