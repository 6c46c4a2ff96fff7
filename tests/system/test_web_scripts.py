"""The page's CGI and the rpcd plugin as processes, under the AP's shell (busybox ash), with a
stand-in tarn-info whose output and exit status each row chooses: the reply's status, type and
JSON for every way tarn-info can end, its message escaped whatever it holds."""

import json
import os
import subprocess

import pytest

from tarnlab.web import REPO, WWW_TREE

CGI = os.path.join(WWW_TREE, "cgi-bin", "tarn-neighbors")
PLUGIN = os.path.join(REPO, "openwrt", "luci-app-tarn", "root", "usr", "libexec", "rpcd",
                      "luci.tarn")
TABLE = '{"schema":1,"neighbors":[]}'
NASTY = 'tarn-info: "quoted" \\ back\tslash\x01 </script>'


@pytest.fixture
def stand_in(tmp_path):
    """Writes a tarn-info that prints `stdout`/`stderr` and exits `status`; returns a PATH
    holding it and busybox's tools only."""
    bin_dir = tmp_path / "bin"
    bin_dir.mkdir()
    for tool in ("head", "tr", "sed", "mktemp", "rm", "cat"):
        os.symlink("/bin/busybox", bin_dir / tool)

    def make(stdout="", stderr="", status=0, present=True):
        if present:
            script = bin_dir / "tarn-info"
            script.write_text("#!/bin/busybox sh\n"
                              f"printf '%s' {shell_quote(stdout)}\n"
                              f"printf '%s' {shell_quote(stderr)} >&2\n"
                              f"exit {status}\n")
            script.chmod(0o755)
        return str(bin_dir)
    return make


def shell_quote(text):
    return "'" + text.replace("'", "'\\''") + "'"


def run(script, path, *args, method="GET"):
    env = {"PATH": path, "REQUEST_METHOD": method, "TMPDIR": "/tmp"}
    # Bytes, decoded here: text mode would turn the CGI's CRLF into LF.
    result = subprocess.run(["/bin/busybox", "sh", script, *args], env=env, capture_output=True,
                            timeout=30, stdin=subprocess.DEVNULL)
    return subprocess.CompletedProcess(result.args, result.returncode,
                                       result.stdout.decode(), result.stderr.decode())


def cgi_reply(text):
    head, _, body = text.partition("\r\n\r\n")
    headers = dict(line.split(": ", 1) for line in head.split("\r\n"))
    return headers, body


@pytest.mark.parametrize("stdout, stderr, status, present, method, code, error", [
    (TABLE, "", 0, True, "GET", "200 OK", None),
    ("", NASTY + "\nsecond line", 1, True, "GET", "503 Service Unavailable",
     'tarn-info: "quoted" \\ backslash </script>'),
    ("", "", 1, True, "GET", "503 Service Unavailable", "tarn-info: exited with status 1"),
    ("", "usage: tarn-info ...", 2, True, "GET", "500 Internal Server Error",
     "usage: tarn-info ..."),
    ("", "", 0, False, "GET", "500 Internal Server Error", None),  # no tarn-info at all
    (TABLE, "", 0, True, "POST", "405 Method Not Allowed", "only GET is answered"),
])
def test_cgi_reply(stand_in, stdout, stderr, status, present, method, code, error):
    result = run(CGI, stand_in(stdout, stderr, status, present), method=method)
    assert result.returncode == 0, result.stderr
    headers, body = cgi_reply(result.stdout)
    assert headers["Status"] == code
    assert headers["Content-Type"] == "application/json"
    reply = json.loads(body)
    if code == "200 OK":
        assert body == TABLE + "\n"
    elif error is None:
        assert list(reply) == ["error"] and reply["error"]
    else:
        assert reply == {"error": error}


@pytest.mark.parametrize("stdout, stderr, status, reply", [
    (TABLE, "", 0, json.loads(TABLE)),
    ("", NASTY, 1, {"error": 'tarn-info: "quoted" \\ backslash </script>'}),
    ("", "", 3, {"error": "tarn-info: exited with status 3"}),
])
def test_plugin_call_reply(stand_in, stdout, stderr, status, reply):
    result = run(PLUGIN, stand_in(stdout, stderr, status), "call", "getNeighbors")
    assert result.returncode == 0, result.stderr
    assert json.loads(result.stdout) == reply


def test_plugin_usage(stand_in):
    result = run(PLUGIN, stand_in(), "frobnicate")
    assert result.returncode == 2 and result.stdout == "" and "usage" in result.stderr
