"""The neighbor view in headless Chromium against answers of tarn-info's schema made here: the
standalone page (its loader, refresh floor, notice, hostile texts, unanswered mark, channel
counts) and the LuCI view in a stand-in of LuCI's loader (the calls its buttons issue)."""

import json

import pytest

from webpage import LUCI_FILES, FixtureServer, browser, read_page, wait_until

HOSTILE = "<img src=x onerror=alert(1)>\n"


def neighbor(mac, name="ap", ip="10.99.0.12", ip6="fd00:99::12", state=0, learned=True,
             static=False, radios=((6, 40, 20), (36, 30, 18)), **extra):
    state_names = ["active", "offline", "wireless_ageing", "static_active", "static_offline"]
    entry = {
        "mac": mac, "learned": learned, "static": static, "state": state,
        "state_name": state_names[state] if state < len(state_names) else "unknown",
        "answered": bool(name), "name": name, "version": "2.0.1" if name else "",
        "tenant": "tenant-a", "ip": ip, "ip6": ip6, "qv_ip": None,
        "cluster": {"flag": 0, "id": 0, "pvc_ip": None, "pvc_mac": "00:00:00:00:00:00"},
        "radio_count": len(radios),
        "radios": [{"index": i, "radioid": i, "channel": c, "bandwidth": 20, "rssi": r,
                    "txpower": t} for i, (c, r, t) in enumerate(radios)]}
    entry.update(extra)
    return entry


def document(*neighbors):
    return {"schema": 1, "neighbors": list(neighbors)}


@pytest.fixture(scope="module")
def server():
    with FixtureServer(extra=LUCI_FILES) as fixture_server:
        yield fixture_server


@pytest.fixture(scope="module")
def chromium():
    with browser() as driver:
        yield driver


def show(chromium, server, answer, query="?interval=5"):
    """Loads the standalone page with `answer` as the CGI's and returns what it shows."""
    server.answer = answer
    chromium.get(server.url("/tarn/index.html" + query))
    wait_until(chromium, "const r = document.getElementById('tarn-neighbors');"
               "return r && Number(r.dataset.refreshes) >= 1", what="first refresh")
    return read_page(chromium)


@pytest.mark.parametrize("requested, used", [("4", 5), ("5", 5), ("6", 6), ("", 5),
                                             ("0.5", 5), ("x", 5)])
def test_refresh_period_never_below_five_seconds(chromium, server, requested, used):
    page = show(chromium, server, (200, json.dumps(document())), f"?interval={requested}")
    assert page["pollSeconds"] == used
    assert page["empty"] and page["rows"] == [] and page["notice"] is None


@pytest.mark.parametrize("status, body", [
    (503, json.dumps({"error": "tarn-info: no answer from the daemon"})),
    (500, "Internal Server Error <b>trace</b>"),      # not JSON
    (200, json.dumps({"schema": 2, "neighbors": []})),  # a schema this view does not know
    (200, json.dumps({"error": HOSTILE})),
])
def test_notice_instead_of_a_table(chromium, server, status, body):
    page = show(chromium, server, (status, body))
    assert page["notice"] and "not answering" in page["notice"]
    assert page["rows"] == [] and page["foreign"] == 0


def test_rows_states_sources_channels_and_unanswered_mark(chromium, server):
    page = show(chromium, server, (200, json.dumps(document(
        neighbor("02:00:00:00:00:02", "ap2"),
        neighbor("02:00:00:00:00:03", "", ip6=None, radios=((6, 20, 0), (6, 22, 0))),
        neighbor("02:00:00:00:00:04", "ap4", state=3, learned=False, static=True, radios=()),
        neighbor("02:00:00:00:00:05", "ap5", state=1, static=True, static_state=4,
                 static_state_name="static_offline", radios=((11, 35, 17),)),
        neighbor("02:00:00:00:00:06", "ap6", state=9, radios=((36, 10, 5),))))))
    rows = {row["mac"]: row for row in page["rows"]}
    assert list(rows) == ["02:00:00:00:00:02", "02:00:00:00:00:03", "02:00:00:00:00:04",
                          "02:00:00:00:00:05", "02:00:00:00:00:06"]
    assert rows["02:00:00:00:00:02"]["radios"] == [
        {"index": 0, "channel": 6, "rssi": 40, "txpower": 20},
        {"index": 1, "channel": 36, "rssi": 30, "txpower": 18}]
    assert [(r["name"], r["unanswered"], r["marked"]) for r in rows.values()] == [
        ("ap2", False, False), ("—", True, True), ("ap4", False, False),
        ("ap5", False, False), ("ap6", False, False)]
    assert rows["02:00:00:00:00:03"]["ip6"] == "—"
    assert [(r["state"], r["source"]) for r in rows.values()] == [
        ("active (0)", "learned"), ("active (0)", "learned"),
        ("static, answering (3)", "static"),
        ("offline (1); static: static, not answering (4)", "learned, static"),
        ("unknown (9)", "learned")]
    assert "32766" in page["hint"]
    # A neighbor counts once per channel, however many of its radios use it.
    assert page["channels"] == {"6": 2, "11": 1, "36": 2}


@pytest.mark.parametrize("field", ["name", "version", "mac", "ip", "ip6", "state_name"])
def test_network_texts_stay_text(chromium, server, field):
    entry = neighbor("02:00:00:00:00:02", "ap2")
    entry[field] = HOSTILE
    page = show(chromium, server, (200, json.dumps(document(entry))))
    assert page["foreign"] == 0
    assert len(page["rows"]) == 1
    shown = {"name": page["rows"][0]["name"], "version": page["rows"][0]["version"],
             "mac": page["rows"][0]["mac"], "ip": page["rows"][0]["ip"],
             "ip6": page["rows"][0]["ip6"], "state_name": page["rows"][0]["state"]}
    expected = "unknown (0)" if field == "state_name" else HOSTILE
    assert shown[field] == expected


# ----- the LuCI view -----------------------------------------------------------------------

def start_luci_view(chromium, server, answer, pollinterval=5):
    chromium.get(server.url("/luci-harness.html"))
    outcome = chromium.execute_async_script(
        "window.startView(arguments[0], arguments[1], arguments[2]);", answer, pollinterval)
    assert outcome == "ok"
    return chromium.execute_script("return window.harness")


def click(chromium, mac, label):
    chromium.execute_script(
        "const row = document.querySelector(`tr[data-mac='${arguments[0]}']`);"
        "[...row.querySelectorAll('button')].find(b => b.textContent === arguments[1]).click();",
        mac, label)


def wait_calls(chromium, count):
    return wait_until(chromium, "const c = window.harness.calls;"
                      "return c.length >= arguments[0] && c", 10, "rpc calls", count)


@pytest.mark.parametrize("pollinterval, used", [(4, 5), (5, 5), (6, 6)])
def test_luci_view_polls_no_faster_than_five_seconds(chromium, server, pollinterval, used):
    recorded = start_luci_view(chromium, server, document(), pollinterval)
    assert recorded["polls"] == [used]
    assert recorded["calls"] == [{"object": "luci.tarn", "method": "getNeighbors", "args": {}}]


def test_luci_buttons_call_the_static_methods(chromium, server):
    start_luci_view(chromium, server, document(
        neighbor("02:00:00:00:00:02", "ap2"),
        neighbor("02:00:00:00:00:03", "ap3", ip=None),
        neighbor("02:00:00:00:00:04", "ap4", ip6=None),
        neighbor("02:00:00:00:00:05", "", ip=None, ip6=None),
        neighbor("02:00:00:00:00:06", "ap6", state=3, learned=False, static=True)))
    page = read_page(chromium)
    assert {row["mac"]: row["buttons"] for row in page["rows"]} == {
        "02:00:00:00:00:02": ["Pin as static"], "02:00:00:00:00:03": ["Pin as static"],
        "02:00:00:00:00:04": ["Pin as static"], "02:00:00:00:00:05": [],
        "02:00:00:00:00:06": ["Unpin"]}

    expected = [
        ("02:00:00:00:00:02", "Pin as static", "add_static_neighbor",
         {"mac": "02:00:00:00:00:02", "ip": "10.99.0.12", "ip6": "fd00:99::12"}),
        ("02:00:00:00:00:03", "Pin as static", "add_static_neighbor",
         {"mac": "02:00:00:00:00:03", "ip6": "fd00:99::12"}),
        ("02:00:00:00:00:04", "Pin as static", "add_static_neighbor",
         {"mac": "02:00:00:00:00:04", "ip": "10.99.0.12"}),
        ("02:00:00:00:00:06", "Unpin", "del_static_neighbor", {"mac": "02:00:00:00:00:06"}),
    ]
    calls = 1
    for mac, label, method, args in expected:
        click(chromium, mac, label)
        # The edit, then the table read again.
        calls += 2
        made = wait_calls(chromium, calls)
        assert made[-2] == {"object": "tarn", "method": method, "args": args}
        assert made[-1]["method"] == "getNeighbors"
    assert chromium.execute_script("return window.harness.notifications") == []


def test_luci_fail_reply_shows_a_notice(chromium, server):
    start_luci_view(chromium, server, document(neighbor("02:00:00:00:00:02", "ap2")))
    chromium.execute_script("window.setEditReply({result: 'fail'})")
    click(chromium, "02:00:00:00:00:02", "Pin as static")
    wait_calls(chromium, 3)
    notes = wait_until(chromium, "return window.harness.notifications.length > 0 && "
                       "window.harness.notifications", 10, "notification")
    assert len(notes) == 1 and "failed" in notes[0] and "8" in notes[0]


def test_luci_rpc_error_object_shows_the_notice(chromium, server):
    start_luci_view(chromium, server, {"error": "tarn-info: no answer from the daemon"})
    page = read_page(chromium)
    assert page["notice"] and "not answering" in page["notice"] and page["rows"] == []
