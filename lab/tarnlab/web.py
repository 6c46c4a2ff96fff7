"""The neighbor page served from a lab AP, as an AP without LuCI serves it: the www tree of
openwrt/tarn-www (with its copy of the shared view module) under busybox httpd, run inside the
AP's namespaces so that its CGI's tarn-info talks to that AP's daemon."""

import os
import shutil
import socket
import subprocess
import time

from . import nsutil
from .nsutil import LabError

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
WWW_TREE = os.path.join(REPO, "openwrt", "tarn-www", "files", "www")
VIEW_MODULE = os.path.join(REPO, "openwrt", "luci-app-tarn", "htdocs", "luci-static",
                           "resources", "tarn-neighbors.js")
PAGE_PATH = "/tarn/index.html"
CGI_PATH = "/cgi-bin/tarn-neighbors"
DEFAULT_PORT = 8080


def assemble(dest, extra=None):
    """Lays out the AP's /www as the tarn-www package installs it into `dest`; `extra` maps
    paths under it to further files to copy there (test pages)."""
    if os.path.exists(dest):
        shutil.rmtree(dest)
    shutil.copytree(WWW_TREE, dest)
    shutil.copy(VIEW_MODULE, os.path.join(dest, "tarn", "tarn-neighbors.js"))
    for inside, source in (extra or {}).items():
        target = os.path.join(dest, inside.lstrip("/"))
        os.makedirs(os.path.dirname(target), exist_ok=True)
        shutil.copy(source, target)
    return dest


class PageServer:
    """busybox httpd serving the page on one AP's uplink address."""

    def __init__(self, ap, port=DEFAULT_PORT, extra=None):
        if not ap.ip4:
            raise LabError(f"{ap.name} has no IPv4 address to serve the page on")
        self.ap = ap
        self.port = port
        self.root = assemble(os.path.join(ap.dir, "www"), extra)
        self.proc = None

    @property
    def base_url(self):
        return f"http://{self.ap.ip4}:{self.port}"

    def url(self, path=PAGE_PATH):
        return self.base_url + path

    def start(self, timeout=10.0, detach=False):
        with open(os.path.join(self.ap.dir, "httpd.log"), "ab") as log:
            self.proc = self.ap.popen(["busybox", "httpd", "-f", "-vv", "-p",
                                       f"{self.ap.ip4}:{self.port}", "-h", self.root],
                                      stdout=log, stderr=subprocess.STDOUT,
                                      start_new_session=detach)
        deadline = time.monotonic() + timeout
        while not self._listening():
            if self.proc.poll() is not None or time.monotonic() > deadline:
                self.stop()
                raise LabError(f"{self.ap.name}: busybox httpd did not listen on port "
                               f"{self.port}; see {os.path.join(self.ap.dir, 'httpd.log')}")
            time.sleep(0.05)
        return self

    def _listening(self):
        with nsutil.netns_entered(self.ap.netns):
            probe = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        with probe:
            probe.settimeout(1.0)
            return probe.connect_ex((self.ap.ip4, self.port)) == 0

    def stop(self):
        if self.proc is not None and self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(timeout=5)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.proc = None

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()
