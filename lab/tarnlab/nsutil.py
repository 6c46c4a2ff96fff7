"""Network and mount namespace plumbing shared by the lab and the system tests.

Everything here shells out to iproute2 and util-linux (ip, nsenter, unshare), except
`netns_entered`, which switches the calling thread's network namespace with setns(2) so that
sockets can be opened (and /proc/sys/net values written, `sysctl_in`) inside an AP from this
process itself.
"""

import contextlib
import ctypes
import os
import shlex
import signal
import subprocess
import threading
import time

NETNS_DIR = "/run/netns"
CLONE_NEWNET = 0x40000000


class LabError(RuntimeError):
    """A lab operation failed; the message says what and why."""


def run(argv, check=True, timeout=30, input_text=None):
    """Runs a short command and returns its CompletedProcess (text output captured)."""
    try:
        proc = subprocess.run(argv, capture_output=True, text=True, timeout=timeout,
                              input=input_text, check=False)
    except subprocess.TimeoutExpired as exc:
        raise LabError(f"command timed out after {timeout}s: {' '.join(argv)}") from exc
    if check and proc.returncode != 0:
        raise LabError(f"command failed ({proc.returncode}): {' '.join(argv)}\n"
                       f"{proc.stderr.strip()}")
    return proc


def is_root():
    return os.geteuid() == 0


def netns_path(name):
    return os.path.join(NETNS_DIR, name)


def netns_list():
    """Names of the named network namespaces (those under /run/netns)."""
    try:
        return sorted(os.listdir(NETNS_DIR))
    except FileNotFoundError:
        return []


def netns_exists(name):
    return os.path.exists(netns_path(name))


def netns_pids(name):
    """Process ids of every process whose network namespace is `name`."""
    if not netns_exists(name):
        return []
    proc = run(["ip", "netns", "pids", name], check=False)
    return [int(word) for word in proc.stdout.split() if word.isdigit()]


def netns_delete(name):
    if netns_exists(name):
        run(["ip", "netns", "delete", name], check=False)


def pid_alive(pid):
    """True while `pid` exists and is not a zombie."""
    try:
        with open(f"/proc/{pid}/stat", "rb") as stat:
            fields = stat.read().rsplit(b")", 1)[1].split()
        return fields[0] != b"Z"
    except (FileNotFoundError, ProcessLookupError, IndexError):
        return False


def process_state(pid):
    """One-letter scheduler state of every thread of `pid` (R, S, T, Z ...)."""
    states = []
    try:
        for tid in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{tid}/stat", "rb") as stat:
                states.append(stat.read().rsplit(b")", 1)[1].split()[0].decode())
    except FileNotFoundError:
        pass
    return states


def kill_pids(pids, grace=2.0):
    """SIGTERM the given processes, then SIGKILL those still alive after `grace` seconds.

    Returns once every one of them is gone (or a zombie waiting for its parent)."""
    pids = [pid for pid in pids if pid_alive(pid)]
    for pid in pids:
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, signal.SIGCONT)  # a stopped process would not act on SIGTERM
            os.kill(pid, signal.SIGTERM)
    deadline = time.monotonic() + grace
    while time.monotonic() < deadline and any(pid_alive(pid) for pid in pids):
        time.sleep(0.02)
    for pid in pids:
        if pid_alive(pid):
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
    deadline = time.monotonic() + 5.0
    while time.monotonic() < deadline and any(pid_alive(pid) for pid in pids):
        time.sleep(0.02)
    reap()


def remove_netns(name):
    """Ends every process inside the namespace and deletes it; the mount namespaces held by
    those processes go with them."""
    for _ in range(3):
        pids = netns_pids(name)
        if not pids:
            break
        kill_pids(pids)
    netns_delete(name)


def nsenter_argv(holder_pid):
    """Prefix that runs a command in the network and mount namespaces of `holder_pid`."""
    return ["nsenter", "-t", str(holder_pid), "-m", "-n", "--"]


def run_batches(batches, parallel=8, timeout=120):
    """Runs `ip -batch -` once per (ip options, command lines) pair, `parallel` at a time:
    one process per namespace instead of one per link or address. Raises LabError naming
    the first batch that failed."""
    pending = list(batches)
    running = []
    failed = []

    def finish(proc, options, lines):
        out, err = proc.communicate(timeout=timeout)
        if proc.returncode != 0:
            failed.append(f"ip {' '.join(options)} -batch: {err.strip()}\n"
                          + "\n".join(lines))

    while pending or running:
        while pending and len(running) < parallel:
            options, lines = pending.pop(0)
            proc = subprocess.Popen(["ip"] + list(options) + ["-batch", "-"],
                                    stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                    stderr=subprocess.PIPE, text=True)
            proc.stdin.write("\n".join(lines) + "\n")
            proc.stdin.close()
            proc.stdin = None
            running.append((proc, options, lines))
        finish(*running.pop(0))
    if failed:
        raise LabError(f"command failed: {failed[0]}")


def sysctl_in(netns, settings):
    """Writes /proc/sys values inside a network namespace (entered by this thread only), with
    no process started: net.* values belong to the namespace of whoever opens them."""
    with netns_entered(netns):
        for key, value in settings:
            with open("/proc/sys/" + key.replace(".", "/"), "w", encoding="ascii") as handle:
                handle.write(str(value))


def start_holder(netns, tmpfs_dirs, mkdirs, log_path, keep=(), stash_dir=None):
    """Starts the long-lived process that owns an AP's private mount namespace: with
    wait_holder, once the mounts are in place, its pid. Several may be started before the
    first is waited for."""
    return wait_holder(spawn_holder(netns, tmpfs_dirs, mkdirs, log_path, keep, stash_dir))


def spawn_holder(netns, tmpfs_dirs, mkdirs, log_path, keep=(), stash_dir=None):
    """Starts the holder: it joins `netns`, unshares its mounts (private propagation), mounts a
    sysfs that shows the namespace's own links, mounts a tmpfs on each of `tmpfs_dirs`,
    creates `mkdirs` and then sleeps until killed. Directories of `keep` that lie under one of
    the tmpfs mounts (a build directory under /tmp, say) stay visible at their own path: they
    are bind-mounted aside into `stash_dir` first and moved back on top of the new tmpfs."""
    for mount_point in tmpfs_dirs:
        # A tmpfs needs an existing mount point; one created here stays as an empty directory.
        os.makedirs(mount_point, exist_ok=True)
    hidden = [path for path in keep
              if any(path == d or path.startswith(d.rstrip("/") + "/") for d in tmpfs_dirs)]
    steps = ["set -e", "umount -l /sys", "mount -t sysfs sysfs /sys"]
    for number, path in enumerate(hidden):
        stash = os.path.join(stash_dir, str(number))
        os.makedirs(stash, exist_ok=True)
        steps.append(f"mount --bind {shlex.quote(path)} {shlex.quote(stash)}")
    for mount_point in tmpfs_dirs:
        steps.append(f"mount -t tmpfs -o mode=1777,size=64m tarnlab {mount_point}")
    for number, path in enumerate(hidden):
        stash = os.path.join(stash_dir, str(number))
        steps.append(f"mkdir -p {shlex.quote(path)}")
        steps.append(f"mount --move {shlex.quote(stash)} {shlex.quote(path)}")
    for directory in mkdirs:
        steps.append(f"mkdir -p {directory}")
    steps += ["echo ready", "exec sleep infinity </dev/null >/dev/null 2>&1"]
    argv = ["nsenter", f"--net={netns_path(netns)}", "--", "unshare", "--mount",
            "--propagation", "private", "--", "/bin/sh", "-c", "\n".join(steps)]
    with open(log_path, "ab") as log:
        proc = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=log,
                                stdin=subprocess.DEVNULL, start_new_session=True)
    with _spawned_lock:
        _spawned.append(proc)
    proc.holder_of = (netns, log_path)
    return proc


def wait_holder(proc):
    """The holder's pid once its mounts are in place."""
    line = proc.stdout.readline()
    proc.stdout.close()
    if line.strip() != b"ready":
        proc.wait(timeout=5)
        netns, log_path = proc.holder_of
        raise LabError(f"mount namespace holder for {netns} failed; see {log_path}")
    return proc.pid


# Children started by this process. The holders, daemons and simulators of a command-line lab
# outlive the command; inside a test run they are reaped here once teardown has ended them.
_spawned = []
_spawned_lock = threading.Lock()


def spawn(argv, **kwargs):
    proc = subprocess.Popen(argv, **kwargs)
    with _spawned_lock:
        _spawned.append(proc)
    return proc


def reap():
    """Collects the exit status of children that have ended, so none stays a zombie. Safe
    from several threads (the lab reads many APs' tables side by side)."""
    with _spawned_lock:
        _spawned[:] = [proc for proc in _spawned if proc.poll() is None]


_libc = ctypes.CDLL(None, use_errno=True)


def _setns(fd, nstype):
    if _libc.setns(fd, nstype) != 0:
        err = ctypes.get_errno()
        raise OSError(err, os.strerror(err))


@contextlib.contextmanager
def netns_entered(name_or_path):
    """Runs the body with the calling thread in another network namespace.

    Sockets created inside the body stay in that namespace after it ends."""
    path = name_or_path if name_or_path.startswith("/") else netns_path(name_or_path)
    own = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
    target = os.open(path, os.O_RDONLY)
    try:
        _setns(target, CLONE_NEWNET)
        try:
            yield
        finally:
            _setns(own, CLONE_NEWNET)
    finally:
        os.close(target)
        os.close(own)
