"""`lab graph`: the edges and marks drawn from what the daemons (tarn-info) and the drivers
report, and that a real lab's picture follows the tables as they change."""

import pytest

from tarnlab import graph
from tarnsys import wait_for

A, B, C = "02:7a:00:00:00:01", "02:7a:00:00:00:02", "02:7a:00:00:00:03"
OUTSIDE = "02:00:00:00:00:99"
MACS = {"ap1": A, "ap2": B, "ap3": C}


def neighbor(mac, state_name="active", answered=True, learned=True, static=False,
             radios=((6, 40), (36, 30)), static_state_name=None):
    entry = {"mac": mac, "learned": learned, "static": static, "state_name": state_name,
             "answered": answered,
             "radios": [{"channel": ch, "rssi": rssi} for ch, rssi in radios]}
    if static_state_name:
        entry["static_state_name"] = static_state_name
    return entry


def report(mac, channel=6, rssi=20):
    return {"mac": mac, "channel": channel, "rssi": rssi}


def view(tables, heard=None, errors=None):
    """The lab's view: tables and heard reports per AP (an AP not named holds and hears
    nothing; a table None is a daemon that did not answer)."""
    tables = {"ap1": [], "ap2": [], "ap3": [], **tables}
    heard = {"ap1": [], "ap2": [], "ap3": [], **(heard or {})}
    return graph.LabView(["ap1", "ap2", "ap3"], MACS, tables, errors or {}, heard)


@pytest.mark.parametrize("what, lab_view, edges, marks", [
    ("answered entry: discovered, channel and RSSI per radio",
     view({"ap1": [neighbor(B)]}), {("discovered", "ap1", "ap2", "ch6 40, ch36 30")}, {}),
    ("a radio without a channel carries no label part",
     view({"ap1": [neighbor(B, radios=((0, 0), (36, 30)))]}),
     {("discovered", "ap1", "ap2", "ch36 30")}, {}),
    ("ageing's offline mark: dotted, with the state",
     view({"ap1": [neighbor(B, state_name="offline")]}),
     {("offline", "ap1", "ap2", "offline  ch6 40, ch36 30")}, {}),
    ("wireless ageing counts as offline",
     view({"ap1": [neighbor(B, state_name="wireless_ageing", radios=())]}),
     {("offline", "ap1", "ap2", "wireless_ageing")}, {}),
    ("never answered anyone: the AP is marked",
     view({"ap1": [neighbor(B, answered=False)]}),
     {("unanswered", "ap1", "ap2", "ch6 40, ch36 30")}, {"ap2": {"silent"}}),
    ("answered another AP: not marked",
     view({"ap1": [neighbor(B, answered=False)], "ap3": [neighbor(B)]}),
     {("unanswered", "ap1", "ap2", "ch6 40, ch36 30"),
      ("discovered", "ap3", "ap2", "ch6 40, ch36 30")}, {}),
    ("static only: one blue edge with the static state",
     view({"ap1": [neighbor(C, learned=False, static=True, state_name="static_offline")]}),
     {("static", "ap1", "ap3", "static_offline")}, {}),
    ("learned and static: both edges, the static one with its own state",
     view({"ap1": [neighbor(C, static=True, static_state_name="static_active")]}),
     {("discovered", "ap1", "ap3", "ch6 40, ch36 30"), ("static", "ap1", "ap3", "static_active")},
     {}),
    ("heard but in no table: heard only, with the driver's radios, and never marked (a full "
     "table refuses APs that answer)",
     view({}, {"ap1": [report(B, 6, 20), report(B, 36, 11)]}),
     {("heard", "ap1", "ap2", "ch6 20, ch36 11")}, {}),
    ("heard and in the table: no second edge",
     view({"ap1": [neighbor(B)]}, {"ap1": [report(B)]}),
     {("discovered", "ap1", "ap2", "ch6 40, ch36 30")}, {}),
    ("a MAC outside the lab gets a node of its own",
     view({"ap1": [neighbor(OUTSIDE, answered=False, radios=((11, 12),))]}),
     {("unanswered", "ap1", OUTSIDE, "ch11 12")}, {OUTSIDE: {"outside", "silent"}}),
    ("a daemon that does not answer: marked, its driver's reports still drawn",
     view({"ap2": None}, {"ap2": [report(A)]}, {"ap2": "no daemon"}),
     {("heard", "ap2", "ap1", "ch6 20")}, {"ap2": {"down"}}),
    ("no simulator: nothing heard",
     view({"ap1": [neighbor(B)]}, {"ap1": None}),
     {("discovered", "ap1", "ap2", "ch6 40, ch36 30")}, {}),
])
def test_edges_and_marks(what, lab_view, edges, marks):
    drawn, nodes = graph.edges_of(lab_view)
    assert set(drawn) == edges, what
    assert {name: got for name, got in nodes.items() if got} == marks, what


def test_dot_text_counts_each_kind():
    text, counts = graph.dot_text("x", view({"ap1": [neighbor(B), neighbor(C, answered=False)]},
                                            {"ap1": [report(OUTSIDE)]}))
    assert counts == {"discovered": 1, "unanswered": 1, "heard": 1}
    assert '"ap1" -> "ap2" [color="#333333", label="ch6 40, ch36 30"];' in text
    assert f'"{OUTSIDE}" [label="{OUTSIDE}\\nnot in the lab"' in text


def edge_set(lab):
    drawn, nodes = graph.edges_of(graph.read_view(lab))
    return {(kind, source, target) for kind, source, target, _ in drawn}, nodes


def test_picture_follows_the_tables_as_they_change(make_lab):
    lab = make_lab({"count": 3, "aps": [{"static_neighbors": ["ap3"]}, {}, {}]})
    ap1, ap2, ap3 = lab["ap1"], lab["ap2"], lab["ap3"]
    lab.wait_discovered(timeout=30)
    every_pair = {("discovered", a.name, b.name) for a in lab.aps for b in lab.aps if a != b}
    edges, nodes = edge_set(lab)
    assert edges == every_pair | {("static", "ap1", "ap3")}
    assert not any(nodes.values())

    # AP 2 leaves AP 1's air: the drop removes the entry, and the very next picture (not one
    # five seconds later, when tarn-info's shared answer would have expired) lacks the edge.
    ap1.drop(ap2)
    wait_for(lambda: all(row["mac"] != ap2.mac for row in ap1.show()), 10,
             what="ap1 deleting ap2")
    edges, _ = edge_set(lab)
    assert ("discovered", "ap1", "ap2") not in edges

    # AP 3's daemon ends: its node is marked and what its driver hears is drawn heard-only.
    ap3.stop_daemon()
    edges, nodes = edge_set(lab)
    assert nodes["ap3"] == {"down"}
    assert {e for e in edges if e[1] == "ap3"} == {("heard", "ap3", "ap1"),
                                                  ("heard", "ap3", "ap2")}
