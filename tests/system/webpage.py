"""Helpers of the page tests: headless Chromium (Debian's chromium, chromium-driver and
python3-selenium), optionally inside a lab AP's network namespace, and what the page shows."""

import contextlib
import tempfile

import pytest

from tarnlab import nsutil
from tarnsys import wait_for

HOSTILE = "<img src=x onerror=alert(1)>\n"


@contextlib.contextmanager
def browser(netns=None, width=1400, height=900):
    """A headless Chromium session; with `netns` the driver and the browser run in that
    network namespace (the thread stays there until the session ends)."""
    pytest.importorskip("selenium", reason="python3-selenium is not installed "
                        "(scripts/install-deps.sh installs it)")
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service

    options = webdriver.ChromeOptions()
    profiles = tempfile.TemporaryDirectory(prefix="tarn-chromium-", ignore_cleanup_errors=True)
    with profiles as profile, nsutil.netns_entered(netns) if netns else contextlib.nullcontext():
        for arg in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                    "--disable-extensions", f"--user-data-dir={profile}",
                    f"--window-size={width},{height}"):
            options.add_argument(arg)
        driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        driver.set_script_timeout(30)
        try:
            yield driver
        finally:
            driver.quit()


def wait_until(driver, script, what, *args, timeout=30.0):
    """The first truthy value of a page expression (JavaScript returning a value)."""
    return wait_for(lambda: driver.execute_script(script, *args), timeout, what)


# What the page shows, read in one call: one entry per table row, the channel counts, the
# notice and whether the page holds any element the network could have made.
READ_PAGE = """
const root = document.getElementById('tarn-neighbors');
const rows = [...root.querySelectorAll('tr.tarn-neighbor')].map(tr => Object.assign(
  Object.fromEntries([...tr.cells].map(td => [td.className.replace('tarn-', ''), td.textContent])),
  { mac: tr.dataset.mac, name: tr.querySelector('.tarn-name').firstChild.textContent,
    unanswered: tr.classList.contains('tarn-unanswered'),
    marked: tr.querySelector('.tarn-unanswered-mark') !== null,
    radios: [...tr.querySelectorAll('.tarn-radio')].map(r => Object.fromEntries(
      ['index', 'channel', 'rssi', 'txpower'].map(key => [key, Number(r.dataset[key])]))),
    buttons: [...tr.querySelectorAll('button')].map(b => b.textContent) }));
const text = selector => root.querySelector(selector)?.textContent ?? null;
return {
  rows: rows, notice: text('.tarn-notice'), hint: text('.tarn-hint'),
  channels: Object.fromEntries([...root.querySelectorAll('tr.tarn-channel')].map(
    tr => [tr.dataset.channel, Number(tr.dataset.count)])),
  empty: root.querySelector('tr.tarn-empty') !== null,
  foreign: document.querySelectorAll('img, iframe, object, embed, svg, script:not([src])').length,
  pollSeconds: Number(root.dataset.pollSeconds)
};
"""


def read_page(driver):
    return driver.execute_script(READ_PAGE)


def load(driver, url):
    """What the standalone page at `url` shows once its first refresh is done."""
    driver.get(url)
    wait_until(driver, "const r = document.getElementById('tarn-neighbors');"
               "return r && Number(r.dataset.refreshes) >= 1", "first refresh")
    return read_page(driver)
