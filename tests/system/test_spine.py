"""The daemon's start-up, sockets, receive order, command line and shutdown, each run in a
fresh AP namespace (fixture `node`). The command line's grammar, case by case, is tested with
the parser; here each route through the real program runs once."""

import json
import os
import signal
import socket
import stat

import pytest

from tarnlab import drvproto
from tarnsys import (COUNT_RANGE_MESSAGE, LISTENING_LOG, RSSI_RANGE_MESSAGE, TARN_SOCKET,
                     USAGE, VERSION_RANGE_MESSAGE, local_listener, local_message,
                     netlink_sockets, protocol_27_exists, receive_all, send_driver_event,
                     send_local, socket_inode, udp_bound, wait_stopped)

SHORT = 10  # seconds a command that should end at once may take


def start(node, *args):
    """Starts the daemon with debug logs and waits until its receive thread listens."""
    node.start_daemon(list(args))
    node.wait_log(LISTENING_LOG)


# ----- sockets ------------------------------------------------------------------------------

def test_daemon_opens_udp_netlink_and_local_sockets(node):
    start(node, "-D")

    assert ("00000000", 32766) in udp_bound(node, socket.AF_INET)
    assert ("0" * 32, 32766) in udp_bound(node, socket.AF_INET6)
    # ss prints a wildcard IPv6 socket as [::] when it is v6-only and as * when it also takes
    # IPv4 traffic.
    listing = node.exec(["ss", "-H", "-uln"], check=True).stdout.split()
    assert "[::]:32766" in listing
    assert "*:32766" not in listing
    assert (drvproto.NETLINK_USERSOCK, drvproto.DAEMON_PORT) in netlink_sockets(node)
    mode = os.stat(node.path(TARN_SOCKET)).st_mode
    assert stat.S_ISSOCK(mode)
    # The file-creation mask is cleared first, so anyone on the AP may send to the socket.
    assert stat.S_IMODE(mode) == 0o777


def test_second_daemon_exits_1_and_leaves_the_first_alone(node):
    start(node, "-D")
    inode = socket_inode(node)

    second = node.exec([node.lab.tarn_binary, "-D"], timeout=SHORT,
                       env={"TARN_LOG_STDERR": "1",
                            "TARN_DRIVER_PORT": str(node.config["driver_port"])})

    assert second.returncode == 1
    assert "tarn_socket_init: Bind recv nbcp socket failed" in second.stderr
    assert socket_inode(node) == inode
    assert node.daemon_running()
    mark = node.log_mark()
    send_local(node, local_message(6))
    node.wait_log(r"handle_recvmsg: operation=6\b", since=mark)


def test_without_driver_port_the_missing_protocol_ends_start_up(node):
    if protocol_27_exists():
        pytest.skip("this kernel has netlink protocol 27, so the daemon would open it")
    result = node.exec([node.lab.tarn_binary, "-D"], timeout=SHORT,
                       env={"TARN_LOG_STDERR": "1"})

    assert result.returncode == 1
    assert "tarn_socket_init: Create hand recv netlink socket failed" in result.stderr
    # The local socket comes after the netlink socket, so it was never created.
    assert not os.path.exists(node.path(TARN_SOCKET))


def test_driver_socket_is_served_before_the_local_socket(node):
    start(node, "-D")
    pid = node.daemon_pid
    os.kill(pid, signal.SIGSTOP)
    try:
        wait_stopped(pid)
        mark = node.log_mark()
        # Queued in the opposite order of service: the local datagram first.
        send_local(node, local_message(6))
        send_driver_event(node, drvproto.encode_confirm())
    finally:
        os.kill(pid, signal.SIGCONT)

    node.wait_log(r"handle_recvmsg: operation=6\b", since=mark)
    node.wait_log(r"hand_receive: hand op is 2\b", since=mark)
    log = node.log_since(mark)
    assert log.index("hand_receive: hand op is 2") < log.index("handle_recvmsg: operation=6")


# ----- command line: usage and option values --------------------------------------------------

@pytest.mark.parametrize("args", [["-h"], ["-D", "-x"]], ids=["help", "debug-then-unknown"])
def test_usage_text_is_printed_with_the_program_path(node, args):
    result = node.exec([node.lab.tarn_binary] + args, timeout=SHORT)

    assert result.returncode == 0
    assert result.stdout == USAGE % node.lab.tarn_binary


def test_usage_names_the_path_the_program_was_started_as(node):
    alias = "/tmp/other-name"
    os.symlink(node.lab.tarn_binary, node.path(alias))

    result = node.exec([alias, "-h"], timeout=SHORT)

    assert result.returncode == 0
    assert result.stdout == USAGE % alias


@pytest.mark.parametrize("args, message", [
    (["-V", "0", "-D"], None),
    (["-D", "-V", "512"], "invalid arg -V, please input a number in 1-255!"),
    (["-D", "-n", "65"], "invalid arg -n,allowed max dynamic neighbor is 16-64"),
])
def test_invalid_option_value_exits_0_without_starting(node, args, message):
    result = node.exec([node.lab.tarn_binary] + args, timeout=SHORT,
                       env={"TARN_LOG_STDERR": "1",
                            "TARN_DRIVER_PORT": str(node.config["driver_port"])})

    assert result.returncode == 0
    assert not os.path.exists(node.path(TARN_SOCKET))
    assert "init ok!" not in result.stderr
    if message is None:
        # Debug output was not on yet when the value was rejected.
        assert "invalid arg" not in result.stderr
    else:
        assert message in result.stderr


# ----- command line: client sub-commands that stop before sending -----------------------------

@pytest.mark.parametrize("args, output", [
    (["set", "rssi", "201"], RSSI_RANGE_MESSAGE),
    (["set", "count", "15"], COUNT_RANGE_MESSAGE),
    (["set", "V", "0"], VERSION_RANGE_MESSAGE),
    (["get", "foo"], ""),
])
def test_rejected_client_command_prints_and_sends_nothing(node, args, output):
    with local_listener(node, TARN_SOCKET) as daemon_side:
        result = node.exec([node.lab.tarn_binary] + args, timeout=SHORT)
        sent = receive_all(daemon_side, wait=0.2)

    assert result.returncode == 0
    assert result.stdout == output
    assert sent == []


# ----- command line: client requests ----------------------------------------------------------

@pytest.mark.parametrize("args, op, value, reply_path_removed", [
    (["set", "rssi", "300"], 4, 44, True),
    (["set", "count", "32"], 12, 32, True),
    (["set", "V", "7"], 11, 7, True),
    (["static", "update"], 9, 0, False),
])
def test_client_request_reaches_the_daemon_socket(node, args, op, value, reply_path_removed):
    with local_listener(node, TARN_SOCKET) as daemon_side:
        result = node.exec([node.lab.tarn_binary] + args, timeout=SHORT)
        sent = receive_all(daemon_side, wait=0.2)

    assert result.returncode == 0
    assert result.stdout == ""
    assert sent == [local_message(op, value)]
    assert os.path.exists(node.path("/tmp/tmp_tarn_dump")) != reply_path_removed


# ----- shutdown -------------------------------------------------------------------------------

@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGINT], ids=["SIGTERM", "SIGINT"])
def test_signal_ends_the_daemon_with_status_0(node, sig):
    start(node, "-D")
    assert node.stop_daemon(sig) == 0


def test_receive_counters_count_handler_calls_per_socket(node):
    start(node, "-D")
    before = json.loads(node.bus("debug_get").stdout)["Socket_rcvCount"]
    for op in (6, 7, 0):  # ignored or unknown: still one handler call each
        send_local(node, local_message(op))
    send_driver_event(node, drvproto.encode_confirm())
    send_driver_event(node, bytes([9]))  # an operation the daemon does not know
    node.wait_log(r"handle_recvmsg: operation=0\b")
    node.wait_log(r"hand_receive: hand op is 9\b")

    after = json.loads(node.bus("debug_get").stdout)["Socket_rcvCount"]
    assert after["rcv_local_cnt"] - before["rcv_local_cnt"] == 3
    assert after["rcv_hand_cnt"] - before["rcv_hand_cnt"] == 2
    assert after["rcv_nbcp_cnt"] == before["rcv_nbcp_cnt"]
    assert after["rcv_nbcp_ip6_cnt"] == before["rcv_nbcp_ip6_cnt"]
