"""The lab's monitoring mode (`lab up N --monitor`): on every AP the metrics writer
(`tarn-info --prometheus --output /var/prometheus/tarn.prom`, the command of the package's
tarn-metrics service) and Debian's node exporter serving that directory with its textfile
collector only, on the AP's lab address; and one Prometheus server, in its own namespace on
the lab's bridge, scraping every AP and loading the repository's alerting rules.

Everything runs inside the lab's namespaces, so `lab down` (which ends every process in them)
stops it all."""

import contextlib
import ipaddress
import json
import os
import subprocess
import time
import urllib.error
import urllib.parse
import urllib.request

from . import nsutil
from .nsutil import LabError

TEXTFILE_DIR = "/var/prometheus"
TEXTFILE = f"{TEXTFILE_DIR}/tarn.prom"
EXPORTER_PORT = 9100
PROMETHEUS_PORT = 9090
PROMETHEUS_NODE = "prom"
# The node's host number in the lab's subnets; APs take 10 + K.
PROMETHEUS_HOST = 2
# The writer's interval: the service's smallest, the age of tarn-info's shared answer.
WRITE_INTERVAL = 5
SCRAPE_INTERVAL = "2s"
EXPORTER = "/usr/bin/prometheus-node-exporter"
PROMETHEUS = "/usr/bin/prometheus"
RULES = os.path.join(os.path.dirname(os.path.dirname(os.path.dirname(
    os.path.abspath(__file__)))), "openwrt", "monitoring", "tarn.rules.yml")


def tarn_info_binary(lab):
    return os.path.join(lab.build_dir, "tarn-info")


def check_ready(lab):
    """Refuses the monitoring mode before anything is built when a piece is missing."""
    missing = [path for path in (tarn_info_binary(lab), EXPORTER, PROMETHEUS)
               if not os.access(path, os.X_OK)]
    if missing:
        raise LabError(f"monitoring needs {', '.join(missing)}: build tarn-info, and run "
                       f"scripts/install-deps.sh for Debian's prometheus and "
                       f"prometheus-node-exporter")
    if any(ap.name == PROMETHEUS_NODE for ap in lab.aps):
        raise LabError(f"an AP may not be called {PROMETHEUS_NODE!r} in monitoring mode: the "
                       f"Prometheus namespace has that name")
    taken = {ap.ip4 for ap in lab.aps} | {ap.ip6 for ap in lab.aps}
    if set(prometheus_addresses(lab)) & taken:
        raise LabError(f"monitoring: an AP holds the Prometheus node's address "
                       f"{prometheus_addresses(lab)}")


def prometheus_addresses(lab):
    subnet4 = ipaddress.IPv4Network(lab.scenario["subnet4"])
    subnet6 = ipaddress.IPv6Network(lab.scenario["subnet6"])
    return (str(subnet4.network_address + PROMETHEUS_HOST),
            str(subnet6.network_address + PROMETHEUS_HOST))


def exporter_address(ap):
    """host:port the AP's exporter listens on: its lab IPv4 address, else its IPv6 one."""
    return f"{ap.ip4}:{EXPORTER_PORT}" if ap.ip4 else f"[{ap.ip6}]:{EXPORTER_PORT}"


def prometheus_netns(lab):
    return lab.netns_for(PROMETHEUS_NODE)


def prometheus_dir(lab):
    return os.path.join(lab.state_dir, PROMETHEUS_NODE)


# ----- on every AP ----------------------------------------------------------------------------

def start_ap(lab, ap):
    """Starts the writer and the exporter inside the AP (logs in the AP's state directory);
    their pids join lab.monitor_pids."""
    with open(os.path.join(ap.dir, "tarn-info.log"), "ab") as log:
        writer = ap.popen([tarn_info_binary(lab), "--prometheus", "--output", TEXTFILE,
                           "--interval", str(WRITE_INTERVAL)],
                          stdout=log, stderr=subprocess.STDOUT, start_new_session=True)
    lab.monitor_pids.append(writer.pid)
    with open(os.path.join(ap.dir, "exporter.log"), "ab") as log:
        exporter = ap.popen([EXPORTER, "--collector.disable-defaults", "--collector.textfile",
                             f"--collector.textfile.directory={TEXTFILE_DIR}",
                             f"--web.listen-address={exporter_address(ap)}"],
                            stdout=log, stderr=subprocess.STDOUT, start_new_session=True)
    lab.monitor_pids.append(exporter.pid)


# ----- the Prometheus node --------------------------------------------------------------------

def prometheus_config(lab):
    targets = [{"targets": [exporter_address(ap)], "labels": {"ap": ap.name}}
               for ap in lab.aps]
    # JSON is YAML: Prometheus reads this as it is.
    return {"global": {"scrape_interval": SCRAPE_INTERVAL, "scrape_timeout": SCRAPE_INTERVAL,
                       "evaluation_interval": SCRAPE_INTERVAL},
            "rule_files": [RULES],
            "scrape_configs": [{"job_name": "tarn", "static_configs": targets}]}


def start_prometheus(lab, bridge, timeout=60.0):
    """Attaches the Prometheus namespace to the lab's bridge, starts the server and waits
    until it is ready; returns its pid (also added to lab.monitor_pids)."""
    ns = prometheus_netns(lab)
    ip4, ip6 = prometheus_addresses(lab)
    nsutil.run_batches([((), [f"netns add {ns}"])])
    nsutil.sysctl_in(ns, [(f"net.ipv6.conf.{key}.accept_dad", 0) for key in ("all", "default")])
    nsutil.run_batches([(("-n", lab.bridge_netns),
                         [f"link add {PROMETHEUS_NODE} type veth peer name eth0 netns {ns}",
                          f"link set {PROMETHEUS_NODE} master {bridge} up"])])
    nsutil.run_batches([(("-n", ns),
                         ["link set lo up",
                          f"addr add {ip4}/{lab.aps[0].config['prefix4']} dev eth0",
                          f"addr add {ip6}/{lab.aps[0].config['prefix6']} dev eth0 nodad",
                          "link set eth0 up"])])

    directory = prometheus_dir(lab)
    os.makedirs(os.path.join(directory, "data"), exist_ok=True)
    config_path = os.path.join(directory, "prometheus.yml")
    with open(config_path, "w", encoding="utf-8") as handle:
        json.dump(prometheus_config(lab), handle, indent=1)
    with open(os.path.join(directory, "prometheus.log"), "ab") as log:
        proc = nsutil.spawn(["nsenter", f"--net={nsutil.netns_path(ns)}", "--", PROMETHEUS,
                             f"--config.file={config_path}",
                             f"--storage.tsdb.path={os.path.join(directory, 'data')}",
                             f"--web.listen-address=:{PROMETHEUS_PORT}"],
                            stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT,
                            start_new_session=True, cwd=directory)
    lab.monitor_pids.append(proc.pid)
    deadline = time.monotonic() + timeout
    while not _ready(lab):
        if proc.poll() is not None or time.monotonic() > deadline:
            why = (f"exited with status {proc.returncode}" if proc.returncode is not None
                   else f"not ready within {timeout}s")
            raise LabError(f"Prometheus did not become ready ({why}); see "
                           f"{os.path.join(directory, 'prometheus.log')}:\n{log_tail(lab)}")
        time.sleep(0.2)
    return proc.pid


def log_tail(lab, lines=15):
    with contextlib.suppress(OSError):
        with open(os.path.join(prometheus_dir(lab), "prometheus.log"), encoding="utf-8",
                  errors="replace") as log:
            return "".join(log.readlines()[-lines:])
    return ""


# ----- the HTTP API ---------------------------------------------------------------------------

def _http_get(lab, path, timeout=10.0):
    """GET on the Prometheus server from inside its namespace; (status, body)."""
    # No proxy: the server is only reachable from inside the namespace.
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    with nsutil.netns_entered(prometheus_netns(lab)):
        try:
            with opener.open(f"http://127.0.0.1:{PROMETHEUS_PORT}{path}",
                             timeout=timeout) as reply:
                return reply.status, reply.read()
        except urllib.error.HTTPError as exc:
            return exc.code, exc.read()


def _ready(lab):
    try:
        status, _ = _http_get(lab, "/-/ready", timeout=2.0)
    except OSError:
        return False
    return status == 200


def query(lab, expression):
    """An instant query; the result vector as [(labels, value)], value as a float."""
    status, body = _http_get(lab, "/api/v1/query?" +
                             urllib.parse.urlencode({"query": expression}))
    reply = json.loads(body)
    if status != 200 or reply.get("status") != "success":
        raise LabError(f"query {expression!r} failed ({status}): {reply.get('error', body)}")
    return [(sample["metric"], float(sample["value"][1])) for sample in reply["data"]["result"]]


def targets(lab):
    """Every active scrape target: [{"ap", "health", "lastError", ...}]."""
    status, body = _http_get(lab, "/api/v1/targets?state=active")
    if status != 200:
        raise LabError(f"targets: HTTP {status}")
    return [dict(target["labels"], health=target["health"], lastError=target["lastError"])
            for target in json.loads(body)["data"]["activeTargets"]]
