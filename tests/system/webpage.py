"""Helpers of the page tests: headless Chromium (Debian's chromium, chromium-driver and
python3-selenium), optionally inside a lab AP's network namespace, and a local server that
serves the page's files with a chosen answer in place of the CGI."""

import contextlib
import http.server
import json
import os
import shutil
import tempfile
import threading
import time

from tarnlab import nsutil, web

CHROMEDRIVER = "/usr/bin/chromedriver"
HARNESS_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "web")
LUCI_RESOURCES = os.path.join(web.REPO, "openwrt", "luci-app-tarn", "htdocs", "luci-static",
                              "resources")
# The LuCI harness and the files LuCI's loader would fetch, as the test server lays them out.
LUCI_FILES = {
    "/luci-harness.html": os.path.join(HARNESS_DIR, "luci-harness.html"),
    "/luci-harness.js": os.path.join(HARNESS_DIR, "luci-harness.js"),
    "/luci-static/resources/tarn-neighbors.js": os.path.join(LUCI_RESOURCES,
                                                             "tarn-neighbors.js"),
    "/luci-static/resources/view/tarn/neighbors.js": os.path.join(LUCI_RESOURCES, "view",
                                                                  "tarn", "neighbors.js"),
}


def selenium_or_skip():
    import pytest
    return pytest.importorskip("selenium", reason="python3-selenium is not installed "
                               "(scripts/install-deps.sh installs it)")


@contextlib.contextmanager
def browser(netns=None, width=1400, height=900):
    """A headless Chromium session; with `netns` the driver and the browser run in that
    network namespace (the thread stays there until the session ends)."""
    selenium_or_skip()
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service

    profile = tempfile.mkdtemp(prefix="tarn-chromium-")
    options = webdriver.ChromeOptions()
    for arg in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                "--disable-extensions", f"--user-data-dir={profile}",
                f"--window-size={width},{height}"):
        options.add_argument(arg)
    entered = nsutil.netns_entered(netns) if netns else contextlib.nullcontext()
    try:
        with entered:
            driver = webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)
            driver.set_script_timeout(30)
            try:
                yield driver
            finally:
                driver.quit()
    finally:
        shutil.rmtree(profile, ignore_errors=True)


def wait_until(driver, script, timeout=30.0, what=None, *args):
    """The first truthy value of a page expression (JavaScript returning a value)."""
    deadline = time.monotonic() + timeout
    while True:
        value = driver.execute_script(script, *args)
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"{what or script} not reached within {timeout} s")
        time.sleep(0.2)


# What the page shows, read in one call: one entry per table row, the channel counts, the
# notice and whether the page holds any element the network could have made.
READ_PAGE = """
const root = document.getElementById('tarn-neighbors');
const rows = [...root.querySelectorAll('tr.tarn-neighbor')].map(tr => ({
  mac: tr.dataset.mac,
  name: tr.querySelector('.tarn-name').firstChild.textContent,
  ip: tr.querySelector('.tarn-ip').textContent,
  ip6: tr.querySelector('.tarn-ip6').textContent,
  version: tr.querySelector('.tarn-version').textContent,
  state: tr.querySelector('.tarn-state').textContent,
  source: tr.querySelector('.tarn-source').textContent,
  unanswered: tr.classList.contains('tarn-unanswered'),
  marked: tr.querySelector('.tarn-unanswered-mark') !== null,
  radios: [...tr.querySelectorAll('.tarn-radio')].map(r => ({
    index: Number(r.dataset.index), channel: Number(r.dataset.channel),
    rssi: Number(r.dataset.rssi), txpower: Number(r.dataset.txpower)})),
  buttons: [...tr.querySelectorAll('button')].map(b => b.textContent)
}));
const channels = {};
for (const tr of root.querySelectorAll('tr.tarn-channel'))
  channels[tr.dataset.channel] = Number(tr.dataset.count);
const notice = root.querySelector('.tarn-notice');
const hint = root.querySelector('.tarn-hint');
return {
  rows: rows, channels: channels,
  notice: notice ? notice.textContent : null,
  hint: hint ? hint.textContent : null,
  empty: root.querySelector('tr.tarn-empty') !== null,
  foreign: document.querySelectorAll('img, iframe, object, embed, svg, script:not([src])').length,
  pollSeconds: Number(root.dataset.pollSeconds),
  refreshes: Number(root.dataset.refreshes || 0)
};
"""


def read_page(driver):
    return driver.execute_script(READ_PAGE)


class FixtureServer:
    """The page's files on 127.0.0.1, with `answer` (status, body) in place of the CGI."""

    def __init__(self, extra=None):
        self.root = web.assemble(tempfile.mkdtemp(prefix="tarn-www-"), extra)
        self.answer = (503, json.dumps({"error": "tarn-info: no answer from the daemon"}))
        server = self

        class Handler(http.server.SimpleHTTPRequestHandler):
            def __init__(self, *args, **kwargs):
                super().__init__(*args, directory=server.root, **kwargs)

            def do_GET(self):
                if self.path.split("?")[0] != web.CGI_PATH:
                    return super().do_GET()
                status, body = server.answer
                data = body.encode() if isinstance(body, str) else body
                self.send_response(status)
                self.send_header("Content-Type", "application/json")
                self.send_header("Content-Length", str(len(data)))
                self.end_headers()
                self.wfile.write(data)
                return None

            def log_message(self, *args):
                pass

        self.httpd = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.thread = threading.Thread(target=self.httpd.serve_forever, daemon=True)

    def url(self, path):
        return f"http://127.0.0.1:{self.httpd.server_address[1]}{path}"

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *exc):
        self.httpd.shutdown()
        self.httpd.server_close()
        shutil.rmtree(self.root, ignore_errors=True)
