"""A picture of a running lab, drawn with Graphviz: who hears whom (the drivers' reports), who
has discovered whom (a table entry with name and version) and the static neighbor links."""

import os
import shutil
import subprocess

from .nsutil import LabError

FORMATS = ("svg", "png")


def _edges(lab):
    hears = {(item["ap"], item["hears"]) for item in lab.scenario["hears"]}
    by_mac = {ap.mac: ap.name for ap in lab.aps}
    discovered = set()
    for ap in lab.aps:
        try:
            rows = ap.show()
        except LabError:
            continue
        for row in rows:
            if row.get("mac") in by_mac and row.get("name") not in (None, "", "-1"):
                discovered.add((ap.name, by_mac[row["mac"]]))
    static = set()
    for ap in lab.aps:
        for node in ap.config["static_neighbors"]:
            if node.get("mac") in by_mac:
                static.add((ap.name, by_mac[node["mac"]]))
    return hears, discovered, static


# Labs up to this many APs are laid out in ranks, larger ones by force.
SMALL_LAB = 8


def dot_text(lab):
    """The lab as a Graphviz graph. An edge A -> B: A hears B and has discovered it (solid),
    hears B only (dashed grey), or has discovered B without hearing it (solid orange); static
    links are blue and bold."""
    hears, discovered, static = _edges(lab)
    # Debian 12's Graphviz corrupts its heap now and then when it routes curved edges among a
    # few thousand (a 72-AP lab crashed neato about one run in three); straight ones are safe.
    splines = "true" if len(lab.aps) <= SMALL_LAB else "false"
    lines = [f'digraph "{lab.name}" {{',
             f'  graph [overlap=false, splines={splines}, label="lab ' + lab.name +
             ': solid = heard and discovered, dashed = heard only, orange = discovered '
             'without being heard, blue = static", fontsize=10];',
             '  node [shape=box, style=rounded, fontsize=10];',
             '  edge [arrowsize=0.5];']
    for ap in lab.aps:
        lines.append(f'  "{ap.name}" [label="{ap.name}\\n{ap.ip4 or ap.ip6}"];')
    for a, b in sorted(hears | discovered):
        if (a, b) in hears and (a, b) in discovered:
            style = 'color="#333333"'
        elif (a, b) in hears:
            style = 'style=dashed, color="#aaaaaa"'
        else:
            style = 'color="#e08000"'
        lines.append(f'  "{a}" -> "{b}" [{style}];')
    for a, b in sorted(static):
        lines.append(f'  "{a}" -> "{b}" [color="#1060d0", penwidth=2, constraint=false];')
    lines.append("}")
    return "\n".join(lines) + "\n", len(hears), len(discovered), len(static)


def render(lab, out_path=None, fmt="svg"):
    """Writes the picture; returns (path, heard edges, discovered edges, static edges)."""
    if fmt not in FORMATS:
        raise LabError(f"graph format {fmt!r}: one of {', '.join(FORMATS)}")
    program = "dot" if len(lab.aps) <= SMALL_LAB else "neato"
    if shutil.which(program) is None:
        raise LabError(f"Graphviz's {program} is not installed (scripts/install-deps.sh)")
    text, heard, found, static = dot_text(lab)
    # Outside the lab's state directory, so that the picture outlives `lab down`.
    out_path = os.path.abspath(out_path or f"/tmp/tarn-lab-{lab.name}.{fmt}")
    with open(os.path.splitext(out_path)[0] + ".dot", "w", encoding="utf-8") as handle:
        handle.write(text)
    done = subprocess.run([program, f"-T{fmt}", "-o", out_path], input=text.encode(),
                          check=False)
    if done.returncode != 0:
        raise LabError(f"{program} failed (status {done.returncode}); the graph is in "
                       f"{os.path.splitext(out_path)[0]}.dot")
    return out_path, heard, found, static
