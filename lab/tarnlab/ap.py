"""One virtual AP of a lab: running commands and the daemon inside it, its logs, its
platform answers and its driver simulator."""

import contextlib
import json
import os
import re
import resource
import signal
import subprocess
import time

from . import nsutil, show, simulator, standins
from .scenario import DEFAULT_LOG_LIMIT
from .nsutil import LabError

SYSTEM_PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
TARN_SOCKET = "/tmp/socket/tarn_socket"


class Ap:
    """One virtual AP of a running lab."""

    def __init__(self, lab, config):
        self.lab = lab
        self.config = config
        self.name = config["name"]
        self.netns = lab.netns_for(self.name)
        self.dir = os.path.join(lab.state_dir, self.name)
        self.holder_pid = None
        self.daemon_pid = None
        self.sim_pid = None
        self.daemon = None  # Popen, when the daemon was started by this process
        self.sim = None

    # ----- paths and state ----------------------------------------------------------------

    def path(self, inside):
        """Host path of a file inside the AP's private mounts (e.g. /tmp/pvc-info)."""
        if self.holder_pid is None:
            raise LabError(f"{self.name} has no mount namespace")
        return f"/proc/{self.holder_pid}/root{inside}"

    @property
    def bin_dir(self):
        return os.path.join(self.dir, "bin")

    @property
    def log_path(self):
        return os.path.join(self.dir, "tarn.log")

    @property
    def record_path(self):
        return os.path.join(self.dir, "driver.jsonl")

    @property
    def control_path(self):
        return os.path.join(self.dir, "sim.sock")

    @property
    def mac(self):
        return self.config["mac"]

    @property
    def ip4(self):
        return self.config["ip4"]

    @property
    def ip6(self):
        return self.config["ip6"]

    def env(self, extra=None):
        env = {"PATH": f"{self.bin_dir}:{self.lab.build_dir}:{SYSTEM_PATH}",
               "HOME": "/root", "LANG": "C", "LC_ALL": "C", "TERM": os.environ.get("TERM",
                                                                                  "dumb")}
        env.update(extra or {})
        return env

    def to_state(self):
        return {"name": self.name, "netns": self.netns, "dir": self.dir,
                "holder_pid": self.holder_pid, "daemon_pid": self.daemon_pid,
                "sim_pid": self.sim_pid, "config": self.config}

    # ----- running things inside ----------------------------------------------------------

    def popen(self, argv, env=None, **kwargs):
        """Starts `argv` inside the AP (network and mount namespaces) with the AP's PATH."""
        kwargs.setdefault("stdin", subprocess.DEVNULL)
        return nsutil.spawn(nsutil.nsenter_argv(self.holder_pid) + ["env", "-i"] +
                            [f"{key}={value}" for key, value in self.env(env).items()] +
                            list(argv), **kwargs)

    def exec(self, argv, timeout=30, env=None, check=False, input_text=None):
        """Runs a command inside the AP and returns its CompletedProcess (text output)."""
        proc = self.popen(argv, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          stdin=subprocess.PIPE if input_text is not None else
                          subprocess.DEVNULL, text=True)
        try:
            out, err = proc.communicate(input_text, timeout=timeout)
        except subprocess.TimeoutExpired:
            proc.kill()
            out, err = proc.communicate()
            raise LabError(f"{self.name}: {' '.join(argv)} did not end within {timeout}s\n"
                           f"{out}{err}")
        nsutil.reap()
        result = subprocess.CompletedProcess(argv, proc.returncode, out, err)
        if check and proc.returncode != 0:
            raise LabError(f"{self.name}: {' '.join(argv)} exited {proc.returncode}\n{err}")
        return result

    def tarn(self, *args, timeout=30):
        """Runs the tarn client inside the AP (e.g. ap.tarn("show", "neighbor"))."""
        return self.exec([self.lab.tarn_binary] + list(args), timeout=timeout)

    @property
    def bus_command(self):
        """The embedded bus's command, `tarn-bus` of the build (the stand-in `ubus` on PATH
        answers the daemon's own platform calls)."""
        return os.path.join(self.lab.build_dir, "tarn-bus")

    def bus(self, method, payload=None, timeout=30):
        """Runs `tarn-bus call tarn METHOD [JSON]` inside the AP."""
        argv = [self.bus_command, "call", "tarn", method]
        if payload is not None:
            argv.append(payload if isinstance(payload, str) else json.dumps(payload))
        return self.exec(argv, timeout=timeout)

    def show(self):
        """The AP's neighbor table as parsed from `tarn show neighbor`."""
        result = self.tarn("show", "neighbor")
        return show.parse_radio_table(result.stdout)

    def write_file(self, inside, text):
        with open(self.path(inside), "w", encoding="utf-8") as handle:
            handle.write(text)

    def read_file(self, inside):
        with open(self.path(inside), encoding="utf-8", errors="replace") as handle:
            return handle.read()

    # ----- daemon -------------------------------------------------------------------------

    def start_daemon(self, args=None, env=None, driver_port="config", wait=True,
                     timeout=10.0, record=True, stdout=None):
        """Starts tarn in the AP with its log in tarn.log (at most the scenario's log_limit
        bytes: the first ones). `driver_port` None leaves TARN_DRIVER_PORT unset (the daemon
        then looks for the real driver protocol). `record` False leaves lab.json to the
        caller, who starts many. `stdout` (a descriptor) takes the daemon's standard output
        away from the log."""
        if self.daemon is not None and self.daemon.poll() is None:
            raise LabError(f"{self.name}: the daemon is already running")
        args = self.config["daemon_args"] if args is None else list(args)
        extra = {"TARN_LOG_STDERR": "1"}
        if driver_port == "config":
            driver_port = self.config["driver_port"]
        if driver_port is not None:
            extra["TARN_DRIVER_PORT"] = str(driver_port)
        extra.update(env or {})
        self.log_mark()
        with open(self.log_path, "ab") as log:
            self.daemon = self.popen([self.lab.tarn_binary] + args, env=extra,
                                     stdout=log if stdout is None else stdout,
                                     stderr=log if stdout is not None else subprocess.STDOUT,
                                     start_new_session=True, preexec_fn=self._bounded_files)
        self.daemon_pid = self.daemon.pid
        if record:
            self.lab.save()
        if wait:
            self.wait_daemon_ready(timeout)
        return self.daemon

    @property
    def log_limit(self):
        return self.lab.scenario.get("log_limit", DEFAULT_LOG_LIMIT)

    def _bounded_files(self):
        """In the daemon's child, before exec: no file it (or a command it runs) writes grows
        past log_limit. A write past it fails instead of ending the process: SIGXFSZ ignored,
        as ignored signals stay ignored across exec."""
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (self.log_limit, self.log_limit))

    def wait_daemon_ready(self, timeout=10.0):
        """Waits until the daemon has bound its local socket; fails if it exits first."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if not self.daemon_running():
                raise LabError(f"{self.name}: tarn exited "
                               f"({self.daemon_status()}) during start-up\n"
                               f"{self.log_tail()}")
            if os.path.exists(self.path(TARN_SOCKET)):
                return
            time.sleep(0.05)
        raise LabError(f"{self.name}: tarn did not create {TARN_SOCKET} within {timeout}s\n"
                       f"{self.log_tail()}")

    def daemon_running(self):
        if self.daemon is not None:
            return self.daemon.poll() is None
        return self.daemon_pid is not None and nsutil.pid_alive(self.daemon_pid)

    def daemon_status(self):
        if self.daemon is not None and self.daemon.poll() is not None:
            code = self.daemon.returncode
            return f"signal {-code}" if code < 0 else f"status {code}"
        return "running" if self.daemon_running() else "gone"

    def stop_daemon(self, sig=signal.SIGTERM, timeout=5.0):
        """Signals the daemon and waits for it; returns its exit code (None when it was not
        started by this process). Kills it when it does not end in time."""
        if self.daemon is None:
            if self.daemon_pid:
                nsutil.kill_pids([self.daemon_pid])
            self.daemon_pid = None
            return None
        if self.daemon.poll() is None:
            with contextlib.suppress(ProcessLookupError):
                self.daemon.send_signal(signal.SIGCONT)
                self.daemon.send_signal(sig)
            try:
                self.daemon.wait(timeout)
            except subprocess.TimeoutExpired:
                self.daemon.kill()
                self.daemon.wait()
        nsutil.reap()
        return self.daemon.returncode

    # ----- logs ---------------------------------------------------------------------------

    def log_text(self):
        try:
            with open(self.log_path, encoding="utf-8", errors="replace") as log:
                return log.read()
        except FileNotFoundError:
            return ""

    def log_mark(self):
        """Current end of the daemon log, for waiting on what comes after it."""
        try:
            self._mark = os.path.getsize(self.log_path)
        except FileNotFoundError:
            self._mark = 0
        return self._mark

    def log_since(self, mark=None):
        mark = getattr(self, "_mark", 0) if mark is None else mark
        return self.log_text().encode()[mark:].decode(errors="replace")

    def log_tail(self, lines=30):
        return "\n".join(self.log_text().splitlines()[-lines:])

    def wait_log(self, pattern, timeout=10.0, since=None):
        """Waits until the daemon log (after `since`, default: the start of the current
        daemon) matches the regular expression; returns the match."""
        regex = re.compile(pattern)
        deadline = time.monotonic() + timeout
        while True:
            ended = self.daemon is not None and self.daemon.poll() is not None
            match = regex.search(self.log_since(since))
            if match:
                return match
            if ended:
                raise LabError(f"{self.name}: tarn ended ({self.daemon_status()}) without a "
                               f"log line matching {pattern!r}; log ends with:\n"
                               f"{self.log_tail()}")
            if time.monotonic() > deadline:
                raise LabError(f"{self.name}: no log line matching {pattern!r} within "
                               f"{timeout}s; log ends with:\n{self.log_tail()}")
            time.sleep(0.05)

    def calls(self):
        """Stand-in calls recorded so far: (time, command line) pairs."""
        return standins.read_calls(self.dir)

    def set_value(self, key, value):
        """Changes a platform answer: qv_ip, version, uplink, mode, mac, or a uci key."""
        if key in standins.VALUE_COMMANDS or key == "mac":
            standins.set_value(self.dir, key, value)
        else:
            standins.set_uci(self.dir, key, value)

    def uci(self):
        return standins.read_uci(self.dir)

    # ----- driver simulator ---------------------------------------------------------------

    def driver_record(self, direction=None):
        """Messages the simulator exchanged with the daemon ("rx": from the daemon)."""
        entries = simulator.read_record(self.record_path)
        return [e for e in entries if direction is None or e.get("dir") == direction]

    def sim_command(self, request):
        reply = simulator.control(self.control_path, request)
        if not reply.get("ok"):
            raise LabError(f"{self.name}: simulator refused {request}: {reply}")
        return reply

    def hear(self, other, **radio):
        """Makes this AP's driver hear `other` (an Ap, or a dict with mac/ip/ip6)."""
        entry = self.lab.heard_entry(other, radio)
        return self.sim_command({"cmd": "hear", "entries": [entry]})

    def unhear(self, other):
        return self.sim_command({"cmd": "unhear", "mac": self.lab.mac_of(other)})

    def drop(self, other):
        return self.sim_command({"cmd": "drop", "mac": self.lab.mac_of(other)})
