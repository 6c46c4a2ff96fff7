"""The bus object "tarn" and the configuration-reload event against running daemons: every
method through `call`, the event through `send`, the static neighbor file on disk after each
edit, the call statuses the command exits with, and the end of the service.

Every test runs once per transport: `tarn-bus` on a build of the embedded bus ($TARN_BUILD_DIR),
and the platform's `ubus` with an ubusd per AP on a build that serves ubus
($TARN_UBUS_BUILD_DIR); $TARN_BUS_TRANSPORTS (e.g. "ubus") picks among those given."""

import contextlib
import json
import os
import re
import signal
import socket
import struct
import time

import pytest

from tarnlab import drvproto, nsutil
from tarnlab.lab import default_build_dir, ubus_prefix_of
from tarnlab.nsutil import netns_entered
from tarnsys import (LISTENING_LOG, NBCP_PORT, local_message, send_driver_event, send_local,
                     wait_stopped)

STATIC_CONF = "/var/config/static_neighbor.conf"
BUS_SOCKET = "/tmp/socket/tarn_bus"
RELOAD_EVENT = "userconfig.reload"
RELOAD_LOG = "Tarn update static neighbor by ubus event[userconfig.reload]."
DISCOVERY_TIMEOUT = 40  # seconds learned neighbors may take to get their name and version

CLUSTER_COLUMNS = ["mac", "ip", "ip6", "qv_ip", "cluster_id", "state", "name", "version"]
RADIO_COLUMNS = (["mac", "ip", "qv_ip", "tenantId", "state", "name", "version", "radiocnt"] +
                 ["radioid", "channel", "rssi", "txpower"] * 3)
STATIC_STATES = ("3", "4")

# AP 1 of the standard lab hears AP 2 and AP 3 and has two static neighbors: AP 3, and an AP
# that does not exist.
STATIC_X = {"mac": "02:00:00:00:00:51", "ip": "10.99.0.51"}
SCENARIO = {"aps": [{"name": "ap1", "static_neighbors": ["ap3", STATIC_X]},
                    {"name": "ap2"}, {"name": "ap3"}]}
# The same two as the daemon writes them, in list order (newest first).
FILE_X = {"mac": "02:00:00:00:00:51", "ip": "10.99.0.51", "ip6": "::"}
FILE_AP3 = {"mac": "02:7a:00:00:00:03", "ip": "10.99.0.13", "ip6": "fd00:99::13"}
INITIAL_LIST = [FILE_X, FILE_AP3]
UNKNOWN_MAC = "02:00:00:00:00:99"


# ----- transports ----------------------------------------------------------------------------

def transport_of(build_dir):
    return "ubus" if ubus_prefix_of(build_dir) else "tarn-bus"


def given_builds():
    """{transport: build directory} of the builds given."""
    dirs = [default_build_dir()] + [d for d in [os.environ.get("TARN_UBUS_BUILD_DIR")] if d]
    return {transport_of(d): os.path.abspath(d) for d in dirs}


GIVEN_BUILDS = given_builds()
BUILDS = {t: d for t, d in GIVEN_BUILDS.items()
          if t in os.environ.get("TARN_BUS_TRANSPORTS", ",".join(GIVEN_BUILDS)).split(",")}
# What a call gets when the daemon is gone: ubusd answers that the object is not there, while
# the embedded bus went with its daemon.
NO_DAEMON = {"ubus": (4, "Command failed: Not found\n"),
             "tarn-bus": (255, "Failed to connect to ubus\n")}


def is_ubus(ap):
    return bool(ap.lab.ubus_prefix)


# ----- helpers -------------------------------------------------------------------------------

class Members(dict):
    """A JSON object that also keeps its members in order, duplicate names included."""

    def __init__(self, pairs):
        super().__init__(pairs)
        self.pairs = pairs

    @property
    def names(self):
        return [name for name, _ in self.pairs]


def load_json(text):
    return json.loads(text, object_pairs_hook=Members)


def call(ap, method, payload=None):
    """The reply of a bus call that has to succeed."""
    result = ap.bus(method, payload)
    assert result.returncode == 0, f"{method} {payload}: status {result.returncode}, " \
                                   f"{result.stderr}"
    return load_json(result.stdout)


def result_of(ap, method, payload=None):
    reply = call(ap, method, payload)
    assert reply.names == ["result"]
    return reply["result"]


def bus_run(ap, *args):
    return ap.exec([ap.bus_command] + list(args), timeout=10)


def bus_send(ap, event_type, message=None):
    argv = [ap.bus_command, "send", event_type]
    if message is not None:
        argv.append(message if isinstance(message, str) else json.dumps(message))
    result = ap.exec(argv, timeout=10)
    # ubus delivers an event after `send` returns; a call queued behind it is answered once the
    # event's handler has run.
    call(ap, "debug_get")
    return result


def reload(ap, names):
    """Announces changed configuration files; the handler has run when this returns."""
    result = bus_send(ap, RELOAD_EVENT, {"ModifiedConfig": names})
    assert result.returncode == 0, result.stderr


def file_entries(ap):
    """The static neighbor file's entries; every entry must hold mac, ip, ip6 in that order."""
    text = ap.read_file(STATIC_CONF)
    assert len(text.splitlines()) > 1, f"not the formatted form: {text!r}"
    root = load_json(text)
    assert root.names == ["static_neighbor"]
    entries = root["static_neighbor"]
    for entry in entries:
        assert entry.names == ["mac", "ip", "ip6"], entry.pairs
    return [dict(entry) for entry in entries]


def file_snapshot(ap):
    """Bytes, modification time and inode of the static neighbor file."""
    path = ap.path(STATIC_CONF)
    info = os.stat(path)
    with open(path, "rb") as handle:
        return handle.read(), info.st_mtime_ns, info.st_ino


def static_rows(ap):
    """The static neighbors in the daemon's list, in list order, as "show" reports them."""
    rows = call(ap, "show")["result"]
    return [{"mac": r["mac"], "ip": r["ip"], "ip6": r["ip6"]} for r in rows
            if r.get("state") in STATIC_STATES]


def write_static_file(ap, entries):
    ap.write_file(STATIC_CONF, json.dumps({"static_neighbor": entries}, indent=2))


def ip_hex(ip):
    """An IPv4 address as the daemon logs it: its network-order bytes read as a native u32."""
    return f"{struct.unpack('=I', socket.inet_aton(ip))[0]:x}"


def probe_log(ip):
    return f"update_static_neighbor: static ip is {ip_hex(ip)}!!!"


def debug_state(ap):
    return call(ap, "debug_get")["Debug"]["debug_switch"]


def counters(ap):
    return call(ap, "debug_get")["Socket_rcvCount"]


def wait_for(predicate, timeout=10.0, what="condition"):
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"{what} not reached within {timeout} s")
        time.sleep(0.1)


@contextlib.contextmanager
def nbcp_listener(lab, address):
    """A UDP socket at `address`, port NBCP_PORT, on the lab's bridge: a static neighbor that
    is no AP but receives what is sent to it."""
    v6 = ":" in address
    extra = ["nodad"] if v6 else []
    prefix = "64" if v6 else "24"
    nsutil.run(["ip", "-n", lab.bridge_netns, "addr", "add", f"{address}/{prefix}", "dev",
                "br0"] + extra)
    try:
        with netns_entered(lab.bridge_netns):
            sock = socket.socket(socket.AF_INET6 if v6 else socket.AF_INET, socket.SOCK_DGRAM)
        with sock:
            sock.bind((address, NBCP_PORT))
            sock.settimeout(10)
            yield sock
    finally:
        nsutil.run(["ip", "-n", lab.bridge_netns, "addr", "del", f"{address}/{prefix}", "dev",
                    "br0"])


def assert_probe(sock, source):
    data, sender = sock.recvfrom(2048)
    assert sender[0] == source
    assert data[3] == 10  # ndrp
    assert data[19] == 3  # mode 3: a static neighbor is asked directly


# ----- fixtures ------------------------------------------------------------------------------

@pytest.fixture(params=list(BUILDS.values()), ids=list(BUILDS))
def bus_build(request):
    return request.param


@pytest.fixture
def lab3(make_lab, bus_build):
    lab = make_lab(SCENARIO, build_dir=bus_build)
    lab.ap("ap1").wait_log(LISTENING_LOG)
    return lab


@pytest.fixture
def ap1(lab3):
    return lab3.ap("ap1")


def lone_ap(make_lab, build_dir):
    """One AP without a driver simulator or daemon (its ubusd runs on a ubus build)."""
    lab = make_lab({"count": 1, "hears": "none"}, bridge=False, simulators=False,
                   daemons=False, build_dir=build_dir)
    return lab.ap("ap1")


@pytest.fixture
def node(make_lab, bus_build):
    ap = lone_ap(make_lab, bus_build)
    yield ap
    ap.stop_daemon()


@pytest.fixture
def daemon(node):
    """One AP without a driver simulator, its daemon running."""
    node.start_daemon(["-D"])
    node.wait_log(LISTENING_LOG)
    return node


# ----- add_static_neighbor -------------------------------------------------------------------

def test_add_with_mac_ip_and_ip6_puts_the_neighbor_first_and_probes_it(ap1):
    mark = ap1.log_mark()

    assert result_of(ap1, "add_static_neighbor", {"mac": "02:00:00:00:00:AB",
                                                  "ip": "10.99.0.61",
                                                  "ip6": "FD00:99::61"}) == "success"

    added = {"mac": "02:00:00:00:00:ab", "ip": "10.99.0.61", "ip6": "fd00:99::61"}
    assert file_entries(ap1) == [added] + INITIAL_LIST
    assert static_rows(ap1) == [added] + INITIAL_LIST
    ap1.wait_log(probe_log("10.99.0.61"), since=mark)


def test_add_with_only_mac_stores_no_addresses(ap1):
    assert result_of(ap1, "add_static_neighbor", {"mac": "02:00:00:00:00:62"}) == "success"

    added = {"mac": "02:00:00:00:00:62", "ip": "0.0.0.0", "ip6": "::"}
    assert file_entries(ap1) == [added] + INITIAL_LIST
    assert static_rows(ap1) == [added] + INITIAL_LIST


def test_add_of_a_known_mac_changes_only_what_it_names(ap1):
    assert result_of(ap1, "add_static_neighbor", {"mac": STATIC_X["mac"].upper(),
                                                  "ip6": "fd00:99::51"}) == "success"

    # Same place in the list, address kept, IPv6 address set.
    assert file_entries(ap1) == [dict(FILE_X, ip6="fd00:99::51"), FILE_AP3]

    assert result_of(ap1, "add_static_neighbor", {"mac": FILE_AP3["mac"],
                                                  "ip": "10.99.0.23"}) == "success"
    assert file_entries(ap1) == [dict(FILE_X, ip6="fd00:99::51"), dict(FILE_AP3, ip="10.99.0.23")]
    # AP 3 answers probes: its node in memory then holds the address the answer came from.
    assert [r["mac"] for r in static_rows(ap1)] == [FILE_X["mac"], FILE_AP3["mac"]]


@pytest.mark.parametrize("payload", [
    {"ip": "10.99.0.63"},
    {"ip": "10.99.0.64", "ip6": "fd00:99::64"},
    {"mac": 5, "ip": "10.99.0.65"},
    {"mac": ["02:00:00:00:00:66"]},
    {"mac": None},
    {},
], ids=["only-ip", "ip-and-ip6", "numeric-mac", "array-mac", "null-mac", "empty"])
def test_add_without_a_string_mac_succeeds_and_changes_nothing(ap1, payload):
    # Have the daemon write the file first, so an unwanted rewrite would show.
    assert result_of(ap1, "add_static_neighbor", {"mac": "02:00:00:00:00:62"}) == "success"
    before = file_snapshot(ap1)
    mark = ap1.log_mark()

    assert result_of(ap1, "add_static_neighbor", payload) == "success"

    assert file_snapshot(ap1) == before
    assert "save data as json" not in ap1.log_since(mark)
    assert len(static_rows(ap1)) == 3


def test_add_to_a_full_list_fails_and_keeps_the_file(ap1):
    eight = [{"mac": f"02:00:00:00:01:{i:02x}", "ip": f"10.99.0.{100 + i}"} for i in range(8)]
    assert result_of(ap1, "qv_static_neighbor", {"neighbor_list": eight}) == "success"
    before = file_snapshot(ap1)

    assert result_of(ap1, "add_static_neighbor", {"mac": "02:00:00:00:00:70"}) == "fail"

    assert file_snapshot(ap1) == before
    assert len(static_rows(ap1)) == 8
    # A known MAC is an update, which a full list still takes.
    assert result_of(ap1, "add_static_neighbor", {"mac": "02:00:00:00:01:00",
                                                  "ip": "10.99.0.99"}) == "success"
    assert file_entries(ap1)[-1] == {"mac": "02:00:00:00:01:00", "ip": "10.99.0.99",
                                     "ip6": "::"}


# ----- del_static_neighbor -------------------------------------------------------------------

def test_del_of_a_known_mac_removes_it_from_list_and_file(ap1):
    mark = ap1.log_mark()

    assert result_of(ap1, "del_static_neighbor", {"mac": STATIC_X["mac"].upper()}) == "success"

    assert file_entries(ap1) == [FILE_AP3]
    assert static_rows(ap1) == [FILE_AP3]
    ap1.wait_log(probe_log(FILE_AP3["ip"]), since=mark)  # the update pass after the edit


def test_del_of_the_last_neighbor_writes_an_empty_array(ap1):
    for entry in INITIAL_LIST:
        assert result_of(ap1, "del_static_neighbor", {"mac": entry["mac"]}) == "success"

    assert file_entries(ap1) == []
    assert static_rows(ap1) == []


def test_del_of_an_unknown_mac_fails_and_leaves_the_file_untouched(ap1):
    assert result_of(ap1, "add_static_neighbor", {"mac": "02:00:00:00:00:62"}) == "success"
    before = file_snapshot(ap1)
    time.sleep(0.02)  # a rewrite now would get a later modification time
    mark = ap1.log_mark()

    assert result_of(ap1, "del_static_neighbor", {"mac": UNKNOWN_MAC}) == "fail"

    assert file_snapshot(ap1) == before
    log = ap1.log_since(mark)
    assert "static_mac_del: Can not find member in static neighbor list!" in log
    assert "save data as json" not in log
    assert "update_static_neighbor" not in log
    assert len(static_rows(ap1)) == 3


@pytest.mark.parametrize("payload", [{}, {"mac": 7}], ids=["no-mac", "numeric-mac"])
def test_del_without_a_string_mac_succeeds_and_changes_nothing(ap1, payload):
    before = file_snapshot(ap1)

    assert result_of(ap1, "del_static_neighbor", payload) == "success"

    assert file_snapshot(ap1) == before
    assert static_rows(ap1) == INITIAL_LIST


# ----- qv_static_neighbor --------------------------------------------------------------------

def test_qv_replaces_the_list_and_rewrites_the_file(ap1):
    request = [{"mac": "02:00:00:00:00:81", "ip": "10.99.0.81", "ip6": "fd00:99::81"},
               {"mac": "02:00:00:00:00:82", "ip6": "fd00:99::82"},
               {"mac": "02:00:00:00:00:83", "ip": "10.99.0.83"}]
    mark = ap1.log_mark()

    assert result_of(ap1, "qv_static_neighbor", {"neighbor_list": request}) == "success"

    # Each record goes to the head, so the list holds them in the reverse order; a record
    # without "ip" gets the all-ones address.
    expected = [{"mac": "02:00:00:00:00:83", "ip": "10.99.0.83", "ip6": "::"},
                {"mac": "02:00:00:00:00:82", "ip": "255.255.255.255", "ip6": "fd00:99::82"},
                {"mac": "02:00:00:00:00:81", "ip": "10.99.0.81", "ip6": "fd00:99::81"}]
    assert file_entries(ap1) == expected
    assert static_rows(ap1) == expected
    ap1.wait_log(probe_log("10.99.0.83"), since=mark)
    ap1.wait_log(probe_log("10.99.0.81"), since=mark)


def test_qv_element_that_is_no_object_gives_a_zero_mac(ap1):
    request = [{"mac": "02:00:00:00:00:81", "ip": "10.99.0.81"}, 5]

    assert result_of(ap1, "qv_static_neighbor", {"neighbor_list": request}) == "success"

    assert file_entries(ap1) == [
        {"mac": "00:00:00:00:00:00", "ip": "255.255.255.255", "ip6": "::"},
        {"mac": "02:00:00:00:00:81", "ip": "10.99.0.81", "ip6": "::"}]


@pytest.mark.parametrize("payload", [{}, {"neighbor_list": None}, {"neighbor_list": "x"},
                                     {"neighbor_list": {"mac": "02:00:00:00:00:81"}},
                                     {"mac_list": []}],
                         ids=["absent", "null", "string", "object", "other-member"])
def test_qv_without_a_neighbor_list_array_fails_and_changes_nothing(ap1, payload):
    before = file_snapshot(ap1)

    assert result_of(ap1, "qv_static_neighbor", payload) == "fail"

    assert file_snapshot(ap1) == before
    assert static_rows(ap1) == INITIAL_LIST


def test_qv_with_an_empty_array_empties_list_and_file(ap1):
    assert result_of(ap1, "qv_static_neighbor", {"neighbor_list": []}) == "success"

    assert file_entries(ap1) == []
    assert static_rows(ap1) == []


def test_qv_with_more_than_eight_elements_keeps_the_first_eight(ap1):
    request = [{"mac": f"02:00:00:00:02:{i:02x}", "ip": f"10.99.0.{120 + i}"} for i in range(9)]
    mark = ap1.log_mark()

    assert result_of(ap1, "qv_static_neighbor", {"neighbor_list": request}) == "success"

    expected = [{"mac": r["mac"], "ip": r["ip"], "ip6": "::"} for r in reversed(request[:8])]
    assert file_entries(ap1) == expected
    assert static_rows(ap1) == expected
    assert "dropped static neighbor [02:00:00:00:02:08]" in ap1.log_since(mark)


# ----- qv_del_static_neighbor ----------------------------------------------------------------

@pytest.mark.parametrize("macs, result", [
    ([STATIC_X["mac"], UNKNOWN_MAC], "fail"),
    ([UNKNOWN_MAC, STATIC_X["mac"]], "success"),
], ids=["known-then-unknown", "unknown-then-known"])
def test_qv_del_reports_the_last_delete_and_deletes_every_known_mac(ap1, macs, result):
    request = {"mac_list": [{"mac": mac} for mac in macs]}

    assert result_of(ap1, "qv_del_static_neighbor", request) == result

    assert file_entries(ap1) == [FILE_AP3]
    assert static_rows(ap1) == [FILE_AP3]


def test_qv_del_of_two_known_macs_empties_the_list(ap1):
    request = {"mac_list": [{"mac": entry["mac"]} for entry in INITIAL_LIST]}

    assert result_of(ap1, "qv_del_static_neighbor", request) == "success"

    assert file_entries(ap1) == []


@pytest.mark.parametrize("payload", [{}, {"mac_list": []}, {"mac_list": "x"}],
                         ids=["absent", "empty", "string"])
def test_qv_del_without_macs_succeeds_and_changes_nothing(ap1, payload):
    before = file_snapshot(ap1)

    assert result_of(ap1, "qv_del_static_neighbor", payload) == "success"

    assert file_snapshot(ap1) == before
    assert static_rows(ap1) == INITIAL_LIST


# ----- debug_set and debug_get ---------------------------------------------------------------

def test_debug_set_switches_the_log_off_and_on(daemon):
    assert debug_state(daemon) == 1  # from -D

    assert result_of(daemon, "debug_set", {"debug_switch": 0}) == "success"
    assert debug_state(daemon) == 0
    mark = daemon.log_mark()
    before = counters(daemon)
    send_driver_event(daemon, drvproto.encode_confirm())
    send_local(daemon, local_message(6))
    wait_for(lambda: counters(daemon)["rcv_local_cnt"] > before["rcv_local_cnt"],
             what="the local message counted")
    assert counters(daemon)["rcv_hand_cnt"] > before["rcv_hand_cnt"]
    assert daemon.log_since(mark) == ""

    assert result_of(daemon, "debug_set", {"debug_switch": 1}) == "success"
    assert debug_state(daemon) == 1
    daemon.wait_log("Set tarn in debug mode", since=mark)
    send_local(daemon, local_message(6))
    daemon.wait_log(r"handle_recvmsg: operation=6\b", since=mark)


def test_debug_set_stores_any_int32(daemon):
    for value in (7, -1, 2 ** 31 - 1, -2 ** 31, 1):
        assert result_of(daemon, "debug_set", {"debug_switch": value}) == "success"
        assert debug_state(daemon) == value


@pytest.mark.parametrize("payload", [
    {},
    {"debug_switch": "1"},
    {"debug_switch": 1.5},
    {"debug_switch": True},
    {"debug_switch": None},
    {"debug_switch": [1]},
    {"debug_switch": 2 ** 31},
    {"debug_switch": -2 ** 31 - 1},
    {"debug": 1},
], ids=["absent", "string", "fraction", "boolean", "null", "array", "above-int32",
        "below-int32", "other-member"])
def test_debug_set_without_an_int32_succeeds_and_changes_nothing(daemon, payload):
    assert result_of(daemon, "debug_set", {"debug_switch": 0}) == "success"

    assert result_of(daemon, "debug_set", payload) == "success"

    assert debug_state(daemon) == 0


def test_debug_get_reports_both_tables_and_counts_what_the_simulator_sends(ap1):
    reply = call(ap1, "debug_get")
    assert reply.names == ["Debug", "Socket_rcvCount"]
    assert reply["Debug"].names == ["debug_switch"]
    assert reply["Socket_rcvCount"].names == ["rcv_hand_cnt", "rcv_nbcp_cnt",
                                              "rcv_nbcp_ip6_cnt", "rcv_local_cnt"]
    for value in list(reply["Debug"].values()) + list(reply["Socket_rcvCount"].values()):
        assert type(value) is int

    # Every message the simulator got through to the daemon's port is one handler call.
    def all_counted(at_least=0):
        sent = ap1.sim_command({"cmd": "status"})["sent"]
        return sent if sent >= at_least and counters(ap1)["rcv_hand_cnt"] == sent else None

    sent_before = wait_for(all_counted, what="the simulator's messages counted")
    for _ in range(3):
        ap1.sim_command({"cmd": "beacon"})  # 2 APs x 2 radios each
    wait_for(lambda: all_counted(sent_before + 12), what="three more beacons counted")


# ----- show and show_neighbor ----------------------------------------------------------------

def test_show_lists_learned_then_static_neighbors_by_column_name(lab3):
    ap1 = lab3.ap("ap1")
    learned = {lab3.ap(n).mac: lab3.ap(n) for n in ("ap2", "ap3")}

    def complete():
        rows = call(ap1, "show")["result"]
        done = [r for r in rows if r["mac"] in learned and r.get("state") not in STATIC_STATES
                and r.names == CLUSTER_COLUMNS]
        return rows if len(done) == 2 else None

    rows = wait_for(complete, timeout=DISCOVERY_TIMEOUT,
                    what="ap2 and ap3 learned by ap1 with name and version")

    assert len(rows) == 4
    for row in rows[:2]:
        peer = learned[row["mac"]]
        assert row.names == CLUSTER_COLUMNS
        assert (row["ip"], row["ip6"], row["state"]) == (peer.ip4, peer.ip6, "0")
        assert (row["name"], row["version"]) == (peer.config["hostname"],
                                                 peer.config["version"])
        assert all(type(value) is str for value in row.values())
    # Static neighbors come last, in list order; their members stop where the line's words
    # stop (a neighbor that never answered has no name and no version).
    assert [r["mac"] for r in rows[2:]] == [FILE_X["mac"], FILE_AP3["mac"]]
    for row in rows[2:]:
        assert row.names == CLUSTER_COLUMNS[:len(row.names)]
        assert row["state"] in STATIC_STATES
    assert rows[2].names == CLUSTER_COLUMNS[:6]


def test_show_matches_the_cluster_table_of_the_client(ap1):
    table = ap1.tarn("show", "ubus", timeout=20).stdout.splitlines()
    rows = call(ap1, "show")["result"]

    assert table[0].split() == CLUSTER_COLUMNS
    assert [list(zip(CLUSTER_COLUMNS, line.split())) for line in table[1:]] == \
        [row.pairs for row in rows]
    assert [row["mac"] for row in rows if row["state"] in STATIC_STATES] == \
        [FILE_X["mac"], FILE_AP3["mac"]]


def test_show_neighbor_lists_radio_table_members_once_per_radio(ap1):
    rows = call(ap1, "show_neighbor")["result"]

    statics = [row for row in rows if row["state"] in STATIC_STATES]
    assert [row["mac"] for row in statics] == [FILE_X["mac"], FILE_AP3["mac"]]
    for row in rows:
        # radiocnt radios printed, and a static neighbor (radiocnt 0) is printed as two.
        radios = int(row["radiocnt"])
        assert row.names == RADIO_COLUMNS[:8 + 4 * radios]
    x = statics[0]
    assert x.pairs == [("mac", FILE_X["mac"]), ("ip", FILE_X["ip"]), ("qv_ip", "0.0.0.0"),
                       ("tenantId", "-1"), ("state", "4"), ("name", "-1"),
                       ("version", "-1"), ("radiocnt", "2"),
                       ("radioid", "0"), ("channel", "0"), ("rssi", "0"), ("txpower", "0"),
                       ("radioid", "1"), ("channel", "0"), ("rssi", "0"), ("txpower", "0")]


def test_show_methods_of_an_empty_table_give_empty_arrays(daemon):
    assert call(daemon, "show").pairs == [("result", [])]
    assert call(daemon, "show_neighbor").pairs == [("result", [])]


# ----- call statuses -------------------------------------------------------------------------

def test_without_a_daemon_a_call_fails(node):
    result = node.bus("debug_get")

    assert (result.returncode, result.stderr) == NO_DAEMON[transport_of(node.lab.build_dir)]


def test_sigterm_ends_the_daemon_with_0_and_its_service(daemon):
    assert result_of(daemon, "debug_set", {"debug_switch": 1}) == "success"

    assert daemon.stop_daemon(signal.SIGTERM) == 0

    result = daemon.bus("debug_get")
    assert (result.returncode, result.stderr) == NO_DAEMON[transport_of(daemon.lab.build_dir)]
    if not is_ubus(daemon):
        assert not os.path.exists(daemon.path(BUS_SOCKET))


def test_a_killed_daemon_leaves_no_service(daemon):
    assert daemon.stop_daemon(signal.SIGKILL) == -signal.SIGKILL

    result = daemon.bus("debug_get")
    assert (result.returncode, result.stderr) == NO_DAEMON[transport_of(daemon.lab.build_dir)]
    if not is_ubus(daemon):
        assert os.path.exists(daemon.path(BUS_SOCKET))  # a socket nobody answers


def test_a_stopped_daemon_times_out_and_serves_again_when_continued(daemon):
    pid = daemon.daemon_pid
    os.kill(pid, signal.SIGSTOP)
    try:
        wait_stopped(pid)
        result = bus_run(daemon, "-t", "1", "call", "tarn", "debug_get")
    finally:
        os.kill(pid, signal.SIGCONT)

    # Standard error is no terminal: 256 minus the status, and the call named.
    assert result.returncode == 249
    assert result.stderr == "Command failed: ubus call tarn debug_get (Request timed out)\n"
    # The abandoned request does not stall the service.
    assert debug_state(daemon) == 1


# ----- requests the ubus command cannot send --------------------------------------------------

# Members as tests/ubus_members_call takes them (TYPE:NAME=VALUE), what the call prints, and the
# debug flag (set to 0 before) and static neighbors after it.
MAC_A, MAC_B = "02:00:00:00:00:31", "02:00:00:00:00:32"
SUCCESS = ['{"result":"success"}', "status 0"]


UBUS_BUILD = BUILDS.get("ubus")


@pytest.mark.skipif(UBUS_BUILD is None, reason="needs a ubus build in TARN_UBUS_BUILD_DIR")
@pytest.mark.parametrize("bus_build", [UBUS_BUILD], ids=["ubus"])
@pytest.mark.parametrize("method, members, output, debug, macs", [
    ("debug_set", ["i:debug_switch=3", "i:debug_switch=5"], SUCCESS, 3, []),
    ("debug_set", ["i:=7"], SUCCESS, 0, []),
    ("debug_set", ["s:debug_switch=9", "i:debug_switch=4"], SUCCESS, 4, []),
    ("add_static_neighbor", [f"s:mac={MAC_A}", f"s:mac={MAC_B}"], SUCCESS, 0, [MAC_A]),
    ("add_static_neighbor", [f"s:={MAC_A}", "i:mac=5"], SUCCESS, 0, []),
    ("qv_del_static_neighbor", ["s:=x"], ["status 1"], 0, []),
], ids=["repeated-name-first-wins", "nameless-skipped", "wrong-type-absent", "repeated-mac",
        "nameless-and-wrong-mac", "list-method-nameless"])
def test_blobmsg_members_are_read_by_policy(daemon, method, members, output, debug, macs):
    assert result_of(daemon, "debug_set", {"debug_switch": 0}) == "success"

    result = daemon.exec([os.path.join(daemon.lab.build_dir, "tests", "ubus_members_call"),
                          "tarn", method] + members, timeout=10)

    assert result.stdout.splitlines() == output
    assert debug_state(daemon) == debug
    assert [row["mac"] for row in static_rows(daemon)] == macs


# ----- tarn-bus against ubus ------------------------------------------------------------------

TWIN_LINES = [
    [], ["-h"], ["list"], ["-S", "list"], ["-v", "list"], ["-v", "list", "tarn"],
    ["list", "nosuch"], ["list", "a", "b"],
    ["call", "tarn", "debug_get"], ["-S", "call", "tarn", "debug_get"],
    ["call", "tarn", "debug_set", '{"debug_switch":0} trailing'],
    ["call", "tarn", "debug_set", '{"debug_switch":2,"debug_switch":1}'],
    ["call", "tarn", "add_static_neighbor", '{"mac":"02:00:00:00:00:41","ip":"10.99.0.41"}'],
    ["call", "tarn", "qv_static_neighbor",
     '{"neighbor_list":[{"mac":"02:00:00:00:00:42","ip":null,"ip6":"fd00::42"}]}'],
    ["call", "tarn", "show"], ["-S", "call", "tarn", "show_neighbor"],
    ["call", "tarn", "qv_del_static_neighbor", '{"mac_list":[{"mac":"02:00:00:00:00:42"},7]}'],
    ["call", "tarn", "del_static_neighbor", '{"mac":"02:00:00:00:00:42"}'],
    ["call", "tarn", "nosuch"], ["-S", "call", "tarn", "nosuch"], ["call", "nosuch", "show"],
    ["call", "tarn", "debug_set", "{"], ["-S", "call", "tarn", "debug_set", "{"],
    ["call", "tarn", "debug_set", "[1]"],
    ["call", "tarn"], ["call", "tarn", "show", "{}", "x"], ["nosuch"],
    ["send", RELOAD_EVENT, '{"ModifiedConfig":["all"]}'], ["send", "x", "{"], ["send"],
    ["-s", "/tmp/nobody", "call", "tarn", "show"], ["-S", "-s", "/tmp/nobody", "list"],
    ["call", "tarn", "debug_get"],
]
# Usage lines of what tarn-bus does not have: the monitor options and the listening commands.
UBUS_ONLY_USAGE = (" -m <type>:", "\t\t\t(can be used more than once)", " -M <r|t>",
                   " - subscribe ", " - listen ", " - wait_for ", " - monitor")


def twin_outcome(ap, args):
    result = bus_run(ap, *args)

    def normal(text):
        text = re.sub(r"@[0-9a-f]{8}", "@ID", text.replace(ap.bus_command, "PROG"))
        return "".join(line for line in text.splitlines(keepends=True)
                       if not line.startswith(UBUS_ONLY_USAGE))
    return result.returncode, normal(result.stdout), normal(result.stderr)


def test_tarn_bus_answers_every_command_line_as_ubus(make_lab):
    if set(GIVEN_BUILDS) != {"ubus", "tarn-bus"}:
        pytest.skip("needs a ubus build in TARN_UBUS_BUILD_DIR")
    aps = {t: lone_ap(make_lab, d) for t, d in GIVEN_BUILDS.items()}
    for ap in aps.values():
        ap.start_daemon(["-D"])
        ap.wait_log(LISTENING_LOG)

    differences = []
    for args in TWIN_LINES:
        ubus, tarn_bus = (twin_outcome(aps[t], args) for t in ("ubus", "tarn-bus"))
        if ubus != tarn_bus:
            differences.append(f"{args}:\n  ubus     {ubus}\n  tarn-bus {tarn_bus}")

    assert differences == [], "\n".join(differences)


# ----- the configuration-reload event ---------------------------------------------------------

RELOADED = [{"mac": "02:00:00:00:00:71", "ip": "10.99.0.71"},
            {"mac": "02:00:00:00:00:72", "ip6": "fd00:99::72"}]
# As loaded: each entry at the head, so the file's last entry first.
RELOADED_LIST = [{"mac": "02:00:00:00:00:72", "ip": "0.0.0.0", "ip6": "fd00:99::72"},
                 {"mac": "02:00:00:00:00:71", "ip": "10.99.0.71", "ip6": "::"}]


def test_reload_event_takes_over_a_file_written_from_outside_and_probes(lab3):
    ap1 = lab3.ap("ap1")
    write_static_file(ap1, RELOADED)
    mark = ap1.log_mark()
    with nbcp_listener(lab3, "10.99.0.71") as v4, nbcp_listener(lab3, "fd00:99::72") as v6:
        reload(ap1, ["static_neighbor.conf"])

        assert static_rows(ap1) == RELOADED_LIST
        assert_probe(v6, ap1.ip6)
        assert_probe(v4, ap1.ip4)
    log = ap1.log_since(mark)
    assert log.count(RELOAD_LOG) == 1
    assert probe_log("10.99.0.71") in log
    # The loader does not write the file.
    assert json.loads(ap1.read_file(STATIC_CONF)) == {"static_neighbor": RELOADED}
    assert ap1.tarn("show", "ubus", timeout=20).stdout.count("02:00:00:00:00:7") == 2


@pytest.mark.parametrize("event_type, message, reloads", [
    (RELOAD_EVENT, {"ModifiedConfig": ["network", "static_neighbor.conf"]}, 1),
    (RELOAD_EVENT, {"ModifiedConfig": ["all", "static_neighbor.conf"]}, 2),
    (RELOAD_EVENT, {"ModifiedConfig": ["all"], "other": 1}, 1),
    (RELOAD_EVENT, {"ModifiedConfig": ["network", "wireless"]}, 0),
    (RELOAD_EVENT, {"ModifiedConfig": ["static_neighbor.conf.bak", "ALL", 5]}, 0),
    (RELOAD_EVENT, {"ModifiedConfig": []}, 0),
    (RELOAD_EVENT, {"ModifiedConfig": "static_neighbor.conf"}, 0),
    (RELOAD_EVENT, {}, 0),
    ("userconfig.reloaded", {"ModifiedConfig": ["all"]}, 0),
], ids=["other-and-static", "all-and-static", "all", "others-only", "near-names", "empty",
        "not-an-array", "no-member", "other-event"])
def test_reload_event_reloads_once_per_matching_name(ap1, event_type, message, reloads):
    write_static_file(ap1, RELOADED)
    mark = ap1.log_mark()

    result = bus_send(ap1, event_type, message)

    assert result.returncode == 0, result.stderr
    log = ap1.log_since(mark)
    assert log.count(RELOAD_LOG) == reloads
    assert log.count(probe_log("10.99.0.71")) == reloads  # an update pass after each load
    assert static_rows(ap1) == (RELOADED_LIST if reloads else INITIAL_LIST)


def test_reload_after_the_file_was_deleted_keeps_the_list(ap1):
    os.unlink(ap1.path(STATIC_CONF))
    mark = ap1.log_mark()

    reload(ap1, ["static_neighbor.conf"])

    log = ap1.log_since(mark)
    assert log.count(RELOAD_LOG) == 1
    assert probe_log(FILE_X["ip"]) in log  # the update pass still runs
    assert static_rows(ap1) == INITIAL_LIST
    assert not os.path.exists(ap1.path(STATIC_CONF))


def test_reload_of_a_file_without_entries_empties_the_list(ap1):
    write_static_file(ap1, [])

    reload(ap1, ["static_neighbor.conf"])

    assert static_rows(ap1) == []
    ap1.wait_log("static neighbor is empty!!!")
