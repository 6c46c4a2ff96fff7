"""The standalone neighbor page against a running lab: ap1 serves it (busybox httpd, its CGI
running tarn-info) and headless Chromium inside ap1's network namespace reads it, as an
operator's browser would on the management network."""

import json
import os
import socket
import struct
import urllib.error
import urllib.request

import pytest

from tarnlab.web import CGI_PATH, PageServer
from tarnsys import NBCP_PORT, udp_socket_in, wait_for
from webpage import browser, read_page, wait_until

POLL = 5
# One refresh, plus the age tarn-info's shared answer may have, plus room for a loaded machine.
REFRESH_WAIT = POLL + 5 + 25
HOSTILE = "<img src=x onerror=alert(1)>\n"
BUILD = os.environ.get("TARN_BUILD_DIR", os.path.join(os.path.dirname(__file__), "..", "..",
                                                     "build"))


@pytest.fixture(autouse=True)
def _tarn_info():
    if not os.access(os.path.join(BUILD, "tarn-info"), os.X_OK):
        pytest.fail(f"no tarn-info in {BUILD}: build first")


def open_page(driver, server):
    driver.get(server.url() + f"?interval={POLL}")
    wait_until(driver, "const r = document.getElementById('tarn-neighbors');"
               "return r && Number(r.dataset.refreshes) >= 1", 30, "first refresh")
    assert read_page(driver)["pollSeconds"] == POLL


def wait_rows(driver, predicate, what, timeout=REFRESH_WAIT):
    """The page as read once `predicate(page)` holds, polled until `timeout`."""
    last = {}

    def check():
        last["page"] = read_page(driver)
        return predicate(last["page"])

    try:
        wait_for(check, timeout=timeout, what=what)
    except AssertionError:
        raise AssertionError(f"{what} not shown within {timeout} s; the page shows "
                             f"{json.dumps(last.get('page'), indent=1)}") from None
    return last["page"]


def answered_macs(page):
    return {row["mac"] for row in page["rows"] if not row["unanswered"]}


def tarn_info(ap):
    result = ap.exec(["tarn-info", "--json"], timeout=30)
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout)


def fetch(url):
    """(status, parsed JSON body) of a GET made from the calling thread's namespace."""
    try:
        with urllib.request.urlopen(url, timeout=30) as response:
            return response.status, response.headers["Content-Type"], json.load(response)
    except urllib.error.HTTPError as err:
        return err.code, err.headers["Content-Type"], json.load(err)


def screenshot_path():
    os.makedirs(os.path.join(BUILD, "web"), exist_ok=True)
    return os.path.join(BUILD, "web", "neighbor-page.png")


def expected_rows(lab, listener):
    """What the lab's scenario says `listener` must list: each AP it hears, with its radios."""
    rows = {}
    for hear in lab.scenario["hears"]:
        if hear["ap"] != listener.name:
            continue
        heard = lab[hear["hears"]]
        row = rows.setdefault(heard.mac, {
            "name": heard.config["hostname"], "version": heard.config["version"],
            "ip": heard.ip4, "ip6": heard.ip6, "radios": {}})
        row["radios"][hear["radio"]] = (hear["channel"], hear["rssi"])
    return rows


def shown_rows(page):
    return {row["mac"]: {"name": row["name"], "version": row["version"], "ip": row["ip"],
                         "ip6": row["ip6"],
                         "radios": {r["index"]: (r["channel"], r["rssi"]) for r in row["radios"]}}
            for row in page["rows"]}


def test_page_matches_the_lab_and_tarn_info_and_drops_a_lost_ap(make_lab):
    lab = make_lab(4)
    lab.wait_discovered(timeout=90)
    ap1 = lab["ap1"]
    with PageServer(ap1) as server, browser(ap1.netns, width=1240, height=640) as driver:
        open_page(driver, server)
        want = expected_rows(lab, ap1)
        assert set(want) == {lab["ap2"].mac, lab["ap3"].mac, lab["ap4"].mac}
        page = wait_rows(driver, lambda p: shown_rows(p) == want, "the lab's ground truth")

        info = {n["mac"]: n for n in tarn_info(ap1)["neighbors"]}
        assert set(info) == set(want)
        for row in page["rows"]:
            entry = info[row["mac"]]
            assert (row["name"], row["version"], row["ip"], row["ip6"]) == \
                (entry["name"], entry["version"], entry["ip"], entry["ip6"])
            assert row["radios"] == [{key: radio[key] for key in ("index", "channel", "rssi",
                                                                   "txpower")}
                                     for radio in entry["radios"]]
            assert row["source"] == "learned" and not row["unanswered"]
        assert page["channels"] == {"6": 3, "36": 3}
        assert page["notice"] is None and page["hint"] is None and page["foreign"] == 0
        driver.save_screenshot(screenshot_path())

        ap1.drop(lab["ap4"])
        page = wait_rows(driver, lambda p: {r["mac"] for r in p["rows"]} ==
                         {lab["ap2"].mac, lab["ap3"].mac}, "ap4's row gone")
        assert page["channels"] == {"6": 2, "36": 2}


def test_daemon_stop_shows_the_notice_and_the_cgi_answers_an_error(make_lab):
    lab = make_lab(2)
    lab.wait_discovered(timeout=60)
    ap1, ap2 = lab["ap1"], lab["ap2"]
    with PageServer(ap1) as server, browser(ap1.netns) as driver:
        open_page(driver, server)
        wait_rows(driver, lambda p: answered_macs(p) == {ap2.mac}, "ap2's row")

        ap1.stop_daemon()
        page = wait_rows(driver, lambda p: p["notice"] is not None, "the notice")
        assert "not answering" in page["notice"] and page["rows"] == []

        # The thread is in ap1's namespace while the browser runs: the CGI is reached as the
        # page reaches it.
        status, content_type, body = fetch(server.url(CGI_PATH))
        assert status == 503 and content_type == "application/json"
        assert list(body) == ["error"] and body["error"].startswith("tarn-info: ")

        ap1.start_daemon()
        wait_rows(driver, lambda p: p["notice"] is None and answered_macs(p) == {ap2.mac},
                  "ap2's row after the restart", timeout=90)
        status, content_type, body = fetch(server.url(CGI_PATH))
        assert status == 200 and content_type == "application/json" and body["schema"] == 1


def ndsp(mac, name, version=b"6.6.6", tenant=b"t-hostile"):
    """A hand-made answer (nbcp type 11) describing the AP `mac` with exact name bytes."""
    def element(kind, value):
        return struct.pack(">HH", kind, len(value)) + value
    mac_bytes = bytes.fromhex(mac.replace(":", ""))
    return b"".join([
        bytes([0, 0, 0, 11]) + bytes(6),
        element(0x86, b"\x01"), element(0x87, b"\x00"),
        element(0x88, socket.inet_aton("10.99.0.12")), element(0x89, mac_bytes),
        element(0x8C, b"\x00"), element(0x9A, tenant), element(0x8D, version),
        element(0x8E, name), element(0x8F, b"\x02"),
        element(0x91, b"\x00"), element(0x90, b"\x00"),
        element(0x91, b"\x01"), element(0x90, b"\x00"),
        b"\x00\x00"])


def test_hostile_name_appears_literally(make_lab):
    lab = make_lab(2)
    lab.wait_discovered(timeout=60)
    ap1, ap2 = lab["ap1"], lab["ap2"]
    # ap2 falls silent; an answer in its name, from its nbcp port, renames it in ap1's table.
    ap2.stop_daemon()
    with udp_socket_in(ap2) as sock:
        sock.sendto(ndsp(ap2.mac, HOSTILE.encode()), (ap1.ip4, NBCP_PORT))
    wait_for(lambda: any(n["mac"] == ap2.mac and n["name"] == HOSTILE
                         for n in tarn_info(ap1)["neighbors"]), timeout=20,
             what="the hostile name in tarn-info's answer")

    with PageServer(ap1) as server, browser(ap1.netns) as driver:
        open_page(driver, server)
        page = wait_rows(driver, lambda p: [r["name"] for r in p["rows"]] == [HOSTILE],
                         "the hostile name")
        assert page["foreign"] == 0
        assert driver.execute_script(
            "return document.querySelector('.tarn-name').childNodes[0].nodeType") == 3
        from selenium.common.exceptions import NoAlertPresentException
        with pytest.raises(NoAlertPresentException):
            driver.switch_to.alert.text
