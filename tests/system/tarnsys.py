"""Helpers of the system tests: talking to a daemon inside a lab AP from the test process."""

import contextlib
import os
import socket
import stat
import struct
import time

from tarnlab import drvproto
from tarnlab.nsutil import netns_entered, process_state

TARN_SOCKET = "/tmp/socket/tarn_socket"
CLIENT_PATH = "/tmp/tmp_tarn_dump"
NBCP_PORT = 32766

USAGE = ("Usage: %s [-h] [-D] [-V version] [-n num] [-R rssi]\n\n"
         "Options: Description (default value)\n"
         "  -h\t\tHelp\n"
         "  -D\t\tDebug mode, log output\n"
         "  -V <1-255>\tRunning version (1)\n"
         "  -R <1-200>\tRssi threshold, noise floor adjuested (5)\n"
         "  -n <16-64>\tMax dynamic neighbor count (64)\n\n"
         "Other usage:\n"
         "  tarn show  (display all neigbor aps wireless info)\n"
         "  tarn show cluster (display all neigbor aps cluster info)\n"
         "  tarn set rssi xxx  (set tarn rssi threshold)\n"
         "  tarn set V xxx  (set tarn running version)\n"
         "  tarn set count xxx  (set tarn max dynamic neighbor)\n"
         "  tarn get rssi (get rssi info)\n")

RSSI_RANGE_MESSAGE = "error arg, please input a  number  in  1-200 !\n"
VERSION_RANGE_MESSAGE = "error arg, please input a number in 1-255 !\n"
COUNT_RANGE_MESSAGE = "invalid arg, allowed max dynamic neighbor is 16-64\n"
LISTENING_LOG = "recv_thread: receive fd listening >>>>>"


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
        port = sock.getsockname()[0]
        sock.sendto(drvproto.frame(payload, port), (to_port, 0))


def netlink_sockets(ap):
    """(protocol, port id) of every netlink socket in the AP's network namespace."""
    rows = []
    with open(f"/proc/{ap.holder_pid}/net/netlink", encoding="ascii") as table:
        next(table)
        for line in table:
            fields = line.split()
            rows.append((int(fields[1]), int(fields[2])))
    return rows


def udp_bound(ap, family):
    """(local address hex, port) of every UDP socket in the AP's namespace."""
    name = "udp" if family == socket.AF_INET else "udp6"
    bound = []
    with open(f"/proc/{ap.holder_pid}/net/{name}", encoding="ascii") as table:
        next(table)
        for line in table:
            address, port = line.split()[1].split(":")
            bound.append((address, int(port, 16)))
    return bound


def socket_inode(ap, path=TARN_SOCKET):
    info = os.stat(ap.path(path))
    assert stat.S_ISSOCK(info.st_mode), f"{path} is not a socket"
    return info.st_ino


def wait_stopped(pid, timeout=5.0):
    """Waits until every thread of `pid` is stopped by SIGSTOP."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        states = process_state(pid)
        if states and all(state in ("T", "t") for state in states):
            return
        time.sleep(0.01)
    raise AssertionError(f"process {pid} did not stop: {process_state(pid)}")


def protocol_27_exists():
    try:
        socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 27).close()
        return True
    except OSError:
        return False


class FakeDaemonNetlink:
    """A netlink socket at the daemon's port id inside an AP, for testing the driver
    simulator without a daemon: it receives the simulator's events and sends it daemon
    messages."""

    def __init__(self, ap, port=drvproto.DAEMON_PORT):
        self.ap = ap
        with netns_entered(ap.netns):
            self.sock = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW,
                                      drvproto.NETLINK_USERSOCK)
        self.sock.bind((port, 0))

    def close(self):
        self.sock.close()

    def send(self, op, value=0, **fields):
        self.sock.sendto(drvproto.encode_daemon_message(op, value, **fields),
                         (self.ap.config["driver_port"], 0))

    def send_raw(self, data):
        self.sock.sendto(data, (self.ap.config["driver_port"], 0))

    def wait_event(self, predicate, timeout=5.0):
        """The first decoded event for which predicate(event) is true; other events are
        skipped (beacons keep coming)."""
        deadline = time.monotonic() + timeout
        while True:
            left = deadline - time.monotonic()
            if left <= 0:
                raise AssertionError("no matching driver event in time")
            self.sock.settimeout(left)
            try:
                data = self.sock.recv(70000)
            except socket.timeout:
                continue
            event = drvproto.decode_event(data)
            event["raw"] = data
            if predicate(event):
                return event

    def events_for(self, seconds):
        """Every event received during the next `seconds`."""
        events = []
        deadline = time.monotonic() + seconds
        while (left := deadline - time.monotonic()) > 0:
            self.sock.settimeout(left)
            try:
                events.append(drvproto.decode_event(self.sock.recv(70000)))
            except socket.timeout:
                break
        return events
