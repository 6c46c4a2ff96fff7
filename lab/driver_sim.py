#!/usr/bin/env python3
"""Wi-Fi driver simulator for one lab AP; run it inside the AP's network namespace.

    driver_sim.py --port N --record FILE --control SOCKET [--config FILE]

The config file (JSON) may hold: heard (list of heard APs), beacon_interval, confirm,
answer_cache, daemon_port, record_limit (bytes the record may reach; default unbounded). See tarnlab/simulator.py for the control commands.
"""

import argparse
import json
import os
import signal
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from tarnlab.simulator import DEFAULT_BEACON_INTERVAL, DriverSimulator  # noqa: E402


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--port", type=int, required=True, help="netlink port id to bind")
    parser.add_argument("--record", required=True, help="JSON-lines record file")
    parser.add_argument("--control", required=True, help="control socket path")
    parser.add_argument("--config", help="JSON file with the initial settings")
    args = parser.parse_args()

    config = {}
    if args.config:
        with open(args.config, encoding="utf-8") as handle:
            config = json.load(handle)
    sim = DriverSimulator(
        port=args.port, record_path=args.record, control_path=args.control,
        heard=config.get("heard", []), daemon_port=config.get("daemon_port", 4),
        beacon_interval=config.get("beacon_interval", DEFAULT_BEACON_INTERVAL),
        confirm=config.get("confirm", True), answer_cache=config.get("answer_cache", True),
        record_limit=config.get("record_limit"))

    def stop(_signum, _frame):
        # Raising leaves select() at once; run() closes the sockets on the way out.
        raise SystemExit(0)

    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGINT, stop)
    print(f"driver simulator on netlink port {args.port}", flush=True)
    sim.run()
    return 0


if __name__ == "__main__":
    sys.exit(main())
