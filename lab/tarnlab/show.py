"""Readers for the tables that `tarn show` and `tarn show neighbor` print."""

# Wireless table (`tarn show`): (field, width, separator after it). A continuation line of a
# record (its second and later radios) leaves the first nine fields blank.
WIRELESS_COLUMNS = (("mac", 17, 2), ("ip", 15, 2), ("ip6", 40, 2), ("qv_ip", 15, 2),
                    ("tenantId", 15, 2), ("state", 6, 1), ("name", 10, 2), ("version", 10, 2),
                    ("radiocnt", 8, 2), ("radioid", 8, 2), ("channel", 8, 2),
                    ("bandwidth", 9, 2), ("rssi", 6, 2), ("txpower", 8, 0))
RECORD_FIELDS = 9
STATE_LEGEND = "[state] 0:active"


def _is_mac(text):
    parts = text.split(":")
    return len(parts) == 6 and all(len(p) == 2 and all(c in "0123456789abcdef" for c in p)
                                   for p in parts)


def _cut_columns(line):
    fields = {}
    pos = 0
    for name, width, gap in WIRELESS_COLUMNS:
        fields[name] = line[pos:pos + width].strip()
        pos += width + gap
    return fields


def _int(text):
    try:
        return int(text)
    except ValueError:
        return None


def parse_wireless_table(text):
    """Records of the wireless table: dicts with the text fields, `state` and `radiocnt` as
    numbers and `radios` (radioid, channel, bandwidth, rssi, txpower). Columns are cut at
    their printed widths, so a value wider than its column is not read correctly."""
    records = []
    for line in text.splitlines():
        if not line.strip() or line.startswith(STATE_LEGEND) or line.startswith("mac "):
            continue
        fields = _cut_columns(line)
        radio = {key: _int(fields[key]) for key in ("radioid", "channel", "bandwidth", "rssi",
                                                    "txpower")}
        if _is_mac(fields["mac"]):
            record = {key: fields[key] for key, _, _ in WIRELESS_COLUMNS[:RECORD_FIELDS]}
            record["state"] = _int(record["state"])
            record["radiocnt"] = _int(record["radiocnt"])
            record["radios"] = [radio]
            records.append(record)
        elif records and not line[:150].strip():
            records[-1]["radios"].append(radio)
    return records


def parse_radio_table(text):
    """Records of the radio table (`tarn show neighbor`): mac, ip, qv_ip, tenantId, state,
    name, version, radiocnt and `radios` (index, channel, rssi, txpower). Empty texts are
    printed there as -1 and are returned as such."""
    records = []
    for line in text.splitlines():
        words = line.split()
        if len(words) < 8 or not _is_mac(words[0]):
            continue
        record = {"mac": words[0], "ip": words[1], "qv_ip": words[2], "tenantId": words[3],
                  "state": _int(words[4]), "name": words[5], "version": words[6],
                  "radiocnt": _int(words[7]), "radios": []}
        rest = words[8:]
        for start in range(0, len(rest) - 3, 4):
            index, channel, rssi, txpower = (_int(word) for word in rest[start:start + 4])
            record["radios"].append({"index": index, "channel": channel, "rssi": rssi,
                                     "txpower": txpower})
        records.append(record)
    return records
