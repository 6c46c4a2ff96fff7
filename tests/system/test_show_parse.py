"""The lab's readers of the printed show tables (used to wait for discovery)."""

import pytest

from tarnlab.show import parse_radio_table, parse_wireless_table

WIRELESS_HEAD = ("%-17s  %-15s  %-40s  %-15s  %-15s  %-6s %-10s  %-10s  %-8s  %-8s  %-8s  %-9s  "
                 "%-6s  %-8s\n") % ("mac", "ip", "ip6", "qv_ip", "tenantId", "state", "name",
                                    "version", "radiocnt", "radioid", "channel", "bandwidth",
                                    "rssi", "txpower")
WIRELESS_PAD = "%-17s  %-15s  %-40s  %-15s  %-15s  %-6s %-10s  %-10s  %-8s  " % (("",) * 9)
LEGEND = "[state] 0:active 1:offline 2:wireless ageing  3:static active 4:static offline\n"


def wireless_record(mac, ip, ip6, qv, tenant, state, name, version, radios):
    text = "%s  %-15s  %-40s  %-15s  %-15s  %-6d %-10s  %-10s  %-8d  " % (
        mac, ip, ip6, qv, tenant, state, name, version, len(radios))
    for number, radio in enumerate(radios):
        if number:
            text += WIRELESS_PAD
        text += "%-8d  %-8d  %-9d  %-6d  %-8d\n" % radio
    return text


def radio_record(mac, ip, qv, tenant, state, name, version, radios):
    text = "%s  %-15s  %-15s  %-15s  %-6d %-10s  %-12s  %-8d " % (
        mac, ip, qv, tenant or "-1", state, name or "-1", version or "-1", len(radios))
    for number, (channel, rssi, txpower) in enumerate(radios):
        if number == 2:
            text += "%-7d %-7d %-4d" % (number, channel, rssi) + "%d" % txpower
        else:
            text += "%-7d %-7d %-4d %-7d " % (number, channel, rssi, txpower)
    return text + "\n"


@pytest.mark.no_root
def test_wireless_table_records_and_their_radio_lines():
    text = (WIRELESS_HEAD
            + wireless_record("02:7a:00:00:00:02", "10.99.0.12", "fd00:99::12", "10.99.0.250",
                              "t-lab", 0, "lab-ap2", "1.0.0-lab",
                              [(0, 6, 20, 31, 20), (1, 36, 80, 44, 17)])
            + wireless_record("02:00:00:00:00:33", "0.0.0.0", "::", "0.0.0.0", "", 4, "", "",
                              [(0, 0, 0, 0, 0), (0, 0, 0, 0, 0)])
            + LEGEND)

    records = parse_wireless_table(text)

    assert [r["mac"] for r in records] == ["02:7a:00:00:00:02", "02:00:00:00:00:33"]
    first, static = records
    assert (first["ip6"], first["tenantId"], first["state"], first["name"], first["version"],
            first["radiocnt"]) == ("fd00:99::12", "t-lab", 0, "lab-ap2", "1.0.0-lab", 2)
    assert first["radios"] == [
        {"radioid": 0, "channel": 6, "bandwidth": 20, "rssi": 31, "txpower": 20},
        {"radioid": 1, "channel": 36, "bandwidth": 80, "rssi": 44, "txpower": 17}]
    assert (static["tenantId"], static["name"], static["version"], static["state"]) == \
        ("", "", "", 4)
    assert len(static["radios"]) == 2


@pytest.mark.no_root
def test_empty_wireless_table_has_no_records():
    assert parse_wireless_table(WIRELESS_HEAD + LEGEND) == []


@pytest.mark.no_root
def test_radio_table_with_three_radios_and_empty_texts():
    text = ("mac                ip               qv_ip ... (header)\n"
            + radio_record("02:7a:00:00:00:03", "10.99.0.13", "10.99.0.250", "t-lab", 0,
                           "lab-ap3", "1.0.0-lab", [(6, 40, 18), (36, 41, 19), (149, 42, 20)])
            + radio_record("02:00:00:00:00:33", "0.0.0.0", "0.0.0.0", "", 4, "", "",
                           [(0, 0, 0), (0, 0, 0)]))

    records = parse_radio_table(text)

    assert [(r["mac"], r["name"], r["version"], r["state"], r["radiocnt"]) for r in records] == [
        ("02:7a:00:00:00:03", "lab-ap3", "1.0.0-lab", 0, 3),
        ("02:00:00:00:00:33", "-1", "-1", 4, 2)]
    assert records[0]["radios"][2] == {"index": 2, "channel": 149, "rssi": 42, "txpower": 20}
    assert records[1]["tenantId"] == "-1"
