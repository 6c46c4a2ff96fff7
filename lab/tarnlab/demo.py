"""`lab demo`: four APs find each other; AP 1's tables are printed; everything is removed."""

import os
import sys
import time

from . import graph, nsutil
from .lab import Lab, LabError


def _progress(status, elapsed, total):
    parts = []
    for ap, problems in status.items():
        parts.append(f"{ap} {total - len(problems)}/{total}")
    return f"[{elapsed:4.1f}s] waiting for discovery: {'  '.join(parts)}"


def _remove_abandoned(name):
    """Removes a demo lab whose demo process was killed before it could clean up."""
    try:
        old = Lab.load(name)
    except (LabError, ValueError, KeyError):
        return
    if old.owner_pid and not nsutil.pid_alive(old.owner_pid):
        old.down()


def run_demo(count=4, timeout=60.0, name="demo", build_dir=None, out=sys.stdout):
    if not nsutil.is_root():
        print("lab demo: needs root to create network and mount namespaces; "
              "run it with sudo (or as root)", file=sys.stderr)
        return 1
    tty = out.isatty()
    _remove_abandoned(name)
    lab = Lab(count, name=name, build_dir=build_dir, owner_pid=os.getpid())
    print(f"Starting {count} virtual APs (lab '{name}') ...", file=out, flush=True)
    try:
        lab.up(progress=lambda text: print(f"  {text}", file=out, flush=True))
        peers = count - 1
        start = time.monotonic()
        last_counts, last_print = None, 0.0
        while True:
            status = lab.discovery_status()
            elapsed = time.monotonic() - start
            line = _progress(status, elapsed, peers)
            counts = [len(problems) for problems in status.values()]
            if tty:
                out.write("\r\033[K" + line)
                out.flush()
            elif counts != last_counts or elapsed - last_print >= 5:
                # Without a terminal: a line when something changed, else every 5 s.
                print(line, file=out, flush=True)
                last_counts, last_print = counts, elapsed
            if not any(status.values()):
                if tty:
                    out.write("\r\033[K")
                print(f"Every AP lists its {peers} neighbors with name and version "
                      f"({elapsed:.1f}s).", file=out)
                break
            dead = [ap.name for ap in lab.aps if not ap.daemon_running()]
            if dead or elapsed > timeout:
                if tty:
                    out.write("\n")
                if dead:
                    why = "failed: tarn stopped in " + ", ".join(
                        f"{ap_name} ({lab.ap(ap_name).daemon_status()})" for ap_name in dead)
                else:
                    why = f"not complete after {timeout:.0f}s"
                print(f"lab demo: discovery {why}. Missing:", file=sys.stderr)
                for ap_name, problems in status.items():
                    if problems:
                        print(f"  {ap_name}: {', '.join(problems)}", file=sys.stderr)
                first = dead[0] if dead else lab.aps[0].name
                print(f"Last lines of {first}'s log:\n{lab.ap(first).log_tail(15)}",
                      file=sys.stderr)
                return 1
            time.sleep(0.5)

        first = lab.aps[0]
        for args in (["show"], ["show", "neighbor"]):
            print(f"\n$ tarn {' '.join(args)}    (on {first.name}, {first.mac})", file=out)
            result = first.tarn(*args)
            out.write(result.stdout)
            if result.returncode != 0 or result.stderr.strip():
                print(f"(exit {result.returncode}) {result.stderr}", file=out)
        try:
            path, _, _ = graph.render(lab)
            print(f"\nPicture of the lab (what each table holds and each driver hears, now): "
                  f"{path}", file=out)
        except (LabError, OSError) as exc:
            print(f"\n(no picture of the lab: {exc})", file=out)
        out.flush()
        return 0
    except LabError as exc:
        print(f"\nlab demo: {exc}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("\nlab demo: interrupted", file=sys.stderr)
        return 130
    finally:
        print("\nRemoving the lab ...", file=out, flush=True)
        lab.down()
        left = lab.leftovers()
        print("Done: no namespace, mount or process of the demo is left." if not left else
              f"Left behind: {left}", file=out)
