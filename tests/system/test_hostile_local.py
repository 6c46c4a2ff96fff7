"""Local processes that stop reading: a full answer queue loses answers but never stalls the
daemon's receive thread, and idle bus connections never delay another client."""

import contextlib
import os
import signal
import socket
import subprocess
import sys
import time

import pytest

from tarnlab.nbcp import probe_answered
from tarnsys import BUS_SOCKET, CLIENT_PATH, LISTENING_LOG, udp_socket_in

REQUESTS = 40  # far beyond the default queue of 10 datagrams per receiving socket
HOSTILE_PATH = "/tmp/never_reads"
STATIC = {"mac": "02:00:00:00:00:51", "ip": "10.99.0.51"}
SEND_FAILED = "send packet failed,errno:11"  # EAGAIN: the answer was dropped, not waited for


# Runs inside the AP: binds a socket at argv[1] that never reads and sends up to REQUESTS
# requests of operation argv[2]; operation 1 is answered at the requester's own path, the others
# at their fixed paths. A send that waits 3 s (the daemon has stopped reading) ends the burst.
STUCK_READER = """
import socket, struct, sys, time
path, op, count = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
reader = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
reader.bind(path)
sender = reader if op == 1 else socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
sender.settimeout(3.0)
sent = 0
try:
    for sent in range(1, count + 1):
        sender.sendto(struct.pack("=BxxxHxx", 0, op), "/tmp/socket/tarn_socket")
except socket.timeout:
    sent -= 1
print(sent, flush=True)
time.sleep(3600)
"""


@contextlib.contextmanager
def stuck_reader(ap, path, op):
    """A process in the AP that sends op requests and never reads their answers at path;
    yields the number of requests it got through."""
    with contextlib.suppress(FileNotFoundError):
        os.unlink(ap.path(path))
    proc = ap.popen([sys.executable, "-c", STUCK_READER, path, str(op), str(REQUESTS)],
                    stdout=subprocess.PIPE, text=True)
    try:
        yield int(proc.stdout.readline() or 0)
    finally:
        proc.kill()
        proc.wait()
        with contextlib.suppress(FileNotFoundError):
            os.unlink(ap.path(path))


# One row per place that answers: the neighbor lists (every dump shares one send, here at the
# requester's own path), the rssi answer at the client path, and the cluster query.
@pytest.mark.parametrize("path, op, mode", [
    (HOSTILE_PATH, 1, "STANDALONE"),
    (CLIENT_PATH, 5, "STANDALONE"),
    ("/tmp/socket/static_neighbor_dump", 9, "CLUSTER"),  # the cluster query of each update
], ids=["list", "rssi", "cluster-query"])
def test_a_reader_that_never_reads_does_not_stall_the_receive_thread(make_lab, path, op, mode):
    lab = make_lab({"hears": "none", "aps": [
        {"name": "ap1", "mode": mode, "static_neighbors": [STATIC]}, {"name": "ap2"}]},
        daemons=False)
    ap1, ap2 = lab.ap("ap1"), lab.ap("ap2")
    with udp_socket_in(ap2) as prober:
        ap1.start_daemon(["-D"])
        ap1.wait_log(LISTENING_LOG)
        mark = ap1.log_mark()

        with stuck_reader(ap1, path, op) as sent:
            answered = probe_answered(prober, ap1.ip4)
            log = ap1.log_since(mark)

    assert answered, f"no answer to a probe after {sent} requests"
    assert sent == REQUESTS, f"the daemon stopped reading after {sent} requests"
    assert SEND_FAILED in log
    assert ap1.tarn("get", "rssi", timeout=10).stdout == "current rssi  limit:5\n"


IDLE_CONNECTIONS = 20
# One idle connection used to hold the bus for its 1 s deadline; these bounds sit far below
# what twenty of them cost (20 s) and below one deadline, yet far above a served call.
CALL_BOUND_S = 5.0
STOP_BOUND_S = 0.5


@contextlib.contextmanager
def idle_connections(ap, count=IDLE_CONNECTIONS):
    """count connections to the bus that never send a byte."""
    with contextlib.ExitStack() as stack:
        for _ in range(count):
            sock = stack.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_STREAM))
            sock.connect(ap.path(BUS_SOCKET))
        yield


def test_idle_bus_connections_delay_no_call_and_no_stop(node):
    node.start_daemon(["-D"])
    node.wait_log(LISTENING_LOG)

    with idle_connections(node):
        began = time.monotonic()
        result = node.bus("debug_get", timeout=60)
        call_took = time.monotonic() - began
    with idle_connections(node):
        began = time.monotonic()
        status = node.stop_daemon(signal.SIGTERM, timeout=30)
        stop_took = time.monotonic() - began

    assert result.returncode == 0 and '"debug_switch": 1' in result.stdout
    assert call_took < CALL_BOUND_S, f"debug_get took {call_took:.1f} s"
    assert status == 0
    assert stop_took < STOP_BOUND_S, f"SIGTERM took {stop_took:.2f} s to end the daemon"
    assert not os.path.exists(node.path(BUS_SOCKET))
