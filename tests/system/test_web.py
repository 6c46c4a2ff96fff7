"""The standalone neighbor page against one running 4-AP lab: ap1 serves it (busybox httpd, its
CGI running tarn-info) and headless Chromium inside ap1's network namespace reads it, as an
operator's browser would on the management network. The tests share the lab and change it in
file order: ap4 is dropped, ap1's daemon stopped and restarted, ap2 silenced and renamed. What
each field shows, and every error reply, is tested against made answers (test_web_view.py,
test_web_scripts.py); here the real processes are wired together."""

import json
import os

import pytest

from conftest import unique_lab_name
from tarnlab import lab as labmod
from tarnlab.web import CGI_PATH, REPO, PageServer
from tarnsys import NBCP_PORT, ndsp, udp_socket_in, wait_for
from webpage import HOSTILE, browser, load, read_page

POLL = 5
# One refresh, plus the age tarn-info's shared answer may have, plus room for a loaded machine.
REFRESH_WAIT = POLL + 5 + 25
BUILD = os.environ.get("TARN_BUILD_DIR", os.path.join(REPO, "build"))
PLUGIN = os.path.join(REPO, "openwrt", "luci-app-tarn", "root", "usr", "libexec", "rpcd",
                      "luci.tarn")


@pytest.fixture(scope="module")
def lab():
    if not os.access(os.path.join(BUILD, "tarn-info"), os.X_OK):
        pytest.fail(f"no tarn-info in {BUILD}: build first")
    lab = labmod.Lab({"count": 4, "debug": True}, name=unique_lab_name(), owner_pid=os.getpid())
    try:
        lab.up()
        lab.wait_discovered(timeout=90)
        yield lab
    finally:
        lab.down()


@pytest.fixture(scope="module")
def driver(lab):
    """Chromium in ap1's namespace, showing ap1's page."""
    with PageServer(lab["ap1"]) as server, \
            browser(lab["ap1"].netns, width=1240, height=640) as driver:
        assert load(driver, server.url() + f"?interval={POLL}")["pollSeconds"] == POLL
        yield driver


def wait_rows(driver, predicate, what, timeout=REFRESH_WAIT):
    """The page as read once `predicate(page)` holds; what it shows if it never does."""
    seen = [None]

    def check():
        seen[0] = read_page(driver)
        return predicate(seen[0])

    try:
        wait_for(check, timeout, what)
    except AssertionError as err:
        raise AssertionError(f"{err}; the page shows {json.dumps(seen[0], indent=1)}") from None
    return seen[0]


def answered_macs(page):
    return {row["mac"] for row in page["rows"] if not row["unanswered"]}


def run(ap, *command):
    """(exit status, parsed standard output) of a command run in the AP."""
    result = ap.exec(list(command), input_text="{}", timeout=30)
    return result.returncode, json.loads(result.stdout or "null")


def summary(entries):
    """Page rows or tarn-info entries by MAC, keyed alike."""
    return {entry["mac"]: (entry["name"], entry["version"], entry["ip"], entry["ip6"],
                           [(r["index"], r["channel"], r["rssi"], r["txpower"])
                            for r in entry["radios"]])
            for entry in entries}


def test_page_shows_tarn_info_s_table_as_the_plugin_does_and_drops_a_lost_ap(lab, driver):
    ap1, ap4 = lab["ap1"], lab["ap4"]
    heard = {lab[hear["hears"]].mac for hear in lab.scenario["hears"] if hear["ap"] == "ap1"}
    assert heard == {lab["ap2"].mac, lab["ap3"].mac, ap4.mac}
    shown = wait_rows(driver, lambda p: answered_macs(p) == heard, "every heard AP answered")
    status, info = run(ap1, "tarn-info", "--json")
    assert status == 0 and summary(shown["rows"]) == summary(info["neighbors"])
    assert (shown["notice"], shown["hint"], shown["foreign"]) == (None, None, 0)
    # Both read the same shared answer (at most 5 s old), so they agree field for field.
    assert run(ap1, "/bin/sh", PLUGIN, "call", "getNeighbors") == (0, info)
    os.makedirs(os.path.join(BUILD, "web"), exist_ok=True)
    driver.save_screenshot(os.path.join(BUILD, "web", "neighbor-page.png"))

    ap1.drop(ap4)
    shown = wait_rows(driver, lambda p: {row["mac"] for row in p["rows"]} == heard - {ap4.mac},
                      "ap4's row gone")
    assert shown["channels"] == {"6": 2, "36": 2}


def test_daemon_stop_shows_the_notice_and_the_cgi_s_503_until_the_restart(lab, driver):
    ap1 = lab["ap1"]
    listed = answered_macs(read_page(driver))
    assert listed
    ap1.stop_daemon()
    try:
        shown = wait_rows(driver, lambda p: p["notice"] is not None, "the notice")
        assert "not answering" in shown["notice"] and shown["rows"] == []
        status, content_type, body = driver.execute_async_script(
            "fetch(arguments[0]).then(r => r.json().then(body => arguments[1]("
            "[r.status, r.headers.get('Content-Type'), body])))", CGI_PATH)
        assert (status, content_type) == (503, "application/json")
        assert list(body) == ["error"] and body["error"].startswith("tarn-info: ")
    finally:
        ap1.start_daemon()
    wait_rows(driver, lambda p: p["notice"] is None and answered_macs(p) == listed,
              "the rows after the restart", timeout=90)


def test_hostile_name_appears_literally(lab, driver):
    ap1, ap2 = lab["ap1"], lab["ap2"]
    # ap2 falls silent; an answer in its name, from its nbcp port, renames it in ap1's table.
    ap2.stop_daemon()
    with udp_socket_in(ap2) as sock:
        sock.sendto(ndsp(ap2.mac, HOSTILE.encode(), b"6.6.6", b"t-hostile", radios=2),
                    (ap1.ip4, NBCP_PORT))
    shown = wait_rows(driver, lambda p: any(row["mac"] == ap2.mac and row["name"] == HOSTILE
                                            for row in p["rows"]), "the hostile name",
                      timeout=REFRESH_WAIT + 20)
    assert shown["foreign"] == 0
    from selenium.common.exceptions import NoAlertPresentException
    with pytest.raises(NoAlertPresentException):
        driver.switch_to.alert.text
