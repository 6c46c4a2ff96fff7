"""A picture of a running lab as it is now, drawn with Graphviz.

Each AP's table is read from its daemon (`tarn-info --json` inside the AP) and each driver's
reports from its simulator, at the moment of drawing. An edge A -> B is A's view of B:

  discovered   B is in A's table and answered (name or version known): solid
  offline      B is in A's table, marked offline or ageing: dotted, with the state
  unanswered   B is in A's table but never answered a probe: dashed red
  heard        A's driver reports B, A's table does not hold it: dashed grey
  static       B is one of A's static neighbors: bold blue, with the static state

Discovered, unanswered and offline edges carry the channel and RSSI of each radio of the
table's entry; heard edges those of the driver's reports. An AP that is in some table but
answered none of them (heard, never answers) is filled red; an AP whose daemon does not
answer tarn-info is grey.
"""

import collections
import concurrent.futures
import json
import os
import shutil
import subprocess

from .nsutil import LabError

FORMATS = ("svg", "png")
# Labs up to this many APs are laid out in ranks with curved edges, larger ones by force.
SMALL_LAB = 8
READERS_AT_ONCE = 8
OFFLINE_STATES = {"offline", "wireless_ageing", "static_offline"}

Edge = collections.namedtuple("Edge", "kind source target label")

EDGE_STYLES = {
    "discovered": 'color="#333333"',
    "offline": 'style=dotted, color="#777777"',
    "unanswered": 'style=dashed, color="#c02020"',
    "heard": 'style=dashed, color="#aaaaaa", fontcolor="#888888"',
    "static": 'color="#1060d0", fontcolor="#1060d0", penwidth=2, constraint=false',
}


class LabView:
    """What the daemons and drivers of a lab say now: per AP its table (None when tarn-info
    got no answer, with the reason) and its driver's heard reports (None without one)."""

    def __init__(self, names, macs, tables, errors, heard, addresses=None):
        self.names = names      # AP names in lab order
        self.macs = macs        # AP name -> MAC
        self.addresses = addresses or {}  # AP name -> its uplink address
        self.tables = tables    # AP name -> [neighbor dict of tarn-info] or None
        self.errors = errors    # AP name -> why its table is missing
        self.heard = heard      # AP name -> [heard report of the simulator] or None


# tarn-info shares one answer among its callers for up to 5 s. The picture is of now: an AP
# dropped a second ago must be gone from it, so the AP's shared answer is discarded first.
INFO_CACHE = "/tmp/socket/tarn_info.cache"


def _read_table(ap):
    try:
        os.unlink(ap.path(INFO_CACHE))
    except FileNotFoundError:
        pass
    result = ap.exec(["tarn-info", "--json"], timeout=20)
    if result.returncode != 0:
        return None, (result.stderr.strip() or f"tarn-info exited {result.returncode}")
    try:
        return json.loads(result.stdout)["neighbors"], None
    except (ValueError, KeyError, TypeError) as exc:
        return None, f"tarn-info printed no neighbor document ({exc})"


def _read_heard(ap):
    if not ap.sim_pid:
        return None
    try:
        return ap.sim_command({"cmd": "status"})["heard"]
    except (LabError, OSError):
        return None


def read_view(lab):
    """Reads every table and every driver's reports, a few APs at a time."""
    if not os.access(os.path.join(lab.build_dir, "tarn-info"), os.X_OK):
        raise LabError(f"no tarn-info in {lab.build_dir}: build it (make -C build tarn-info)")

    def read(ap):
        return _read_table(ap), _read_heard(ap)

    with concurrent.futures.ThreadPoolExecutor(READERS_AT_ONCE) as pool:
        results = list(pool.map(read, lab.aps))
    tables, errors, heard = {}, {}, {}
    for ap, ((table, error), reports) in zip(lab.aps, results):
        tables[ap.name] = table
        if error:
            errors[ap.name] = error
        heard[ap.name] = reports
    return LabView([ap.name for ap in lab.aps], {ap.name: ap.mac for ap in lab.aps}, tables,
                   errors, heard, {ap.name: ap.ip4 or ap.ip6 for ap in lab.aps})


def _radio_label(pairs):
    """"ch6 40, ch36 30": channel and RSSI of each radio that has a channel."""
    return ", ".join(f"ch{channel} {rssi}" for channel, rssi in pairs if channel)


def _table_edges(source, neighbor, node_of):
    target = node_of(neighbor["mac"])
    radios = _radio_label((radio["channel"], radio["rssi"]) for radio in neighbor["radios"])
    edges = []
    if neighbor["learned"]:
        if not neighbor["answered"]:
            kind = "unanswered"
        elif neighbor["state_name"] in OFFLINE_STATES:
            kind = "offline"
        else:
            kind = "discovered"
        label = radios if kind != "offline" else f"{neighbor['state_name']}  {radios}".strip()
        edges.append(Edge(kind, source, target, label))
    if neighbor["static"]:
        state = neighbor.get("static_state_name", neighbor["state_name"])
        edges.append(Edge("static", source, target, state))
    return edges


def edges_of(view):
    """(edges, nodes) of the picture. nodes: node name -> set of marks ("outside" for a MAC of
    no lab AP, "silent" for heard but never answering, "down" for a daemon that did not
    answer)."""
    by_mac = {mac: name for name, mac in view.macs.items()}
    nodes = {name: set() for name in view.names}

    def node_of(mac):
        name = by_mac.get(mac, mac)
        nodes.setdefault(name, {"outside"})
        return name

    edges = []
    answered, in_a_table = set(), set()
    for source in view.names:
        table = view.tables.get(source)
        if table is None:
            nodes[source].add("down")
            table = []
        in_table = set()
        for neighbor in table:
            in_table.add(neighbor["mac"])
            edges += _table_edges(source, neighbor, node_of)
            # Only a table tells whether an AP answered: one a full table refused may well
            # answer, so heard reports alone mark nothing.
            in_a_table.add(node_of(neighbor["mac"]))
            if neighbor["answered"]:
                answered.add(node_of(neighbor["mac"]))
        reports = collections.defaultdict(list)
        for report in view.heard.get(source) or []:
            reports[report["mac"]].append((report["channel"], report["rssi"]))
        for mac, pairs in sorted(reports.items()):
            if mac not in in_table:
                edges.append(Edge("heard", source, node_of(mac), _radio_label(sorted(pairs))))
    for name in in_a_table - answered:
        nodes[name].add("silent")
    return edges, nodes


def _node_line(name, marks, view):
    if "outside" in marks:
        text = f"{name}\\nnot in the lab"
        style = 'shape=ellipse, style=dashed'
    else:
        text = f"{name}\\n{view.addresses[name]}" if name in view.addresses else name
        style = 'style=rounded'
    if "silent" in marks:
        text += "\\nheard, never answers"
        style += ', style="rounded,filled", fillcolor="#f6c0c0"'
    if "down" in marks:
        text += "\\ntarn not answering"
        style += ', color="#999999", fontcolor="#999999"'
    return f'  "{name}" [label="{text}", {style}];'


def dot_text(lab_name, view, labels=True):
    """The view as a Graphviz graph; returns (text, {edge kind: count})."""
    edges, nodes = edges_of(view)
    large = len(view.names) > SMALL_LAB
    # Debian 12's Graphviz corrupts its heap now and then when it routes curved edges among a
    # few thousand (a 72-AP lab crashed neato about one run in three); straight ones are safe.
    lines = [f'digraph "{lab_name}" {{',
             f'  graph [overlap=false, splines={"false" if large else "true"}, fontsize=10, '
             f'label="lab {lab_name}, as its daemons and drivers report it now\\n'
             f'solid: discovered    dotted: offline    dashed red: in the table, never '
             f'answered    dashed grey: heard only    blue: static\\n'
             f'edge labels: channel and RSSI of each radio"];',
             '  node [shape=box, fontsize=10];',
             f'  edge [arrowsize=0.5, fontsize={7 if large else 8}];']
    for name, marks in nodes.items():
        lines.append(_node_line(name, marks, view))
    counts = collections.Counter()
    for edge in sorted(edges):
        counts[edge.kind] += 1
        label = f', label="{edge.label}"' if labels and edge.label else ""
        lines.append(f'  "{edge.source}" -> "{edge.target}" [{EDGE_STYLES[edge.kind]}{label}];')
    lines.append("}")
    return "\n".join(lines) + "\n", counts


def render(lab, out_path=None, fmt="svg", labels=True):
    """Reads the lab now and writes the picture; returns (path, {edge kind: count}, view)."""
    if fmt not in FORMATS:
        raise LabError(f"graph format {fmt!r}: one of {', '.join(FORMATS)}")
    program = "dot" if len(lab.aps) <= SMALL_LAB else "neato"
    if shutil.which(program) is None:
        raise LabError(f"Graphviz's {program} is not installed (scripts/install-deps.sh)")
    view = read_view(lab)
    text, counts = dot_text(lab.name, view, labels)
    # Outside the lab's state directory, so that the picture outlives `lab down`.
    out_path = os.path.abspath(out_path or f"/tmp/tarn-lab-{lab.name}.{fmt}")
    with open(os.path.splitext(out_path)[0] + ".dot", "w", encoding="utf-8") as handle:
        handle.write(text)
    done = subprocess.run([program, f"-T{fmt}", "-o", out_path], input=text.encode(),
                          check=False)
    if done.returncode != 0:
        raise LabError(f"{program} failed (status {done.returncode}); the graph is in "
                       f"{os.path.splitext(out_path)[0]}.dot")
    return out_path, counts, view
