"""The bus object "tarn" and the configuration-reload event against running daemons: each
method once through `call` (the static neighbor file on disk after each edit), the event
through `send`, and the end of the service, with `tarn-bus` on the embedded bus of the build in
$TARN_BUILD_DIR (the methods are the same code the platform's ubus binding serves)."""

import json
import os
import signal
import stat

import pytest

from tarnsys import BUS_SOCKET, LISTENING_LOG, STATIC_CONF, local_message, send_local, wait_for

RELOAD_EVENT = "userconfig.reload"
RELOAD_LOG = "Tarn update static neighbor by ubus event[userconfig.reload]."
STATIC_STATES = ("3", "4")

# What a call gets when the daemon is gone: the embedded bus went with it.
NO_DAEMON = (255, "Failed to connect to ubus\n")


# ----- helpers -------------------------------------------------------------------------------

class Members(dict):
    """A JSON object that also keeps its members in order, duplicate names included."""

    def __init__(self, pairs):
        super().__init__(pairs)
        self.pairs = pairs


def call(ap, method, payload=None):
    """The reply of a bus call that has to succeed."""
    result = ap.bus(method, payload)
    assert result.returncode == 0, f"{method} {payload}: {result.returncode} {result.stderr}"
    return json.loads(result.stdout, object_pairs_hook=Members)


def static_rows(ap):
    """The static neighbors in the daemon's list, in list order, as "show" reports them."""
    return [{"mac": r["mac"], "ip": r["ip"], "ip6": r["ip6"]} for r in call(ap, "show")["result"]
            if r["state"] in STATIC_STATES]


# ----- fixtures ------------------------------------------------------------------------------

# AP 1 alone, with two static neighbors that never answer; the file's last entry heads the list.
STATICS = [{"mac": "02:00:00:00:00:51", "ip": "10.99.0.51"},
           {"mac": "02:00:00:00:00:52", "ip6": "fd00:99::52"}]
ENTRY_51 = {"mac": "02:00:00:00:00:51", "ip": "10.99.0.51", "ip6": "::"}
ENTRY_52 = {"mac": "02:00:00:00:00:52", "ip": "0.0.0.0", "ip6": "fd00:99::52"}
SCENARIO = {"hears": "none", "aps": [{"name": "ap1", "static_neighbors": STATICS}]}


@pytest.fixture
def ap1(make_lab):
    """AP 1 and its daemon, without a bridge or a driver simulator."""
    ap = make_lab(SCENARIO, bridge=False, simulators=False).ap("ap1")
    ap.wait_log(LISTENING_LOG)
    yield ap
    ap.stop_daemon()


# ----- the methods -----------------------------------------------------------------------------

ADDED = {"mac": "02:00:00:00:00:ab", "ip": "10.99.0.61", "ip6": "fd00:99::61"}


@pytest.mark.parametrize("method, payload, result, entries", [
    ("add_static_neighbor", {"mac": "02:00:00:00:00:AB", "ip": "10.99.0.61",
                             "ip6": "FD00:99::61"}, "success", [ADDED, ENTRY_52, ENTRY_51]),
    ("del_static_neighbor", {"mac": "02:00:00:00:00:51"}, "success", [ENTRY_52]),
    # Each record goes to the head; one without "ip" gets the all-ones address.
    ("qv_static_neighbor", {"neighbor_list": [
        {"mac": "02:00:00:00:00:81", "ip": "10.99.0.81"},
        {"mac": "02:00:00:00:00:82", "ip6": "fd00:99::82"}]}, "success",
     [{"mac": "02:00:00:00:00:82", "ip": "255.255.255.255", "ip6": "fd00:99::82"},
      {"mac": "02:00:00:00:00:81", "ip": "10.99.0.81", "ip6": "::"}]),
    # Every known MAC is deleted; the reply is that of the last delete.
    ("qv_del_static_neighbor", {"mac_list": [{"mac": "02:00:00:00:00:52"},
                                             {"mac": "02:00:00:00:00:99"}]}, "fail",
     [ENTRY_51]),
], ids=["add", "del", "qv", "qv_del"])
def test_static_edit_changes_list_and_file(ap1, method, payload, result, entries):
    os.chmod(ap1.path(STATIC_CONF), 0o600)
    assert call(ap1, method, payload).pairs == [("result", result)]
    # Every save writes a new file with mode 0666, whatever the old one had.
    assert stat.S_IMODE(os.stat(ap1.path(STATIC_CONF)).st_mode) == 0o666

    # The file's exact text is checked by the store's own tests.
    assert json.loads(ap1.read_file(STATIC_CONF))["static_neighbor"] == entries
    assert static_rows(ap1) == entries


# The reply's exact form is checked by the method's own tests: here -D turns the debug log on,
# debug_set turns it off, and a local message is counted.
def test_debug_set_and_debug_get(ap1):
    before = call(ap1, "debug_get")
    assert before["Debug"]["debug_switch"] == 1
    assert call(ap1, "debug_set", {"debug_switch": 0}).pairs == [("result", "success")]

    mark = ap1.log_mark()
    send_local(ap1, local_message(6))
    wait_for(lambda: call(ap1, "debug_get")["Socket_rcvCount"]["rcv_local_cnt"] ==
             before["Socket_rcvCount"]["rcv_local_cnt"] + 1, what="the local message counted")
    assert call(ap1, "debug_get")["Debug"]["debug_switch"] == 0
    assert ap1.log_since(mark) == ""


# Each method replies the client's table, one object per line whose members stop where the
# line's words stop (a neighbor that never answered has no name and no version); the tables'
# text is checked against golden files, their reading by the table reader's own tests.
@pytest.mark.parametrize("method, words", [("show", ["ubus"]), ("show_neighbor", ["neighbor"])])
def test_show_methods_match_the_client_tables(ap1, method, words):
    rows = call(ap1, method)["result"]
    table = ap1.tarn("show", *words, timeout=20).stdout.splitlines()
    columns = table[0].split()
    assert [list(zip(columns, line.split())) for line in table[1:]] == [r.pairs for r in rows]
    assert [r["mac"] for r in rows] == ["02:00:00:00:00:52", "02:00:00:00:00:51"]


def test_reload_event_takes_over_a_file_written_from_outside(ap1):
    reloaded = [{"mac": "02:00:00:00:00:71", "ip": "10.99.0.71"}]
    ap1.write_file(STATIC_CONF, json.dumps({"static_neighbor": reloaded}, indent=2))
    mark = ap1.log_mark()

    message = {"ModifiedConfig": ["network", "static_neighbor.conf"]}
    result = ap1.exec([ap1.bus_command, "send", RELOAD_EVENT, json.dumps(message)], timeout=10)
    assert result.returncode == 0, result.stderr

    # ubus delivers an event after `send` returns: wait for the list to change.
    wait_for(lambda: static_rows(ap1) == [{"mac": "02:00:00:00:00:71", "ip": "10.99.0.71",
                                           "ip6": "::"}], what="the reloaded list")
    assert ap1.log_since(mark).count(RELOAD_LOG) == 1
    # The loader does not write the file.
    assert json.loads(ap1.read_file(STATIC_CONF)) == {"static_neighbor": reloaded}


# SIGTERM and SIGINT end the daemon with 0 and its service. Neither loop handles the others:
# their default action ends the daemon (procd restarts it on the AP).
@pytest.mark.parametrize("sig, status", [
    (signal.SIGTERM, 0),
    (signal.SIGINT, 0),
    (signal.SIGHUP, -signal.SIGHUP),
    (signal.SIGUSR1, -signal.SIGUSR1),
    (signal.SIGUSR2, -signal.SIGUSR2),
], ids=["SIGTERM", "SIGINT", "SIGHUP", "SIGUSR1", "SIGUSR2"])
def test_signals_end_the_daemon(ap1, sig, status):
    assert ap1.stop_daemon(sig) == status
    if status == 0:
        result = ap1.bus("debug_get")
        assert (result.returncode, result.stderr) == NO_DAEMON
        assert not os.path.exists(ap1.path(BUS_SOCKET))
