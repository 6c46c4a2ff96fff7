"""The program's command line and its local socket against real daemons: the daemon's sockets,
the four show tables (static neighbors loaded from the file at start), the printed rssi, and
what each client command line sends to the daemon's socket, or prints instead."""

import os
import signal
import stat
import struct
import subprocess
import sys
import time

import pytest

from tarnlab import drvproto
from tarnsys import (CLIENT_PATH, LISTENING_LOG, TARN_SOCKET, local_listener, local_message,
                     receive_all, send_driver_event, wait_for)

SHORT = 10  # seconds a command that should end at once may take
SHOW_TIMEOUT = 15  # seconds a show client waits for the daemon's list
GOLDEN = os.path.join(os.path.dirname(os.path.abspath(__file__)), "golden")

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


def start(node):
    node.start_daemon(["-D"])
    node.wait_log(LISTENING_LOG)


def test_daemon_sockets_and_a_second_daemon(node):
    start(node)

    # ss prints a wildcard IPv6 socket as [::] when it is v6-only and as * when it also takes
    # IPv4 traffic.
    listing = node.exec(["ss", "-H", "-uln"], check=True).stdout.split()
    assert {"0.0.0.0:32766", "[::]:32766"} <= set(listing) and "*:32766" not in listing
    with open(f"/proc/{node.holder_pid}/net/netlink", encoding="ascii") as table:
        netlink = [tuple(int(f) for f in line.split()[1:3]) for line in list(table)[1:]]
    assert (drvproto.NETLINK_USERSOCK, drvproto.DAEMON_PORT) in netlink
    # The file-creation mask is cleared first, so anyone on the AP may send to the socket.
    assert stat.S_IMODE(os.stat(node.path(TARN_SOCKET)).st_mode) == 0o777

    second = node.exec([node.lab.tarn_binary, "-D"], timeout=SHORT,
                       env={"TARN_LOG_STDERR": "1",
                            "TARN_DRIVER_PORT": str(node.config["driver_port"])})
    assert second.returncode == 1
    assert "tarn_socket_init: Bind recv nbcp socket failed" in second.stderr
    assert node.tarn("get", "rssi", timeout=SHORT).stdout == "current rssi  limit:5\n"


# Runs as an unprivileged user ("nobody") inside the AP.
AS_NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", sys.executable, "-c"]

# Binds the driver's port id (4) of the netlink protocol argv[1], then prints the size of the
# first message that arrives there.
PORT_HOLDER = """
import socket, sys
holder = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, int(sys.argv[1]))
holder.bind((%d, 0))
print("bound", flush=True)
holder.settimeout(20)
print(len(holder.recv(65535)), flush=True)
""" % drvproto.DAEMON_PORT

# Sends 16 bytes to port id 4 of the netlink protocol argv[1]; prints "sent" or why not.
PORT_SENDER = """
import socket, sys
with socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, int(sys.argv[1])) as sender:
    try:
        sender.sendto(bytes(16), (%d, 0))
        print("sent")
    except OSError as error:
        print(error.strerror)
""" % drvproto.DAEMON_PORT
NETLINK_ROUTE = 0  # a kernel protocol that, like the driver's, takes no unprivileged senders


def test_a_process_holding_the_driver_port_keeps_the_daemon_out(node):
    holder = node.popen(AS_NOBODY + [PORT_HOLDER, str(drvproto.NETLINK_USERSOCK)], stdout=subprocess.PIPE, text=True)
    try:
        assert holder.stdout.readline() == "bound\n"
        daemon = node.start_daemon(["-D"], wait=False)
        assert daemon.wait(SHORT) == 1
        assert "Bind recv hand socket failed" in node.log_text()
        send_driver_event(node, bytes(34))  # the driver's next message reaches the holder
        assert int(holder.stdout.readline()) > 0
    finally:
        holder.kill()
        holder.wait()



# Protocol 27 has no kernel side here, so the kernel's rule is shown on another kernel protocol.
@pytest.mark.parametrize("protocol, sender, outcome", [
    (NETLINK_ROUTE, AS_NOBODY, "Operation not permitted"),
    (NETLINK_ROUTE, [sys.executable, "-c"], "sent"),
    (drvproto.NETLINK_USERSOCK, AS_NOBODY, "sent"),
], ids=["kernel-protocol-nobody", "kernel-protocol-root", "lab-stand-in-nobody"])
def test_only_privileged_processes_send_to_a_port_of_a_kernel_netlink_protocol(
        node, protocol, sender, outcome):
    holder = node.popen([sys.executable, "-c", PORT_HOLDER, str(protocol)],
                        stdout=subprocess.PIPE, text=True)
    try:
        assert holder.stdout.readline() == "bound\n"
        sent = node.exec(sender + [PORT_SENDER, str(protocol)], timeout=SHORT)
        assert sent.stdout == outcome + "\n"
        if outcome == "sent":
            assert int(holder.stdout.readline()) == 16
    finally:
        holder.kill()
        holder.wait()

def neighbor_list_reply(mac, name):
    """A list reply (operation 51) of one neighbor, element by element."""
    def element(code, value):
        return struct.pack(">HH", code, len(value)) + value
    entry = (element(7, bytes.fromhex(mac.replace(":", ""))) +
             element(8, b"\0") + element(9, b"9.9") + element(10, name.encode()) +
             element(11, b"\0") + element(60, b"\0"))
    return struct.pack("=BxxxHxx", 0, 51) + entry + bytes(2)


# Waits for the show client's reply path, prints its mode and answers there first.
FORGER = """
import os, socket, stat, sys, time
path, reply = sys.argv[1], bytes.fromhex(sys.argv[2])
while not os.path.exists(path):
    time.sleep(0.01)
print(oct(stat.S_IMODE(os.stat(path).st_mode)), flush=True)
with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sock:
    sock.sendto(reply, path)
"""


def test_any_local_user_can_answer_show_before_the_daemon(node):
    start(node)
    node.daemon.send_signal(signal.SIGSTOP)  # a daemon that has not answered yet
    try:
        client = node.popen([node.lab.tarn_binary, "show", "ubus"], stdout=subprocess.PIPE,
                            text=True)
        wait_for(lambda: os.path.exists(node.path(CLIENT_PATH)), what="the client's reply path")
        forger = node.exec(AS_NOBODY + [FORGER, CLIENT_PATH,
                                        neighbor_list_reply("02:66:66:66:66:66", "forged").hex()],
                           timeout=SHOW_TIMEOUT)
        shown, _ = client.communicate(timeout=SHOW_TIMEOUT + 5)
    finally:
        node.daemon.send_signal(signal.SIGCONT)

    assert forger.stdout == "0o777\n", forger.stderr
    forged_rows = [line.split() for line in shown.splitlines() if "forged" in line]
    assert len(forged_rows) == 1 and forged_rows[0][0] == "02:66:66:66:66:66", shown


def test_show_without_a_daemon_prints_nothing_after_its_time_out(node):
    began = time.monotonic()
    result = node.tarn("show", timeout=SHOW_TIMEOUT + 10)

    assert (result.returncode, result.stdout) == (0, "")
    assert time.monotonic() - began >= SHOW_TIMEOUT - 0.5
    assert os.path.exists(node.path(CLIENT_PATH))


# Two static neighbors that never answer, one with only an IPv4 and one with only an IPv6
# address: the tables show them in list order, the file's last entry first.
STATICS = [{"mac": "02:00:00:00:00:51", "ip": "10.99.0.51"},
           {"mac": "02:00:00:00:00:52", "ip6": "fd00:99::52"}]


@pytest.mark.parametrize("words, golden", [
    ([], "show_wireless.txt"),
    (["cluster"], "show_cluster.txt"),
    (["ubus"], "show_ubus.txt"),
    (["neighbor"], "show_neighbor.txt"),
], ids=["wireless", "cluster", "ubus", "neighbor"])
def test_show_tables_match_the_golden_text(make_lab, words, golden):
    lab = make_lab({"hears": "none", "aps": [{"name": "ap1", "static_neighbors": STATICS}]},
                   bridge=False)
    ap = lab.ap("ap1")
    ap.wait_log(LISTENING_LOG)

    result = ap.tarn("show", *words, timeout=SHOW_TIMEOUT + 5)

    with open(os.path.join(GOLDEN, golden), encoding="ascii") as expected:
        assert (result.returncode, result.stdout) == (0, expected.read())
    assert not os.path.exists(ap.path(CLIENT_PATH))


@pytest.mark.parametrize("args, stdout, sent, stderr", [
    (["-h"], USAGE, [], ""),
    (["-D", "-x"], USAGE, [], ""),
    (["-V", "0", "-D"], "", [], ""),  # rejected before debug output was on
    (["-D", "-V", "512"], "", [], "invalid arg -V, please input a number in 1-255!"),
    (["-D", "-n", "65"], "", [], "invalid arg -n,allowed max dynamic neighbor is 16-64"),
    (["set", "rssi", "300"], "", [local_message(4, 44)], ""),
    (["set", "count", "32"], "", [local_message(12, 32)], ""),
    (["set", "V", "7"], "", [local_message(11, 7)], ""),
    (["static", "update"], "", [local_message(9)], ""),
])
def test_command_line_prints_and_sends(node, args, stdout, sent, stderr):
    # Under another name: the usage names the path the program was started as.
    alias = "/tmp/other-name"
    os.symlink(node.lab.tarn_binary, node.path(alias))
    with local_listener(node, TARN_SOCKET) as daemon_side:
        result = node.exec([alias] + args, timeout=SHORT,
                           env={"TARN_LOG_STDERR": "1",
                                "TARN_DRIVER_PORT": str(node.config["driver_port"])})
        received = receive_all(daemon_side, wait=0.2)

    assert result.returncode == 0
    assert result.stdout == (stdout % alias if "%s" in stdout else stdout)
    assert received == sent
    assert stderr in result.stderr and "init ok!" not in result.stderr
    if not stderr:
        assert "invalid arg" not in result.stderr
