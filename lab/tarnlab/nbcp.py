"""The smallest nbcp exchange the lab's checks need: send a probe, wait for its answer."""
import contextlib
import socket
import time

NBCP_PORT = 32766
PROBE = bytes([0, 0, 0, 10]) + bytes(6)  # an ndrp header: every ndrp is answered
ANSWER_TYPE = 11


def probe_answered(prober, ip4, timeout=5.0):
    """True when the daemon at ip4 answers an ndrp sent from `prober` (bound to NBCP_PORT).

    Answers still queued from earlier probes are dropped first, so only a fresh one counts.
    """
    prober.setblocking(False)
    with contextlib.suppress(BlockingIOError):
        while True:
            prober.recv(70000)
    prober.sendto(PROBE, (ip4, NBCP_PORT))
    deadline = time.monotonic() + timeout
    while (left := deadline - time.monotonic()) > 0:
        prober.settimeout(left)
        try:
            data, source = prober.recvfrom(70000)
        except socket.timeout:
            break
        if source[0] == ip4 and len(data) > 3 and data[3] == ANSWER_TYPE:
            return True
    return False
