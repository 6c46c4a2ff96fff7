"""Lab scenarios: which APs exist, what each one's platform says, and who hears whom.

A scenario is a JSON object (or the same dict in Python). Every key is optional; `lab up 4`
is the scenario {"count": 4}. Keys:

  count            number of APs when "aps" is absent (default 2)
  subnet4          IPv4 subnet of the shared uplink bridge (default 10.99.0.0/24)
  subnet6          IPv6 subnet of the bridge (default fd00:99::/64)
  debug            start every daemon with -D (debug logging) unless its daemon_args say
                   otherwise (default false)
  log_limit        bytes each AP's daemon log and driver record may reach (default 1 MiB,
                   at least 4096); the daemon's log keeps its first log_limit bytes
  defaults         AP settings applied to every AP (keys as in an AP below)
  aps              list of APs; an AP may set:
      name         AP name, also its label in the lab (default apN, N from 1)
      mac          base MAC (default 02:7a:00:00:00:NN)
      hostname     answer of `uci get system.sysinfo.hostname` (default lab-apN)
      version      answer of showver (default 1.0.0-lab)
      qv_ip        answer of getqvinfo (default the subnet's .250)
      mode         answer of getmode (default STANDALONE; CLUSTER for cluster mode)
      tenant       tenant written to /tmp/zef_cloudinfo (null: no such file)
      cluster      {"id": N, "pvc": AP name or IPv4, "pvc_mac": MAC} for /tmp/pvc-info
                   (default {"id": 1, "pvc": first AP}; null: no such file)
      ip4          uplink IPv4 (default subnet host 10+N); ipv6_only: true gives none
      ip6          uplink IPv6 (default subnet host 0x10+N)
      ipv6_only    no IPv4 address on the uplink (default false)
      uplink       uplink interface name, the answer of getupifname (default eth0)
      radios       number of wifiN links (default 2)
      wifi_count   answer of `uci -c /etc/.system/ get spec.wifi.count` (default radios + 1;
                   null: the key is absent)
      vaps         names of the athNN links (default ["ath00", "ath10"]; [] for none)
      static_neighbors  list of AP names or {"mac", "ip", "ip6"} written to
                   /var/config/static_neighbor.conf (default: no file)
      driver_port  netlink port id of the driver simulator (default 100)
      daemon_args  arguments of tarn (default [], or ["-D"] with debug)
      beacon_interval, confirm, answer_cache   driver simulator settings (2.0 s, more past
                   45 APs: count * (count - 1) / 1000 s; true, true)
  hears            "all" (default: every AP hears every other on radios 0 and 1), "none", or
                   a list of {"ap", "hears", "radio", "channel", "rssi", "bandwidth",
                   "txpower", "time"} (one radio each; repeat an entry for more radios)
"""

import copy
import ipaddress
import re

from .drvproto import mac_bytes, mac_text

NAME_RE = re.compile(r"^[a-z][a-z0-9]{0,9}$")
VAP_RE = re.compile(r"^ath[0-9]{2}$")

AP_KEYS = {"name", "mac", "hostname", "version", "qv_ip", "mode", "tenant", "cluster", "ip4",
           "ip6", "ipv6_only", "uplink", "radios", "wifi_count", "vaps", "static_neighbors",
           "driver_port", "daemon_args", "beacon_interval", "confirm", "answer_cache"}
TOP_KEYS = {"count", "subnet4", "subnet6", "defaults", "aps", "hears", "debug", "log_limit"}
DEFAULT_LOG_LIMIT = 1 << 20
MIN_LOG_LIMIT = 4096

# Radio facts of the default "every AP hears every other" scenario.
DEFAULT_RADIOS = ({"radio": 0, "channel": 6, "bandwidth": 20},
                  {"radio": 1, "channel": 36, "bandwidth": 80})


class ScenarioError(ValueError):
    pass


# Twice what a full neighbor table (64) holds; the addresses (host 10 + K) and MACs (last
# byte K) would go on to 244.
MAX_APS = 128


def _check_keys(what, given, allowed):
    unknown = set(given) - allowed
    if unknown:
        raise ScenarioError(f"{what}: unknown keys {sorted(unknown)}")


def _default_beacon_interval(count):
    """Every AP reports every other on two radios each interval, and each report of a
    neighbor that a full table refuses costs a probe and its answer: N * (N - 1) * 2 reports
    per interval. Past 45 APs the interval grows so that the lab makes about 2000 reports a
    second (16.3 s at 128 APs), which a 2-core machine carries beside its daemons."""
    return max(2.0, round(count * (count - 1) * 2 / 2000.0, 1))


def _default_rssi(listener, heard, radio):
    # Different for every pair and radio, stable from run to run, inside 15..54.
    return 15 + (listener * 7 + heard * 3 + radio * 11) % 40


def resolve(raw):
    """Fills in every default and checks the scenario; returns a new dict."""
    if isinstance(raw, int):
        raw = {"count": raw}
    raw = copy.deepcopy(raw or {})
    _check_keys("scenario", raw, TOP_KEYS)
    subnet4 = ipaddress.IPv4Network(raw.get("subnet4", "10.99.0.0/24"))
    subnet6 = ipaddress.IPv6Network(raw.get("subnet6", "fd00:99::/64"))
    defaults = raw.get("defaults", {})
    _check_keys("defaults", defaults, AP_KEYS - {"name", "mac", "ip4", "ip6"})
    aps_raw = raw.get("aps")
    if aps_raw is None:
        aps_raw = [{} for _ in range(int(raw.get("count", 2)))]
    if not 1 <= len(aps_raw) <= MAX_APS:
        raise ScenarioError(f"{len(aps_raw)} APs; the lab builds 1 to {MAX_APS}")

    debug = raw.get("debug", False)
    if not isinstance(debug, bool):
        raise ScenarioError(f"debug: true or false, not {debug!r}")
    log_limit = raw.get("log_limit", DEFAULT_LOG_LIMIT)
    if isinstance(log_limit, bool) or not isinstance(log_limit, int) \
            or log_limit < MIN_LOG_LIMIT:
        raise ScenarioError(f"log_limit: a number of bytes, at least {MIN_LOG_LIMIT}, "
                            f"not {log_limit!r}")

    aps = []
    for index, given in enumerate(aps_raw, start=1):
        _check_keys(f"AP {index}", given, AP_KEYS)
        ap = dict(defaults)
        ap.update(given)
        ap.setdefault("beacon_interval", _default_beacon_interval(len(aps_raw)))
        aps.append(_resolve_ap(index, ap, subnet4, subnet6, debug))

    names = [ap["name"] for ap in aps]
    if len(set(names)) != len(names):
        raise ScenarioError(f"AP names are not unique: {names}")
    macs = [ap["mac"] for ap in aps]
    if len(set(macs)) != len(macs):
        raise ScenarioError(f"AP MACs are not unique: {macs}")
    by_name = {ap["name"]: ap for ap in aps}
    for ap in aps:
        ap["cluster"] = _resolve_cluster(ap.get("cluster", "default"), aps[0], by_name)
        ap["static_neighbors"] = [_resolve_static(item, by_name)
                                  for item in ap.get("static_neighbors") or []]
    return {
        "subnet4": str(subnet4),
        "subnet6": str(subnet6),
        "debug": debug,
        "log_limit": log_limit,
        "aps": aps,
        "hears": _resolve_hears(raw.get("hears", "all"), aps, by_name),
    }


def _resolve_ap(index, ap, subnet4, subnet6, debug=False):
    name = ap.get("name", f"ap{index}")
    if not NAME_RE.match(name):
        raise ScenarioError(f"AP name {name!r}: lower-case letters and digits, "
                            f"starting with a letter, at most 10 characters")
    ipv6_only = bool(ap.get("ipv6_only", False))
    ip4 = None if ipv6_only else ap.get("ip4", str(subnet4.network_address + 10 + index))
    if ip4 is not None and ipaddress.IPv4Address(ip4) not in subnet4:
        raise ScenarioError(f"{name}: {ip4} is outside {subnet4}")
    ip6 = ap.get("ip6", str(subnet6.network_address + 0x10 + index))
    if ipaddress.IPv6Address(ip6) not in subnet6:
        raise ScenarioError(f"{name}: {ip6} is outside {subnet6}")
    radios = int(ap.get("radios", 2))
    if not 0 <= radios <= 4:
        raise ScenarioError(f"{name}: radios must be 0 to 4")
    vaps = list(ap.get("vaps", ["ath00", "ath10"]))
    for vap in vaps:
        if not VAP_RE.match(vap):
            raise ScenarioError(f"{name}: VAP name {vap!r} is not athNN")
    uplink = ap.get("uplink", "eth0")
    if not re.match(r"^[a-z][a-z0-9-]{0,14}$", uplink) or VAP_RE.search(uplink) \
            or "wifi" in uplink:
        raise ScenarioError(f"{name}: uplink name {uplink!r} is not usable")
    wifi_count = ap.get("wifi_count", radios + 1)
    return {
        "name": name,
        "index": index,
        "mac": mac_text(mac_bytes(ap.get("mac", f"02:7a:00:00:00:{index:02x}"))),
        "hostname": str(ap.get("hostname", f"lab-{name}")),
        "version": str(ap.get("version", "1.0.0-lab")),
        "qv_ip": ap.get("qv_ip", str(subnet4.network_address + 250)),
        "mode": str(ap.get("mode", "STANDALONE")),
        "tenant": ap.get("tenant", "t-lab"),
        "cluster": ap.get("cluster", "default"),
        "ip4": ip4,
        "ip6": ip6,
        "prefix4": subnet4.prefixlen,
        "prefix6": subnet6.prefixlen,
        "ipv6_only": ipv6_only,
        "uplink": uplink,
        "radios": radios,
        "wifi_count": None if wifi_count is None else int(wifi_count),
        "vaps": vaps,
        "static_neighbors": ap.get("static_neighbors", []),
        "driver_port": int(ap.get("driver_port", 100)),
        # Debug logging writes a line per refused neighbor: at 128 APs, gigabytes.
        "daemon_args": list(ap.get("daemon_args", ["-D"] if debug else [])),
        "beacon_interval": float(ap.get("beacon_interval", 2.0)),
        "confirm": bool(ap.get("confirm", True)),
        "answer_cache": bool(ap.get("answer_cache", True)),
    }


def _resolve_cluster(cluster, first, by_name):
    if cluster is None:
        return None
    if cluster == "default":
        cluster = {"id": 1, "pvc": first["name"]}
    pvc = cluster.get("pvc", first["name"])
    if pvc in by_name:
        pvc_ap = by_name[pvc]
        pvc_ip = pvc_ap["ip4"] or "0.0.0.0"
        pvc_mac = pvc_ap["mac"]
    else:
        pvc_ip = str(ipaddress.IPv4Address(pvc))
        pvc_mac = "00:00:00:00:00:00"
    pvc_mac = mac_text(mac_bytes(cluster.get("pvc_mac", pvc_mac)))
    return {"id": int(cluster.get("id", 1)), "pvc_ip": pvc_ip, "pvc_mac": pvc_mac}


def _resolve_static(item, by_name):
    if isinstance(item, str):
        if item not in by_name:
            raise ScenarioError(f"static neighbor {item!r} is not an AP of the scenario")
        ap = by_name[item]
        return {"mac": ap["mac"], "ip": ap["ip4"] or "0.0.0.0", "ip6": ap["ip6"]}
    entry = {"mac": mac_text(mac_bytes(item["mac"]))}
    for key in ("ip", "ip6"):
        if key in item:
            entry[key] = item[key]
    return entry


def _resolve_hears(hears, aps, by_name):
    result = []
    if hears == "none":
        return result
    if hears == "all":
        for listener in aps:
            for heard in aps:
                if heard is listener:
                    continue
                for radio in DEFAULT_RADIOS:
                    result.append({
                        "ap": listener["name"], "hears": heard["name"], **radio,
                        "rssi": _default_rssi(listener["index"], heard["index"],
                                              radio["radio"]),
                        "txpower": 20})
        return result
    if not isinstance(hears, list):
        raise ScenarioError('hears: "all", "none" or a list')
    for item in hears:
        _check_keys("hears entry", item, {"ap", "hears", "radio", "channel", "rssi",
                                          "bandwidth", "txpower", "time"})
        for key in ("ap", "hears"):
            if item.get(key) not in by_name:
                raise ScenarioError(f"hears entry {item}: {key} names no AP")
        entry = {"radio": 0, "channel": 6, "bandwidth": 20, "txpower": 20,
                 "rssi": _default_rssi(by_name[item["ap"]]["index"],
                                       by_name[item["hears"]]["index"],
                                       int(item.get("radio", 0)))}
        entry.update(item)
        result.append(entry)
    return result


def heard_entries(scenario, listener_name):
    """What the driver of `listener_name` reports: one entry per heard AP and radio."""
    by_name = {ap["name"]: ap for ap in scenario["aps"]}
    entries = []
    for item in scenario["hears"]:
        if item["ap"] != listener_name:
            continue
        heard = by_name[item["hears"]]
        entry = {"mac": heard["mac"], "ip": heard["ip4"] or "", "ip6": heard["ip6"]}
        for key in ("radio", "channel", "rssi", "bandwidth", "txpower", "time"):
            if key in item:
                entry[key] = item[key]
        entries.append(entry)
    return entries


def pvc_info_line(ap):
    """Content of /tmp/pvc-info: "<n>:<pvc ip>:<n>:<cluster id>:<pvc mac with dashes>"."""
    cluster = ap["cluster"]
    return f"1:{cluster['pvc_ip']}:2:{cluster['id']}:{cluster['pvc_mac'].replace(':', '-')}"


def cloudinfo_text(ap):
    """Content of /tmp/zef_cloudinfo. The daemon keeps what follows the first ':' of the line
    that mentions tenantId, so the tenant stands alone after "tenantId:"."""
    return f"cloudHost:lab.invalid\ntenantId:{ap['tenant']}\n"
