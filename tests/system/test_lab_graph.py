"""`lab graph`: the edges and marks drawn from what the daemons (tarn-info) and the drivers
report, and that a real lab's picture follows the tables as they change."""

import pytest

from tarnlab import graph
from tarnsys import wait_for

A, B, C = "02:7a:00:00:00:01", "02:7a:00:00:00:02", "02:7a:00:00:00:03"
OUTSIDE = "02:00:00:00:00:99"
RADIOS = "ch6 40, ch36 30"  # the label of a neighbor's default radios


def neighbor(mac, radios=((6, 40), (36, 30)), **fields):
    return {"mac": mac, "learned": True, "static": False, "state_name": "active", "answered": True,
            "radios": [{"channel": ch, "rssi": rssi} for ch, rssi in radios], **fields}


def view(tables, heard=None, errors=None):
    """Heard reports are (mac, channel, rssi). An AP not named holds and hears nothing; a table
    None is a daemon that did not answer, heard None an AP without a simulator."""
    names = ["ap1", "ap2", "ap3"]
    heard = {ap: reports and [dict(zip(("mac", "channel", "rssi"), r)) for r in reports]
             for ap, reports in {**dict.fromkeys(names, []), **(heard or {})}.items()}
    return graph.LabView(names, dict(zip(names, (A, B, C))), {**dict.fromkeys(names, []), **tables},
                         errors or {}, heard)


def by_ap1(*entries, heard=None):
    return view({"ap1": list(entries)}, heard and {"ap1": heard})


def edge(kind, target, label=RADIOS, source="ap1"):
    return (kind, source, target, label)


@pytest.mark.parametrize("lab_view, edges, marks", [
    # A radio without a channel carries no label part.
    (by_ap1(neighbor(B, radios=((0, 0), (36, 30)))), {edge("discovered", "ap2", "ch36 30")}, {}),
    (by_ap1(neighbor(B, state_name="offline")), {edge("offline", "ap2", "offline  " + RADIOS)}, {}),
    (by_ap1(neighbor(B, state_name="wireless_ageing", radios=())),
     {edge("offline", "ap2", "wireless_ageing")}, {}),
    # Never answered anyone: the AP is marked; answered another AP: not marked.
    (by_ap1(neighbor(B, answered=False)), {edge("unanswered", "ap2")}, {"ap2": {"silent"}}),
    (view({"ap1": [neighbor(B, answered=False)], "ap3": [neighbor(B)]}),
     {edge("unanswered", "ap2"), edge("discovered", "ap2", source="ap3")}, {}),
    (by_ap1(neighbor(C, learned=False, static=True, state_name="static_offline")),
     {edge("static", "ap3", "static_offline")}, {}),
    # Learned and static: both edges, the static one with its own state.
    (by_ap1(neighbor(C, static=True, static_state_name="static_active")),
     {edge("discovered", "ap3"), edge("static", "ap3", "static_active")}, {}),
    # Heard but in no table: heard only, with the driver's radios, and never marked (a full
    # table refuses APs that answer); heard and in the table: no second edge.
    (by_ap1(heard=[(B, 6, 20), (B, 36, 11)]), {edge("heard", "ap2", "ch6 20, ch36 11")}, {}),
    (by_ap1(neighbor(B), heard=[(B, 6, 20)]), {edge("discovered", "ap2")}, {}),
    (by_ap1(neighbor(OUTSIDE, answered=False, radios=((11, 12),))),
     {edge("unanswered", OUTSIDE, "ch11 12")}, {OUTSIDE: {"outside", "silent"}}),
    # A daemon that does not answer: marked, its driver's reports still drawn.
    (view({"ap2": None}, {"ap2": [(A, 6, 20)]}, {"ap2": "no daemon"}),
     {edge("heard", "ap1", "ch6 20", source="ap2")}, {"ap2": {"down"}}),
    # No simulator: nothing heard.
    (view({"ap1": [neighbor(B)]}, {"ap1": None}), {edge("discovered", "ap2")}, {}),
])
def test_edges_and_marks(lab_view, edges, marks):
    drawn, nodes = graph.edges_of(lab_view)
    assert (set(drawn), {name: got for name, got in nodes.items() if got}) == (edges, marks)


def test_dot_text_counts_each_kind():
    text, counts = graph.dot_text("x", by_ap1(neighbor(B), neighbor(C, answered=False),
                                           heard=[(OUTSIDE, 6, 20)]))
    assert counts == {"discovered": 1, "unanswered": 1, "heard": 1}
    assert f'"ap1" -> "ap2" [color="#333333", label="{RADIOS}"];' in text
    assert f'"{OUTSIDE}" [label="{OUTSIDE}\\nnot in the lab"' in text


def edge_set(lab):
    drawn, nodes = graph.edges_of(graph.read_view(lab))
    return {(kind, source, target) for kind, source, target, _ in drawn}, nodes


def test_picture_follows_the_tables_as_they_change(make_lab):
    lab = make_lab({"count": 3, "aps": [{"static_neighbors": ["ap3"]}, {}, {}]})
    ap1, ap2, ap3 = lab["ap1"], lab["ap2"], lab["ap3"]
    lab.wait_discovered(timeout=30)
    every_pair = {("discovered", a.name, b.name) for a in lab.aps for b in lab.aps if a != b}
    assert edge_set(lab) == (every_pair | {("static", "ap1", "ap3")}, dict.fromkeys(
        (ap.name for ap in lab.aps), set()))

    # The drop removes the entry, and the very next picture (not one five seconds later, when
    # tarn-info's shared answer would have expired) lacks the edge.
    ap1.drop(ap2)
    wait_for(lambda: all(row["mac"] != ap2.mac for row in ap1.show()), 10, what="ap1 dropping ap2")
    assert ("discovered", "ap1", "ap2") not in edge_set(lab)[0]

    # AP 3's daemon ends: its node is marked and what its driver hears is drawn heard-only.
    ap3.stop_daemon()
    edges, nodes = edge_set(lab)
    assert nodes["ap3"] == {"down"}
    assert {e for e in edges if e[1] == "ap3"} == {("heard", "ap3", "ap1"), ("heard", "ap3", "ap2")}
