"""Command line of the lab: lab up|exec|hear|unhear|drop|leave|cache|logs|status|converge|graph|
down|demo."""

import argparse
import json
import os
import signal
import subprocess
import sys

from . import monitor, nsutil
from .lab import Lab, LabError, default_build_dir, teardown_all
from .nsutil import pid_alive


def _interrupt(_signum, _frame):
    raise KeyboardInterrupt


def _load_scenario(spec):
    if spec is None:
        return 4
    if spec.isdigit():
        return int(spec)
    with open(spec, encoding="utf-8") as handle:
        return json.load(handle)


def _need_root():
    if not nsutil.is_root():
        raise LabError("the lab needs root (network and mount namespaces): run it with sudo")


def cmd_up(args):
    _need_root()
    scenario = _load_scenario(args.scenario)
    if args.debug:
        scenario = {"count": scenario} if isinstance(scenario, int) else dict(scenario)
        scenario["debug"] = True
    lab = Lab(scenario, name=args.name, build_dir=args.build_dir,
              daemons=not args.no_daemons, simulators=not args.no_simulators,
              monitor=args.monitor)
    lab.up(progress=lambda text: print(f"  {text}", flush=True))
    # The lab outlives this command; only a failed `up` tears it down.
    from . import lab as labmod
    labmod._live_labs.remove(lab)
    print(f"lab {lab.name} is up: {', '.join(ap.name for ap in lab.aps)}")
    print(f"  try: lab/lab exec {lab.aps[0].name} -- tarn show")
    if lab.with_monitor:
        print("  Prometheus: lab/lab query 'tarn_neighbors_learned'  (or ip netns exec "
              f"{monitor.prometheus_netns(lab)} ..., port {monitor.PROMETHEUS_PORT})")
    return 0


def cmd_exec(args):
    _need_root()
    lab = Lab.load(args.name)
    ap = lab.ap(args.ap)
    command = args.command[1:] if args.command[:1] == ["--"] else args.command
    if not command:
        command = ["/bin/sh"]
    # The command shares the terminal: Ctrl-C reaches it directly, and this process waits.
    # (Ignored only after the start: an ignored signal would stay ignored in the command.)
    proc = ap.popen(command, stdin=None)
    previous = signal.signal(signal.SIGINT, signal.SIG_IGN)
    try:
        return proc.wait()
    finally:
        signal.signal(signal.SIGINT, previous)


def _radio_options(args):
    return {key: getattr(args, key) for key in ("radio", "channel", "rssi", "bandwidth",
                                                "txpower") if getattr(args, key) is not None}


def cmd_hear(args):
    lab = Lab.load(args.name)
    reply = lab.ap(args.ap).hear(args.other, **_radio_options(args))
    print(json.dumps(reply))
    return 0


def cmd_unhear(args):
    lab = Lab.load(args.name)
    print(json.dumps(lab.ap(args.ap).unhear(args.other)))
    return 0


def cmd_drop(args):
    lab = Lab.load(args.name)
    print(json.dumps(lab.ap(args.ap).drop(args.other)))
    return 0


def cmd_leave(args):
    """The AP goes off the air: every other AP's driver drops it (event 6), or with
    --silently just stops reporting it, so that ageing marks it offline later."""
    lab = Lab.load(args.name)
    leaving = lab.ap(args.ap)
    for ap in lab.aps:
        if ap is not leaving and ap.sim_pid:
            reply = ap.sim_command({"cmd": "unhear" if args.silently else "drop",
                                    "mac": leaving.mac}) if _hears(ap, leaving) else None
            if reply is not None:
                print(f"{ap.name}: {'stopped reporting' if args.silently else 'dropped'} "
                      f"{leaving.name}")
    return 0


def _hears(ap, other):
    heard = ap.sim_command({"cmd": "status"})["heard"]
    return any(entry["mac"] == other.mac for entry in heard)


def cmd_cache(args):
    lab = Lab.load(args.name)
    print(json.dumps(lab.ap(args.ap).sim_command({"cmd": "cache"})))
    return 0


def cmd_logs(args):
    lab = Lab.load(args.name)
    ap = lab.ap(args.ap)
    path = {"tarn": ap.log_path, "sim": os.path.join(ap.dir, "sim.log"),
            "calls": os.path.join(ap.dir, "calls.log"), "driver": ap.record_path}[args.what]
    if args.follow:
        return subprocess.call(["tail", "-n", "+1", "-f", path])
    with open(path, encoding="utf-8", errors="replace") as handle:
        sys.stdout.write(handle.read())
    if args.what in ("tarn", "driver") and os.path.getsize(path) >= ap.log_limit:
        print(f"lab: {path} reached the lab's log limit of {ap.log_limit} bytes; later lines "
              f"were not kept", file=sys.stderr)
    return 0


def cmd_status(args):
    try:
        lab = Lab.load(args.name)
    except LabError as exc:
        print(exc)
        return 1
    print(f"lab {lab.name}: {len(lab.aps)} APs, build {lab.build_dir}")
    for ap in lab.aps:
        def state(pid):
            return f"pid {pid}" if pid and pid_alive(pid) else "not running"
        print(f"  {ap.name:<6} {ap.mac}  {ap.ip4 or '-':<15} {ap.ip6:<20} "
              f"tarn {state(ap.daemon_pid):<14} simulator {state(ap.sim_pid):<14} "
              f"mounts {state(ap.holder_pid)}")
    if lab.with_monitor:
        ip4, ip6 = monitor.prometheus_addresses(lab)
        print(f"  {monitor.PROMETHEUS_NODE:<6} {ip4:<15} {ip6:<20} "
              f"Prometheus {state(lab.prometheus_pid)} on port {monitor.PROMETHEUS_PORT}")
    return 0


def cmd_query(args):
    lab = Lab.load(args.name)
    if not lab.with_monitor:
        raise LabError(f"lab {lab.name} runs no Prometheus: start it with `lab up --monitor`")
    samples = monitor.query(lab, args.expression)
    if not samples:
        print("(no samples)", file=sys.stderr)
    for labels, value in samples:
        text = ",".join(f"{key}={json.dumps(val, ensure_ascii=False)}"
                        for key, val in sorted(labels.items()))
        print(f"{{{text}}} {value:g}")
    return 0


def cmd_down(args):
    _need_root()
    if args.all:
        removed = teardown_all()
        print(f"removed: {', '.join(removed) if removed else 'nothing'}")
        return 0
    try:
        lab = Lab.load(args.name)
    except LabError:
        lab = Lab(1, name=args.name)  # sweeps namespaces left without a state file
    left = lab.leftovers()
    lab.down()
    print(f"lab {args.name} down" if left else f"lab {args.name} was not up")
    return 0


def cmd_converge(args):
    from . import scale
    lab = Lab.load(args.name)
    ok = scale.converge(lab, timeout=args.timeout, cache_every=args.cache_every,
                        out=lambda text: print(text, flush=True))
    return 0 if ok else 1


def cmd_graph(args):
    from . import graph
    lab = Lab.load(args.name)
    path, counts, view = graph.render(lab, args.out, args.format, labels=not args.no_labels)
    kinds = ("discovered", "offline", "unanswered", "heard", "static")
    print(f"{path}  ({', '.join(f'{counts[kind]} {kind}' for kind in kinds)} edges)")
    for name, error in sorted(view.errors.items()):
        print(f"  {name}: no table: {error}")
    return 0


def cmd_web(args):
    _need_root()
    from .web import PageServer
    lab = Lab.load(args.name)
    ap = lab.ap(args.ap)
    server = PageServer(ap, port=args.port).start(detach=True)
    print(f"{ap.name} serves the neighbor page at {server.url()} (busybox httpd, pid "
          f"{server.proc.pid}; `lab down` ends it)")
    print(f"  the address lies inside the lab: lab/lab exec {ap.name} -- busybox wget -qO- "
          f"{server.base_url}/cgi-bin/tarn-neighbors")
    return 0


def cmd_demo(args):
    from .demo import run_demo
    return run_demo(count=args.count, timeout=args.timeout, name=args.name,
                    build_dir=args.build_dir)


def build_parser():
    parser = argparse.ArgumentParser(prog="lab", description="Virtual APs running tarn.")
    parser.add_argument("--name", default=os.environ.get("TARN_LAB_NAME", "default"),
                        help="lab name, so that several labs can run side by side")
    parser.add_argument("--build-dir", default=default_build_dir(),
                        help="directory with tarn and tarn-bus (env TARN_BUILD_DIR)")
    sub = parser.add_subparsers(dest="command", required=True)

    up = sub.add_parser("up", help="start N APs (default 4) or a scenario file")
    up.add_argument("scenario", nargs="?", help="number of APs or scenario JSON file")
    up.add_argument("--no-daemons", action="store_true", help="build the APs, start no tarn")
    up.add_argument("--no-simulators", action="store_true", help="start no driver simulator")
    up.add_argument("--monitor", action="store_true",
                    help="on every AP the metrics writer and a node exporter; a Prometheus "
                    "server scraping them")
    up.add_argument("--debug", action="store_true",
                    help="daemons log with -D (each AP's log keeps its first 1 MiB)")
    up.set_defaults(func=cmd_up)

    ex = sub.add_parser("exec", help="run a command inside an AP: exec ap1 -- tarn show")
    ex.add_argument("ap")
    ex.add_argument("command", nargs=argparse.REMAINDER)
    ex.set_defaults(func=cmd_exec)

    for name, func, text in (("hear", cmd_hear, "make AP's driver hear OTHER"),
                             ("unhear", cmd_unhear, "stop reporting OTHER (no event)"),
                             ("drop", cmd_drop, "stop reporting OTHER and send a drop event")):
        cmd = sub.add_parser(name, help=text)
        cmd.add_argument("ap")
        cmd.add_argument("other", help="AP name or MAC")
        if name == "hear":
            for option in ("radio", "channel", "rssi", "bandwidth", "txpower"):
                cmd.add_argument(f"--{option}", type=int)
        cmd.set_defaults(func=func)

    leave = sub.add_parser("leave", help="AP goes off the air: every driver drops it")
    leave.add_argument("ap")
    leave.add_argument("--silently", action="store_true",
                       help="the drivers stop reporting it without a drop event")
    leave.set_defaults(func=cmd_leave)

    cache = sub.add_parser("cache", help="make AP's driver send a neighbor cache reply now")
    cache.add_argument("ap")
    cache.set_defaults(func=cmd_cache)

    logs = sub.add_parser("logs", help="show an AP's tarn log (or sim, calls, driver)")
    logs.add_argument("ap")
    logs.add_argument("what", nargs="?", default="tarn", choices=("tarn", "sim", "calls",
                                                                   "driver"))
    logs.add_argument("-f", "--follow", action="store_true")
    logs.set_defaults(func=cmd_logs)

    status = sub.add_parser("status", help="what runs in the lab")
    status.set_defaults(func=cmd_status)

    query = sub.add_parser("query", help="instant query to the lab's Prometheus (--monitor)")
    query.add_argument("expression")
    query.set_defaults(func=cmd_query)

    down = sub.add_parser("down", help="stop the lab and remove everything it made")
    down.add_argument("--all", action="store_true", help="every lab on this machine")
    down.set_defaults(func=cmd_down)

    conv = sub.add_parser("converge", help="wait until every table holds min(heard, 64) "
                          "neighbors with name and version; CPU and RSS per daemon")
    conv.add_argument("--timeout", type=float, default=600.0)
    conv.add_argument("--cache-every", type=float, default=0.0, metavar="S",
                      help="every S seconds each driver sends a cache reply (time values)")
    conv.set_defaults(func=cmd_converge)

    graph = sub.add_parser("graph", help="draw the tables and the drivers' reports as they "
                           "are now (Graphviz)")
    graph.add_argument("--out", help="output file (default /tmp/tarn-lab-NAME.FORMAT)")
    graph.add_argument("--format", default="svg", choices=("svg", "png"))
    graph.add_argument("--no-labels", action="store_true",
                       help="no channel and RSSI on the edges (large labs draw faster)")
    graph.set_defaults(func=cmd_graph)

    web = sub.add_parser("web", help="serve the neighbor page from AP (busybox httpd on its "
                         "uplink address, CGI running tarn-info)")
    web.add_argument("ap")
    web.add_argument("--port", type=int, default=8080)
    web.set_defaults(func=cmd_web)

    demo = sub.add_parser("demo", help="four APs discover each other; prints AP 1's tables")
    demo.add_argument("--count", type=int, default=4)
    demo.add_argument("--timeout", type=float, default=60.0)
    demo.set_defaults(func=cmd_demo, name="demo")
    return parser


def main(argv=None):
    args = build_parser().parse_args(argv)
    signal.signal(signal.SIGTERM, _interrupt)
    signal.signal(signal.SIGHUP, _interrupt)
    try:
        return args.func(args)
    except LabError as exc:
        print(f"lab: {exc}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        # A lab this command was building is torn down on the way out (see Lab.up and the
        # exit hook of tarnlab.lab); a lab that was up before is left running.
        print("\nlab: interrupted", file=sys.stderr)
        return 130
