"""Virtual APs for tarn: network namespaces on a shared bridge, each with its own mounts,
platform stand-ins, a driver simulator and a daemon.

Layout of a lab called NAME with APs ap1..apN:
  netns tarnlab-NAME-br       holds the bridge br0 and one veth port per AP (named like the AP)
  netns tarnlab-NAME-apK      the AP: uplink veth (IPv4 and IPv6), athNN and wifiN links
  holder process per AP       owns the AP's mount namespace (tmpfs on /tmp and /var/config,
                              a sysfs showing the AP's links); everything in the AP runs
                              through `nsenter -t HOLDER -m -n`
  /run/tarn-lab/NAME/         lab.json (the state), and per AP a directory with the stand-ins
                              (bin/), their answers and call log, the daemon's log (tarn.log),
                              the simulator's record (driver.jsonl) and control socket (sim.sock)
"""

import atexit
import contextlib
import fcntl
import json
import os
import re
import shutil
import subprocess
import sys
import time

from . import monitor, nsutil, scenario as scen, standins
from .ap import Ap
from .nsutil import LabError

STATE_ROOT = "/run/tarn-lab"
NETNS_PREFIX = "tarnlab-"
LAB_NAME_RE = re.compile(r"^[a-z0-9]{1,16}$")
BRIDGE = "br0"
TMPFS_DIRS = ("/tmp", "/var/config")
AP_MKDIRS = ("/tmp/socket",)
LAB_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
REPO_DIR = os.path.dirname(LAB_DIR)
DRIVER_SIM = os.path.join(LAB_DIR, "driver_sim.py")
STATIC_NEIGHBOR_CONF = "/var/config/static_neighbor.conf"


def default_build_dir():
    return os.environ.get("TARN_BUILD_DIR") or os.path.join(REPO_DIR, "build")


def netns_name(lab_name, node):
    return f"{NETNS_PREFIX}{lab_name}-{node}"


class Lab:
    """A set of virtual APs. Use as a context manager, or call up() and down()."""

    def __init__(self, scenario=None, name="default", build_dir=None, owner_pid=None,
                 bridge=True, simulators=True, daemons=True, monitor=False):
        if not LAB_NAME_RE.match(name):
            raise LabError(f"lab name {name!r}: 1 to 16 lower-case letters or digits")
        self.name = name
        self.scenario = scen.resolve(scenario if scenario is not None else 2)
        self.build_dir = os.path.abspath(build_dir or default_build_dir())
        self.owner_pid = owner_pid
        self.with_bridge = bridge
        self.with_simulators = simulators
        self.with_daemons = daemons
        self.with_monitor = monitor
        self.prometheus_pid = None
        self.monitor_pids = []  # writers, exporters and Prometheus, ended with the lab
        self.state_dir = os.path.join(STATE_ROOT, name)
        self.aps = [Ap(self, config) for config in self.scenario["aps"]]
        self.bridge_netns = netns_name(name, "br")
        self.is_up = False

    # ----- lookups ------------------------------------------------------------------------

    @property
    def tarn_binary(self):
        return os.path.join(self.build_dir, "tarn")

    def ap(self, which):
        """An AP by name ("ap1") or by 1-based number."""
        for ap in self.aps:
            if ap.name == which or str(ap.config["index"]) == str(which):
                return ap
        raise LabError(f"lab {self.name} has no AP {which!r} "
                       f"(APs: {', '.join(ap.name for ap in self.aps)})")

    def netns_for(self, node):
        return netns_name(self.name, node)

    def __getitem__(self, which):
        return self.ap(which)

    def mac_of(self, other):
        if isinstance(other, Ap):
            return other.mac
        if isinstance(other, dict):
            return other["mac"]
        try:
            return self.ap(other).mac
        except LabError:
            return other  # a MAC text

    def heard_entry(self, other, radio):
        if isinstance(other, (Ap, str)) and not (isinstance(other, str) and ":" in other):
            ap = other if isinstance(other, Ap) else self.ap(other)
            entry = {"mac": ap.mac, "ip": ap.ip4 or "", "ip6": ap.ip6}
        elif isinstance(other, dict):
            entry = dict(other)
        else:
            entry = {"mac": other}
        entry.update(radio)
        return entry

    # ----- state file ---------------------------------------------------------------------

    def save(self):
        if not os.path.isdir(self.state_dir):
            return
        state = {"name": self.name, "owner_pid": self.owner_pid, "build_dir": self.build_dir,
                 "bridge": self.with_bridge, "simulators": self.with_simulators,
                 "daemons": self.with_daemons, "monitor": self.with_monitor,
                 "prometheus_pid": self.prometheus_pid, "monitor_pids": self.monitor_pids,
                 "bridge_netns": self.bridge_netns,
                 "scenario": self.scenario, "aps": [ap.to_state() for ap in self.aps]}
        tmp = os.path.join(self.state_dir, "lab.json.new")
        with open(tmp, "w", encoding="utf-8") as handle:
            json.dump(state, handle)
        os.replace(tmp, os.path.join(self.state_dir, "lab.json"))

    @classmethod
    def load(cls, name="default"):
        """The running lab `name`, as recorded by the `up` that started it."""
        path = os.path.join(STATE_ROOT, name, "lab.json")
        try:
            with open(path, encoding="utf-8") as handle:
                state = json.load(handle)
        except FileNotFoundError:
            raise LabError(f"no lab {name!r} is up (no {path})") from None
        lab = cls.__new__(cls)
        lab.name = state["name"]
        lab.scenario = state["scenario"]
        lab.build_dir = state["build_dir"]
        lab.owner_pid = state["owner_pid"]
        lab.with_bridge = state["bridge"]
        lab.with_simulators = state["simulators"]
        lab.with_daemons = state["daemons"]
        lab.with_monitor = state.get("monitor", False)
        lab.prometheus_pid = state.get("prometheus_pid")
        lab.monitor_pids = state.get("monitor_pids", [])
        lab.state_dir = os.path.join(STATE_ROOT, lab.name)
        lab.bridge_netns = state["bridge_netns"]
        lab.aps = []
        for saved in state["aps"]:
            ap = Ap(lab, saved["config"])
            ap.holder_pid = saved["holder_pid"]
            ap.daemon_pid = saved["daemon_pid"]
            ap.sim_pid = saved["sim_pid"]
            lab.aps.append(ap)
        lab.is_up = True
        return lab

    @contextlib.contextmanager
    def _locked(self):
        """Serialises up and down of labs of the same name (several commands may race). The
        lock file goes when the lab is gone."""
        os.makedirs(STATE_ROOT, exist_ok=True)
        path = os.path.join(STATE_ROOT, f"{self.name}.lock")
        with open(path, "w") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            try:
                yield
            finally:
                if not self.is_up:
                    with contextlib.suppress(FileNotFoundError):
                        os.unlink(path)

    def leftovers(self):
        """Namespaces and state of this lab's name that exist now."""
        found = [ns for ns in nsutil.netns_list() if ns.startswith(f"{NETNS_PREFIX}{self.name}-")]
        if os.path.exists(self.state_dir):
            found.append(self.state_dir)
        return found

    # ----- up -----------------------------------------------------------------------------

    def up(self, progress=None):
        """Builds every AP and starts the simulators and daemons. Refuses when anything of a
        lab with this name exists; tears down what it built when any step fails."""
        if not nsutil.is_root():
            raise LabError("the lab needs root (network and mount namespaces): run it with sudo")
        if self.with_daemons and not os.access(self.tarn_binary, os.X_OK):
            raise LabError(f"no tarn executable at {self.tarn_binary}: build it first "
                           f"(cmake -S . -B build && make -C build), or set TARN_BUILD_DIR")
        if self.with_monitor:
            if not (self.with_bridge and self.with_daemons):
                raise LabError("monitoring needs the bridge and the daemons")
            monitor.check_ready(self)
        say = progress or (lambda text: None)
        with self._locked():
            existing = self.leftovers()
            if existing:
                raise LabError(f"lab {self.name!r} is already up or was left behind "
                               f"({', '.join(existing)}); run `lab down"
                               f"{'' if self.name == 'default' else ' --name ' + self.name}` "
                               f"first")
            os.makedirs(self.state_dir)
            _live_labs.append(self)
            self.is_up = True
            try:
                self.save()
                if self.with_bridge:
                    _room_for_neighbors(len(self.aps))
                say(f"{len(self.aps)} APs: namespaces and links")
                self._make_namespaces()
                self._make_links()
                self.save()
                say(f"{len(self.aps)} APs: mounts and platform stand-ins")
                self._make_mounts()
                self.save()
                if self.with_simulators:
                    say(f"{len(self.aps)} APs: driver simulators")
                    for ap in self.aps:
                        self._start_simulator(ap)
                    for ap in self.aps:
                        self._wait_simulator(ap)
                    self.save()
                if self.with_daemons:
                    say(f"{len(self.aps)} APs: tarn")
                    for ap in self.aps:
                        ap.start_daemon(wait=False, record=False)
                    self.save()
                    for ap in self.aps:
                        ap.wait_daemon_ready()
                if self.with_monitor:
                    for ap in self.aps:
                        say(f"{ap.name}: metrics writer and exporter")
                        monitor.start_ap(self, ap)
                    say("Prometheus")
                    self.prometheus_pid = monitor.start_prometheus(self, BRIDGE)
                    self.save()
                if self.with_simulators:
                    # Beacons begin once every daemon listens: a probe sent to a daemon that
                    # is not up yet would wait for the next learning pass (150 s).
                    for ap in self.aps:
                        if ap.config["beacon_interval"] > 0:
                            ap.sim_command({"cmd": "config",
                                            "beacon_interval": ap.config["beacon_interval"]})
            except BaseException:
                self._teardown()
                raise
        return self

    # Building costs one `ip` process per namespace and one holder per AP, started side by
    # side: at 128 APs a process per link, address and setting took minutes.
    HOLDERS_AT_ONCE = 8

    def _make_namespaces(self):
        names = ([self.bridge_netns] if self.with_bridge else []) + [ap.netns for ap in self.aps]
        for ap in self.aps:
            os.makedirs(ap.dir, exist_ok=True)
        nsutil.run_batches([((), [f"netns add {name}" for name in names])])
        for ap in self.aps:
            # Addresses are usable at once: nothing else on the bridge can hold them. Set
            # before any link exists, so that "default" reaches every link.
            nsutil.sysctl_in(ap.netns, [(f"net.ipv6.conf.{key}.accept_dad", 0)
                                        for key in ("all", "default")])

    def _make_links(self):
        if self.with_bridge:
            lines = ["link set lo up",
                     f"link add {BRIDGE} type bridge forward_delay 0", f"link set {BRIDGE} up"]
            for ap in self.aps:
                lines += [f"link add {ap.name} type veth peer name {ap.config['uplink']} "
                          f"netns {ap.netns}",
                          f"link set {ap.name} master {BRIDGE} up"]
            nsutil.run_batches([(("-n", self.bridge_netns), lines)])
        nsutil.run_batches([(("-n", ap.netns), self._ap_link_lines(ap)) for ap in self.aps])

    def _ap_link_lines(self, ap):
        cfg = ap.config
        uplink = cfg["uplink"]
        # Loopback carries the daemon's local traffic and the tests' 127.0.0.1 sockets.
        lines = ["link set lo up"]
        if not self.with_bridge:
            # A lone AP still gets an uplink with addresses, its peer kept inside the AP.
            lines += [f"link add {uplink} type veth peer name uplinkpeer",
                      "link set uplinkpeer up"]
        lines.append(f"link set {uplink} address {cfg['mac']}")
        if cfg["ip4"]:
            lines.append(f"addr add {cfg['ip4']}/{cfg['prefix4']} brd + dev {uplink}")
        lines += [f"addr add {cfg['ip6']}/{cfg['prefix6']} dev {uplink} nodad",
                  f"link set {uplink} up"]
        # VAPs and radios are veth pairs; the peer names contain neither "ath" nor "wifi",
        # so they are not counted as VAPs or radios.
        pairs = [(vap, "vp" + vap[3:]) for vap in cfg["vaps"]]
        pairs += [(f"wifi{radio}", f"rp{radio}") for radio in range(cfg["radios"])]
        for name, peer in pairs:
            lines += [f"link add {name} type veth peer name {peer}", f"link set {name} up",
                      f"link set {peer} up"]
        return lines

    def _make_mounts(self):
        tmpfs_dirs = TMPFS_DIRS + ((monitor.TEXTFILE_DIR,) if self.with_monitor else ())
        keep = sorted({self.build_dir, LAB_DIR, os.path.dirname(sys.executable)})
        for first in range(0, len(self.aps), self.HOLDERS_AT_ONCE):
            group = self.aps[first:first + self.HOLDERS_AT_ONCE]
            holders = [nsutil.spawn_holder(ap.netns, tmpfs_dirs, AP_MKDIRS,
                                           os.path.join(ap.dir, "holder.log"), keep=keep,
                                           stash_dir=os.path.join(ap.dir, "stash"))
                       for ap in group]
            for ap, holder in zip(group, holders):
                ap.holder_pid = nsutil.wait_holder(holder)
        for ap in self.aps:
            self._write_platform(ap)

    def _write_platform(self, ap):
        cfg = ap.config
        values = {"qv_ip": cfg["qv_ip"], "version": cfg["version"], "uplink": cfg["uplink"],
                  "mode": cfg["mode"], "mac": cfg["mac"]}
        uci = {standins.UCI_HOSTNAME: cfg["hostname"]}
        if cfg["wifi_count"] is not None:
            uci[standins.UCI_WIFI_COUNT] = cfg["wifi_count"]
        standins.write_standins(ap.dir, values, uci)
        if cfg["cluster"] is not None:
            ap.write_file("/tmp/pvc-info", scen.pvc_info_line(cfg) + "\n")
        if cfg["tenant"] is not None:
            ap.write_file("/tmp/zef_cloudinfo", scen.cloudinfo_text(cfg))
        if cfg["static_neighbors"]:
            ap.write_file(STATIC_NEIGHBOR_CONF,
                          json.dumps({"static_neighbor": cfg["static_neighbors"]}, indent=1))

    def _start_simulator(self, ap):
        cfg = ap.config
        config_path = os.path.join(ap.dir, "sim.json")
        with open(config_path, "w", encoding="utf-8") as handle:
            json.dump({"heard": scen.heard_entries(self.scenario, ap.name),
                       "beacon_interval": 0 if self.with_daemons else cfg["beacon_interval"],
                       "confirm": cfg["confirm"],
                       "answer_cache": cfg["answer_cache"],
                       "record_limit": self.scenario.get("log_limit")}, handle)
        with open(os.path.join(ap.dir, "sim.log"), "ab") as log:
            ap.sim = ap.popen([sys.executable, DRIVER_SIM, "--port", str(cfg["driver_port"]),
                               "--record", ap.record_path, "--control", ap.control_path,
                               "--config", config_path],
                              stdout=log, stderr=subprocess.STDOUT, start_new_session=True)
        ap.sim_pid = ap.sim.pid

    @staticmethod
    def _wait_simulator(ap):
        deadline = time.monotonic() + 60
        while not os.path.exists(ap.control_path):
            if ap.sim.poll() is not None or time.monotonic() > deadline:
                raise LabError(f"{ap.name}: driver simulator did not start; see "
                               f"{os.path.join(ap.dir, 'sim.log')}")
            time.sleep(0.02)

    # ----- down ---------------------------------------------------------------------------

    def down(self):
        """Stops everything of this lab and removes its namespaces and state. Safe to call
        more than once and on a lab that was only partly built."""
        with self._locked():
            self._teardown()

    def _teardown(self):
        for ap in self.aps:
            if ap.daemon is not None or ap.daemon_pid:
                with contextlib.suppress(Exception):
                    ap.stop_daemon()
        for ap in self.aps:
            if ap.sim is not None or ap.sim_pid:
                with contextlib.suppress(Exception):
                    if ap.sim is not None and ap.sim.poll() is None:
                        ap.sim.terminate()
                        ap.sim.wait(3)
        names = [ap.netns for ap in self.aps] + [self.bridge_netns]
        names += [ns for ns in nsutil.netns_list()
                  if ns.startswith(f"{NETNS_PREFIX}{self.name}-") and ns not in names]
        for ns in names:
            nsutil.remove_netns(ns)
        nsutil.reap()
        shutil.rmtree(self.state_dir, ignore_errors=True)
        self.is_up = False
        if self in _live_labs:
            _live_labs.remove(self)

    def __enter__(self):
        if not self.is_up:
            self.up()
        return self

    def __exit__(self, *exc):
        self.down()
        return False

    # ----- waiting for discovery ----------------------------------------------------------

    def discovery_status(self, complete=("name", "version")):
        """For every AP, what its table still lacks: {ap: [problem, ...]}.

        An AP is complete when its table lists every AP that its driver hears, each with the
        fields of `complete` filled in."""
        missing = {}
        for ap in self.aps:
            expected = {self.ap(item["hears"]).mac for item in self.scenario["hears"]
                        if item["ap"] == ap.name}
            problems = []
            try:
                rows = {row["mac"]: row for row in ap.show()}
            except LabError as exc:
                rows = {}
                problems.append(f"show failed: {exc}")
            for mac in sorted(expected):
                other = next(o for o in self.aps if o.mac == mac)
                row = rows.get(mac)
                if row is None:
                    problems.append(f"{other.name} absent")
                    continue
                empty = [field for field in complete if row.get(field) in (None, "", "-1")]
                if empty:
                    problems.append(f"{other.name} without {'/'.join(empty)}")
            missing[ap.name] = problems
        return missing


    def wait_discovered(self, timeout=30.0, complete=("name", "version"), interval=0.5):
        """Waits until discovery_status() reports nothing missing; raises LabError naming
        what is still missing when `timeout` passes or a daemon ends."""
        deadline = time.monotonic() + timeout
        while True:
            status = self.discovery_status(complete)
            if not any(status.values()):
                return
            dead = [f"{ap.name} ({ap.daemon_status()})" for ap in self.aps
                    if not ap.daemon_running()]
            if dead or time.monotonic() > deadline:
                missing = "; ".join(f"{name}: {', '.join(problems)}"
                                    for name, problems in status.items() if problems)
                why = f"tarn ended in {', '.join(dead)}" if dead else f"{timeout}s passed"
                raise LabError(f"discovery incomplete ({why}): {missing}")
            time.sleep(interval)


def _room_for_neighbors(count):
    """The kernel's ARP and neighbor-discovery caches are shared by every namespace, and their
    default limit (1024 entries) is below what a large lab needs: each AP resolves every other,
    count * (count - 1) entries, and past the limit new ones are refused and the packets
    waiting on them dropped. Raises the limits on the host when they are too low (never
    lowers them)."""
    needed = 2 * count * count
    for family in ("ipv4", "ipv6"):
        for level, value in (("gc_thresh2", needed), ("gc_thresh3", 2 * needed)):
            path = f"/proc/sys/net/{family}/neigh/default/{level}"
            try:
                with open(path, encoding="ascii") as handle:
                    current = int(handle.read())
                if current < value:
                    with open(path, "w", encoding="ascii") as handle:
                        handle.write(str(value))
            except (OSError, ValueError):
                pass


# Labs built by this process and not yet torn down; ended at exit whatever happens.
_live_labs = []


def _teardown_live_labs():
    for lab in list(_live_labs):
        with contextlib.suppress(Exception):
            lab.down()


atexit.register(_teardown_live_labs)


def teardown_all(prefix_filter=None):
    """Removes every lab on this machine (state directories and namespaces with the lab
    prefix). Used by `lab down --all` and to clear what a killed test run left behind."""
    removed = []
    names = set()
    if os.path.isdir(STATE_ROOT):
        names.update(entry for entry in os.listdir(STATE_ROOT)
                     if os.path.isdir(os.path.join(STATE_ROOT, entry)))
    for ns in nsutil.netns_list():
        if ns.startswith(NETNS_PREFIX):
            names.add(ns[len(NETNS_PREFIX):].rsplit("-", 1)[0])
    for name in sorted(names):
        if prefix_filter and not prefix_filter(name):
            continue
        try:
            lab = Lab.load(name)
        except (LabError, ValueError, KeyError):
            lab = Lab(1, name=name) if LAB_NAME_RE.match(name) else None
        if lab is None:
            continue
        lab.down()
        removed.append(name)
    return removed


def stale_test_labs():
    """Names of labs made by test runs whose process is gone (names "t<pid>x<n>")."""
    stale = []
    names = set(os.listdir(STATE_ROOT)) if os.path.isdir(STATE_ROOT) else set()
    names.update(ns[len(NETNS_PREFIX):].rsplit("-", 1)[0] for ns in nsutil.netns_list()
                 if ns.startswith(NETNS_PREFIX))
    for name in names:
        match = re.match(r"^t(\d+)x\d+$", name)
        if match and not nsutil.pid_alive(int(match.group(1))):
            stale.append(name)
    return sorted(stale)
