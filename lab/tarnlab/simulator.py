"""A user-space stand-in for the AP's Wi-Fi driver, as seen by tarn over netlink.

It owns a NETLINK_USERSOCK socket bound at the port id that the daemon was given in
TARN_DRIVER_PORT, and:
  * reports the APs it "hears" with event 1, each every `beacon_interval` seconds like
    beacons (the reports of one round spread evenly over its first 2 seconds), and
    at once when told to hear a new one;
  * answers a cache request (operation 2) with event 3 holding one 88-byte entry per heard AP;
  * confirms the daemon's AP information (operation 1) with event 2;
  * sends event 6 when told to drop a neighbor;
  * appends every message in both directions to a JSON-lines record file.

It is controlled through an AF_UNIX stream socket: one JSON object per line in, one JSON
object per line back (see `DriverSimulator.handle_command`).
"""

import json
import os
import selectors
import socket
import time

from . import drvproto as dp

DEFAULT_BEACON_INTERVAL = 2.0


def normalize_heard(entry):
    """A heard AP as the simulator keeps it; only `mac` is required."""
    heard = {
        "mac": dp.mac_text(dp.mac_bytes(entry["mac"])),
        "ip": entry.get("ip") or "",
        "ip6": entry.get("ip6") or "",
        "radio": int(entry.get("radio", 0)),
        "channel": int(entry.get("channel", 0)),
        "rssi": int(entry.get("rssi", 0)),
        "bandwidth": int(entry.get("bandwidth", 0)),
        "txpower": int(entry.get("txpower", 0)),
    }
    if "time" in entry:
        heard["time"] = int(entry["time"])
    # Reject what cannot be encoded before it is stored.
    dp.encode_heard(heard["mac"], heard["ip"], heard["ip6"], heard["radio"], heard["channel"],
                    heard["rssi"], heard["bandwidth"])
    return heard


class DriverSimulator:
    def __init__(self, port, record_path, control_path, heard=(), daemon_port=dp.DAEMON_PORT,
                 beacon_interval=DEFAULT_BEACON_INTERVAL, confirm=True, answer_cache=True,
                 record_limit=None):
        self.port = port
        self.daemon_port = daemon_port
        self.beacon_interval = beacon_interval
        self.confirm = confirm
        self.answer_cache = answer_cache
        self.record_path = record_path
        self.control_path = control_path
        self.started = time.monotonic()
        # (mac, radio) -> heard AP, plus when it was last reported
        self.heard = {}
        self.last_reported = {}
        self._round = []  # keys of self.heard still to report in this beacon round
        self._step = self._round_rest = 0.0
        self.sent = 0
        self.send_errors = 0
        self.received = 0
        self.running = True
        for entry in heard:
            self._remember(normalize_heard(entry))

        self.nl = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, dp.NETLINK_USERSOCK)
        self.nl.bind((port, 0))
        self.nl.setblocking(False)
        if os.path.exists(control_path):
            os.unlink(control_path)
        self.control = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.control.bind(control_path)
        self.control.listen(8)
        self.control.setblocking(False)
        self.record = open(record_path, "a", buffering=1, encoding="utf-8")
        # The record lives in memory (/run): at 128 APs, beacons alone write megabytes a
        # second. Past the limit only one last line says that the record stops there.
        self.record_room = None if record_limit is None else record_limit - self.record.tell()
        self.selector = selectors.DefaultSelector()
        self.selector.register(self.nl, selectors.EVENT_READ, self._on_netlink)
        self.selector.register(self.control, selectors.EVENT_READ, self._on_control_accept)

    # ----- bookkeeping --------------------------------------------------------------------

    def _remember(self, heard):
        key = (heard["mac"], heard["radio"])
        self.heard[key] = heard
        self.last_reported.setdefault(key, time.monotonic())

    def _log(self, entry):
        entry["t"] = round(time.time(), 6)
        line = json.dumps(entry, sort_keys=True) + "\n"
        if self.record_room is not None:
            if self.record_room <= 0:
                return
            self.record_room -= len(line)
            if self.record_room < 0:
                line = json.dumps({"dir": "note", "what": "record limit reached",
                                   "t": entry["t"]}) + "\n"
        self.record.write(line)

    def _send(self, payload, what):
        data = dp.frame(payload, self.port)
        error = None
        try:
            self.nl.sendto(data, (self.daemon_port, 0))
            self.sent += 1
        except OSError as exc:  # no daemon bound at the port yet, or its queue is full
            self.send_errors += 1
            error = exc.strerror or str(exc)
        entry = {"dir": "tx", "what": what, "op": payload[0], "hex": data.hex()}
        if error:
            entry["error"] = error
        self._log(entry)
        return error is None

    # ----- events to the daemon -----------------------------------------------------------

    def report(self, heard):
        self.last_reported[(heard["mac"], heard["radio"])] = time.monotonic()
        payload = dp.encode_heard(heard["mac"], heard["ip"], heard["ip6"], heard["radio"],
                                  heard["channel"], heard["rssi"], heard["bandwidth"])
        return self._send(payload, f"heard {heard['mac']} radio {heard['radio']}")

    def beacon(self):
        for heard in list(self.heard.values()):
            self.report(heard)

    def cache_entries(self):
        """One cache entry per heard MAC, its radios in their slots."""
        by_mac = {}
        for heard in self.heard.values():
            by_mac.setdefault(heard["mac"], []).append(heard)
        now = time.monotonic()
        entries = []
        for mac, radios in by_mac.items():
            slots = [{} for _ in range(dp.RADIO_SLOTS)]
            for heard in radios:
                if heard["radio"] < dp.RADIO_SLOTS:
                    slots[heard["radio"]] = {"radioid": heard["radio"],
                                             "channel": heard["channel"],
                                             "txpower": heard["txpower"], "rssi": heard["rssi"],
                                             "bandwidth": heard["bandwidth"]}
            first = radios[0]
            # The time value is the number of seconds since the AP was last heard, unless the
            # scenario fixes it.
            time_value = first.get("time", int(now - max(
                self.last_reported.get((mac, h["radio"]), now) for h in radios)))
            entries.append(dp.encode_cache_entry(mac, first["ip"], first["ip6"], slots,
                                                 time_value))
        return entries

    def send_cache(self):
        return self._send(dp.encode_cache_reply(self.cache_entries()), "cache reply")

    def drop(self, mac):
        mac = dp.mac_text(dp.mac_bytes(mac))
        for key in [key for key in self.heard if key[0] == mac]:
            del self.heard[key]
            self.last_reported.pop(key, None)
        return self._send(dp.encode_drop(mac), f"drop {mac}")

    # ----- messages from the daemon -------------------------------------------------------

    def _on_netlink(self, _sock):
        try:
            data, address = self.nl.recvfrom(65536)
        except BlockingIOError:
            return
        self.received += 1
        entry = {"dir": "rx", "src_port": address[0]}
        try:
            message = dp.decode_daemon_message(data)
        except ValueError as exc:
            entry.update(error=str(exc), hex=data.hex())
            self._log(entry)
            return
        entry.update(message)
        self._log(entry)
        if message["op"] == dp.OP_SET_IPADDR and self.confirm:
            self._send(dp.encode_confirm(), "confirm")
        elif message["op"] == dp.OP_GET_APS and self.answer_cache:
            self.send_cache()

    # ----- control socket -----------------------------------------------------------------

    def _on_control_accept(self, _sock):
        try:
            conn, _ = self.control.accept()
        except BlockingIOError:
            return
        conn.settimeout(2.0)
        try:
            line = b""
            while not line.endswith(b"\n"):
                chunk = conn.recv(65536)
                if not chunk:
                    break
                line += chunk
            try:
                reply = self.handle_command(json.loads(line.decode()))
            except (ValueError, KeyError, TypeError) as exc:
                reply = {"ok": False, "error": f"{type(exc).__name__}: {exc}"}
            conn.sendall(json.dumps(reply).encode() + b"\n")
        except OSError:
            pass
        finally:
            conn.close()

    def handle_command(self, request):
        """Commands:
        hear {entries: [{mac, ip, ip6, radio, channel, rssi, bandwidth, txpower, time}]}
            start (or keep) reporting these APs and report them at once;
        unhear {mac}: stop reporting an AP without telling the daemon;
        drop {mac}: stop reporting it and send event 6;
        cache: send a cache reply now; beacon: report every heard AP now;
        send {hex}: send these payload bytes framed as an event (for malformed input);
        config {confirm, answer_cache, beacon_interval}; status; stop."""
        cmd = request["cmd"]
        if cmd == "hear":
            entries = [normalize_heard(entry) for entry in request["entries"]]
            sent = 0
            for heard in entries:
                self._remember(heard)
                sent += self.report(heard)
            return {"ok": True, "sent": sent}
        if cmd == "unhear":
            mac = dp.mac_text(dp.mac_bytes(request["mac"]))
            keys = [key for key in self.heard if key[0] == mac]
            for key in keys:
                del self.heard[key]
            return {"ok": bool(keys)}
        if cmd == "drop":
            return {"ok": self.drop(request["mac"])}
        if cmd == "cache":
            return {"ok": self.send_cache()}
        if cmd == "beacon":
            self.beacon()
            return {"ok": True}
        if cmd == "send":
            return {"ok": self._send(bytes.fromhex(request["hex"]), "raw")}
        if cmd == "config":
            for key in ("confirm", "answer_cache"):
                if key in request:
                    setattr(self, key, bool(request[key]))
            if "beacon_interval" in request:
                self.beacon_interval = float(request["beacon_interval"])
            return {"ok": True}
        if cmd == "status":
            return {"ok": True, "port": self.port, "heard": list(self.heard.values()),
                    "sent": self.sent, "send_errors": self.send_errors,
                    "received": self.received, "beacon_interval": self.beacon_interval,
                    "confirm": self.confirm, "answer_cache": self.answer_cache}
        if cmd == "stop":
            self.running = False
            return {"ok": True}
        return {"ok": False, "error": f"unknown command {cmd!r}"}

    # ----- main loop ----------------------------------------------------------------------

    def run(self):
        next_report = time.monotonic()
        try:
            while self.running:
                if self.beacon_interval > 0:
                    timeout = max(0.0, next_report - time.monotonic())
                else:
                    timeout = None
                for key, _ in self.selector.select(timeout):
                    key.data(key.fileobj)
                if self.beacon_interval > 0 and time.monotonic() >= next_report:
                    next_report += self._report_next()
                    # After a pause (or a lowered interval) the schedule starts afresh.
                    next_report = max(next_report, time.monotonic() - self.beacon_interval)
        finally:
            self.close()

    # A round's reports come within this many seconds (or the interval, if shorter), so a
    # daemon's table fills soon after it starts hearing, however long the interval.
    ROUND_SPREAD = 2.0

    def _report_next(self):
        """Reports the next heard AP of the current round and returns the time until the one
        after. A round reports every heard AP once, spread evenly over ROUND_SPREAD seconds,
        as beacons of many APs reach a real radio: one burst of every report at once would
        make each daemon probe (and take the answers of) a hundred neighbors at one instant,
        more than its socket buffers hold when the lab's CPUs are busy."""
        if not self._round:
            self._round = list(self.heard)
            if not self._round:
                return self.beacon_interval
            count = len(self._round)
            self._step = min(self.beacon_interval, self.ROUND_SPREAD) / count
            self._round_rest = self.beacon_interval - self._step * (count - 1)
        heard = self.heard.get(self._round.pop(0))
        if heard is not None:  # an AP unheard meanwhile is skipped
            self.report(heard)
        return self._step if self._round else self._round_rest

    def close(self):
        self.selector.close()
        self.nl.close()
        self.control.close()
        if os.path.exists(self.control_path):
            os.unlink(self.control_path)
        self.record.close()


def control(path, request, timeout=5.0):
    """Sends one command to a running simulator and returns its reply."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as conn:
        conn.settimeout(timeout)
        conn.connect(path)
        conn.sendall(json.dumps(request).encode() + b"\n")
        reply = b""
        while not reply.endswith(b"\n"):
            chunk = conn.recv(65536)
            if not chunk:
                break
            reply += chunk
    return json.loads(reply.decode())


def read_record(path):
    """Every entry of a record file, oldest first."""
    entries = []
    try:
        with open(path, encoding="utf-8") as record:
            for line in record:
                line = line.strip()
                if line:
                    entries.append(json.loads(line))
    except FileNotFoundError:
        pass
    return entries
