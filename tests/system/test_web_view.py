"""The neighbor view in headless Chromium against answers of tarn-info's schema made here: the
standalone page (refresh floor, notice, rows, hostile texts) and the LuCI view in a stand-in of
LuCI's loader (its poll period and the calls its buttons make)."""

import functools
import http.server
import json
import os
import tempfile
import threading

import pytest

from tarnlab import web
from webpage import HOSTILE, browser, load, read_page, wait_until

HARNESS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "web")
RESOURCES = os.path.join(web.REPO, "openwrt/luci-app-tarn/htdocs/luci-static/resources")
# The LuCI harness and the files LuCI's loader would fetch, as the server lays them out.
LUCI_FILES = {**{"/" + name: os.path.join(HARNESS, name) for name in os.listdir(HARNESS)},
              **{f"/luci-static/resources/{name}": os.path.join(RESOURCES, name)
                 for name in ("tarn-neighbors.js", "view/tarn/neighbors.js")}}
V4, V6 = "10.99.0.12", "fd00:99::12"
DOWN = {"error": "tarn-info: no answer from the daemon"}
GET_NEIGHBORS = {"object": "luci.tarn", "method": "getNeighbors", "args": {}}
PIN = "Pin as static"


def mac(n):
    return f"02:00:00:00:00:{n:02x}"


def neighbor(mac, name="ap", ip=V4, ip6=V6, state=0, radios=((6, 40, 20), (36, 30, 18)),
             **extra):
    """The members of a tarn-info table entry that the view reads; `extra` adds members or
    replaces them."""
    names = ["active", "offline", "wireless_ageing", "static_active", "static_offline"]
    return {
        "mac": mac, "learned": True, "static": False, "state": state,
        "state_name": names[state] if state < len(names) else "unknown",
        "answered": bool(name), "name": name, "version": "2.0.1" if name else "",
        "ip": ip, "ip6": ip6, "radios": [{"index": i, "channel": c, "rssi": r, "txpower": t}
                                         for i, (c, r, t) in enumerate(radios)], **extra}


def document(*neighbors):
    return {"schema": 1, "neighbors": list(neighbors)}


@pytest.fixture(scope="module")
def server():
    """The page's files on 127.0.0.1, with `server.answer` (status, body) in place of the CGI."""
    class Handler(http.server.SimpleHTTPRequestHandler):
        def do_GET(self):
            if not self.path.startswith(web.CGI_PATH):
                return super().do_GET()
            status, body = httpd.answer
            self.send_response(status)
            self.send_header("Content-Type", "application/json")
            self.end_headers()  # the body ends where the connection does
            self.wfile.write((body if isinstance(body, str) else json.dumps(body)).encode())
            return None

        def log_message(self, *args):
            pass

    with tempfile.TemporaryDirectory(prefix="tarn-www-") as root:
        handler = functools.partial(Handler, directory=web.assemble(root, LUCI_FILES))
        httpd = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
        httpd.base = f"http://127.0.0.1:{httpd.server_address[1]}"
        threading.Thread(target=httpd.serve_forever, daemon=True).start()
        yield httpd
        httpd.shutdown()
        httpd.server_close()


@pytest.fixture(scope="module")
def chromium():
    with browser() as driver:
        yield driver


def show(chromium, server, status, body, interval="5"):
    server.answer = (status, body)
    return load(chromium, f"{server.base}/tarn/index.html?interval={interval}")


@pytest.mark.parametrize("interval, status, body, poll", [
    *[(interval, 200, document(), poll) for interval, poll in
      [("4", 5), ("5", 5), ("6", 6), ("", 5), ("0.5", 5), ("x", 5)]],
    # Each of these is a notice in place of the table (the CGI's 503 is test_web.py's).
    ("6", 500, "Internal Server Error <b>trace</b>", 6),  # not JSON
    ("5", 200, {"schema": 2, "neighbors": []}, 5),  # a schema this view does not know
    ("5", 200, {"error": HOSTILE}, 5),
])
def test_refresh_floor_and_notice(chromium, server, interval, status, body, poll):
    page = show(chromium, server, status, body, interval)
    assert page["pollSeconds"] == poll and page["rows"] == [] and page["foreign"] == 0
    if body == document():
        assert page["empty"] and page["notice"] is None
    else:
        assert "not answering" in (page["notice"] or "")


def test_rows_states_sources_channels_marks_and_hostile_texts(chromium, server):
    texts = ("name", "version", "mac", "ip", "ip6", "state_name")
    page = show(chromium, server, 200, document(
        neighbor(mac(2), "ap2"),
        neighbor(mac(3), "", ip6=None, radios=((6, 20, 0), (6, 22, 0))),
        neighbor(mac(4), "ap4", state=3, learned=False, static=True, radios=()),
        neighbor(mac(5), "ap5", state=1, static=True, static_state=4,
                 static_state_name="static_offline", radios=((11, 35, 17),)),
        neighbor(mac(6), "ap6", state=9, radios=((36, 10, 5),)),
        neighbor(**dict.fromkeys(texts, HOSTILE), radios=((11, 1, 1),))))
    assert [(r["mac"], r["name"], r["ip6"], r["unanswered"], r["marked"], r["state"],
             r["source"]) for r in page["rows"]] == [
        (mac(2), "ap2", V6, False, False, "active (0)", "learned"),
        (mac(3), "—", "—", True, True, "active (0)", "learned"),
        (mac(4), "ap4", V6, False, False, "static, answering (3)", "static"),
        (mac(5), "ap5", V6, False, False, "offline (1); static: static, not answering (4)",
         "learned, static"),
        (mac(6), "ap6", V6, False, False, "unknown (9)", "learned"),
        (HOSTILE, HOSTILE, HOSTILE, False, False, "unknown (0)", "learned")]
    # Texts from the network stay text: each shown as it came, no element made of them.
    assert (page["rows"][5]["version"], page["rows"][5]["ip"], page["foreign"]) == \
        (HOSTILE, HOSTILE, 0)
    assert "32766" in page["hint"]
    # A neighbor counts once per channel, however many of its radios use it.
    assert page["channels"] == {"6": 2, "11": 2, "36": 2}


# ----- the LuCI view -----------------------------------------------------------------------

def start_luci_view(chromium, server, answer, pollinterval=5):
    chromium.get(server.base + "/luci-harness.html")
    assert chromium.execute_async_script("window.startView(...arguments);", answer,
                                         pollinterval) == "ok"
    return chromium.execute_script("return window.harness")


def click(chromium, mac, label):
    chromium.execute_script(
        "const row = document.querySelector(`tr[data-mac='${arguments[0]}']`);"
        "[...row.querySelectorAll('button')].find(b => b.textContent === arguments[1]).click();",
        mac, label)


@pytest.mark.parametrize("pollinterval, used, answer", [(4, 5, document()), (5, 5, DOWN),
                                                        (6, 6, document())])
def test_luci_view_polls_no_faster_than_five_seconds(chromium, server, pollinterval, used,
                                                      answer):
    recorded = start_luci_view(chromium, server, answer, pollinterval)
    assert recorded["polls"] == [used] and recorded["calls"] == [GET_NEIGHBORS]
    page = read_page(chromium)
    assert page["rows"] == [] and ("not answering" in (page["notice"] or "")) == (answer == DOWN)


# Each neighbor, the button its row shows and the edit (method, arguments besides the MAC)
# that button makes; an absent or empty address travels as no member.
BUTTONS = [
    (neighbor(mac(2), "ap2"), PIN, ("add_static_neighbor", {"ip": V4, "ip6": V6})),
    (neighbor(mac(3), "ap3", ip=""), PIN, ("add_static_neighbor", {"ip6": V6})),
    (neighbor(mac(4), "ap4", ip6=None), PIN, ("add_static_neighbor", {"ip": V4})),
    (neighbor(mac(5), "", ip=None, ip6=""), None, None),  # no address: nothing to pin
    (neighbor(mac(6), "ap6", state=3, learned=False, static=True), "Unpin",
     ("del_static_neighbor", {})),
]


def test_luci_buttons_call_the_static_methods_and_show_a_failure(chromium, server):
    start_luci_view(chromium, server, document(*(entry for entry, _, _ in BUTTONS)))
    assert {row["mac"]: row["buttons"] for row in read_page(chromium)["rows"]} == {
        entry["mac"]: [label] if label else [] for entry, label, _ in BUTTONS}
    calls = 1
    for entry, label, (method, args) in [row for row in BUTTONS if row[1]]:
        click(chromium, entry["mac"], label)
        calls += 2  # the edit, then the table read again
        made = wait_until(chromium, "const c = window.harness.calls;"
                          "return c.length >= arguments[0] && c", "rpc calls", calls)
        assert made[-2:] == [{"object": "tarn", "method": method,
                              "args": {"mac": entry["mac"], **args}}, GET_NEIGHBORS]
    assert chromium.execute_script("return window.harness.notifications") == []

    chromium.execute_script("window.setEditReply({result: 'fail'})")
    click(chromium, mac(2), PIN)
    notes = wait_until(chromium, "const n = window.harness.notifications;"
                       "return n.length > 0 && n", "the failure's notice")
    assert len(notes) == 1 and "failed" in notes[0] and "8" in notes[0]
