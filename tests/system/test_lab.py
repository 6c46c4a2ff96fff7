"""The lab itself: what `up` builds for each AP, and that teardown leaves nothing behind
(daemons hearing the simulators are covered by the discovery tests)."""

import os
import signal
import socket
import subprocess
import sys

from tarnlab import lab as labmod
from tarnlab import nsutil
from tarnlab.nsutil import netns_entered, pid_alive

LAB_SCRIPT = os.path.join(labmod.LAB_DIR, "lab")


def leftovers(name, pids=()):
    """What of lab `name` still exists: namespaces, mounts, state, live processes."""
    found = [ns for ns in nsutil.netns_list() if ns.startswith(f"tarnlab-{name}-")]
    with open("/proc/self/mountinfo", encoding="utf-8") as mounts:
        found += [line.split()[4] for line in mounts if f"tarnlab-{name}-" in line]
    if os.path.exists(os.path.join(labmod.STATE_ROOT, name)):
        found.append("state directory")
    found += [f"pid {pid}" for pid in pids if pid and pid_alive(pid)]
    return found


def lab_pids(lab):
    return [pid for ap in lab.aps for pid in (ap.holder_pid, ap.daemon_pid, ap.sim_pid)]


def udp_reaches(sender, receiver, address, family):
    """True when a datagram sent from one AP to `address` arrives in the other."""
    with netns_entered(receiver.netns):
        rx = socket.socket(family, socket.SOCK_DGRAM)
    with netns_entered(sender.netns):
        tx = socket.socket(family, socket.SOCK_DGRAM)
    with rx, tx:
        rx.bind((address, 40123))
        rx.settimeout(2)
        tx.sendto(b"lab", (address, 40123))
        try:
            return rx.recvfrom(16)[0] == b"lab"
        except socket.timeout:
            return False


def test_two_aps_are_built_and_removed_completely(make_lab):
    lab = make_lab(2, daemons=False)
    ap1, ap2 = lab.ap("ap1"), lab.ap("ap2")

    # Namespaces: one per AP and one for the bridge, whose ports are the APs' uplinks.
    assert {f"tarnlab-{lab.name}-{n}" for n in ("br", "ap1", "ap2")} <= set(nsutil.netns_list())
    ports = nsutil.run(["ip", "-n", lab.bridge_netns, "-o", "link", "show", "master",
                        "br0"]).stdout
    assert " ap1@" in ports and " ap2@" in ports
    assert "br0" not in nsutil.run(["ip", "-o", "link"]).stdout

    # Links as the daemon sees them through sysfs and /proc inside the AP.
    links = ap1.exec(["ls", "/sys/class/net"], check=True).stdout.split()
    assert sorted(links) == ["ath00", "ath10", "eth0", "lo", "rp0", "rp1", "vp00", "vp10",
                             "wifi0", "wifi1"]
    vaps = ap1.exec(["sh", "-c", 'ls /sys/class/net/ | grep -E "ath[0-9]{2}$" | wc -l'])
    assert vaps.stdout.strip() == "2"
    radios = ap1.exec(["sh", "-c", "cat /proc/net/dev | grep wifi | wc -l"])
    assert radios.stdout.strip() == "2"
    addresses = ap1.exec(["ip", "-o", "addr", "show", "dev", "eth0"]).stdout
    assert f"inet {ap1.ip4}/24" in addresses and f"inet6 {ap1.ip6}/64" in addresses
    assert ap1.mac in ap1.exec(["ip", "-o", "link", "show", "eth0"]).stdout

    # The uplinks meet on the bridge over IPv4 and IPv6.
    assert udp_reaches(ap1, ap2, ap2.ip4, socket.AF_INET)
    assert udp_reaches(ap2, ap1, ap1.ip6, socket.AF_INET6)

    # Private /tmp and /var/config.
    ap1.write_file("/tmp/only-here", "x")
    assert not os.path.exists(ap2.path("/tmp/only-here"))
    assert not os.path.exists("/tmp/only-here")
    mounts = ap1.exec(["sh", "-c", "grep -E ' /(tmp|var/config) ' /proc/self/mounts"]).stdout
    assert mounts.count("tmpfs") == 2
    assert os.path.isdir(ap1.path("/tmp/socket"))
    assert ap1.read_file("/tmp/pvc-info") == f"1:{ap1.ip4}:2:1:02-7a-00-00-00-01\n"

    # Driver simulator alive and listening at its netlink port.
    assert ap1.sim_command({"cmd": "status"})["port"] == ap1.config["driver_port"]

    pids = lab_pids(lab)
    lab.down()
    assert leftovers(lab.name, pids) == []


def test_stand_ins_answer_the_daemons_commands(make_lab):
    lab = make_lab({"aps": [{"hostname": "alpha", "version": "2.5.1", "mode": "CLUSTER",
                             "tenant": "t-42", "qv_ip": "10.99.0.7", "radios": 3},
                            {}]},
                   daemons=False, simulators=False)
    ap = lab.ap("ap1")

    def answer(command):
        return ap.exec(["sh", "-c", command]).stdout

    assert answer("getqvinfo") == "10.99.0.7\n"
    assert answer("showver") == "2.5.1\n"
    assert answer("getupifname") == "eth0\n"
    assert answer("getmode") == "CLUSTER\n"
    assert answer("uci get system.sysinfo.hostname") == "alpha\n"
    assert answer("uci -c /etc/.system/ get spec.wifi.count") == "4\n"
    assert answer("showsysinfo  | grep MAC | awk -F':' '{print $2,$3,$4,$5,$6,$7 }'") == \
        "02 7a 00 00 00 01\n"
    assert answer("cat /tmp/zef_cloudinfo | grep tenantId  | awk -F ':' '{print $2}'") == \
        "t-42\n"
    assert ap.exec(["uci", "get", "no.such.key"]).returncode == 1

    assert ap.exec(["sh", "-c", "uci set tarn.config.version=9;uci commit tarn"]).returncode \
        == 0
    assert ap.exec(["sh", "-c", "iwpriv wifi0 tarn_bcnUpdate 1"]).returncode == 0
    assert ap.exec(["sh", "-c", "ubus call userconfig_reload userconfig_save"]).returncode == 0
    assert ap.uci()["tarn.config.version"] == "9"
    with open(os.path.join(ap.dir, "uci.commits"), encoding="utf-8") as commits:
        assert commits.read() == "tarn\n"
    calls = [command for _, command in ap.calls()]
    assert "uci set tarn.config.version=9" in calls
    assert "iwpriv wifi0 tarn_bcnUpdate 1" in calls
    assert "ubus call userconfig_reload userconfig_save" in calls

    # Answers can change while the lab runs.
    ap.set_value("version", "2.6.0")
    ap.set_value("system.sysinfo.hostname", "beta")
    assert answer("showver") == "2.6.0\n"
    assert answer("uci get system.sysinfo.hostname") == "beta\n"


def test_scenario_options_shape_the_aps(make_lab):
    lab = make_lab({"aps": [{"ipv6_only": True, "vaps": [], "radios": 1, "cluster": None,
                             "tenant": None,
                             "static_neighbors": ["ap2", {"mac": "02:00:00:00:00:33"}]},
                            {}]},
                   daemons=False, simulators=False)
    ap1, ap2 = lab.ap("ap1"), lab.ap("ap2")

    addresses = ap1.exec(["ip", "-o", "addr", "show", "dev", "eth0"]).stdout
    assert " inet " not in addresses and f"inet6 {ap1.ip6}/64" in addresses
    assert sorted(ap1.exec(["ls", "/sys/class/net"]).stdout.split()) == ["eth0", "lo", "rp0",
                                                                         "wifi0"]
    assert not os.path.exists(ap1.path("/tmp/pvc-info"))
    assert not os.path.exists(ap1.path("/tmp/zef_cloudinfo"))
    assert ap1.read_file("/var/config/static_neighbor.conf").replace(" ", "").replace(
        "\n", "") == ('{"static_neighbor":[{"mac":"%s","ip":"%s","ip6":"%s"},'
                      '{"mac":"02:00:00:00:00:33"}]}' % (ap2.mac, ap2.ip4, ap2.ip6))


def test_teardown_ends_strays_and_survives_a_crashed_simulator(make_lab):
    lab = make_lab(2, daemons=False)
    ap1 = lab.ap("ap1")
    stray = ap1.popen(["sleep", "300"])
    os.kill(ap1.sim_pid, signal.SIGKILL)

    pids = lab_pids(lab) + [stray.pid]
    lab.down()
    stray.wait(5)
    assert leftovers(lab.name, pids) == []


def test_interrupt_tears_down_a_lab_of_the_interrupted_process(tmp_path):
    from conftest import unique_lab_name
    name = unique_lab_name()
    script = (
        "import signal, sys, time\n"
        # A run started in the background inherits SIGINT ignored; Ctrl-C is what is tested.
        "signal.signal(signal.SIGINT, signal.default_int_handler)\n"
        f"sys.path.insert(0, {labmod.LAB_DIR!r})\n"
        "from tarnlab import Lab\n"
        f"lab = Lab(2, name={name!r}, daemons=False).up()\n"
        "print(' '.join(str(p) for ap in lab.aps for p in (ap.holder_pid, ap.sim_pid)),\n"
        "      flush=True)\n"
        "time.sleep(60)\n")
    proc = subprocess.Popen([sys.executable, "-c", script], stdout=subprocess.PIPE, text=True)
    try:
        pids = [int(word) for word in proc.stdout.readline().split()]
        assert len(pids) == 4 and leftovers(name) != []
        proc.send_signal(signal.SIGINT)
        proc.wait(30)
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.wait()
            labmod.Lab(1, name=name).down()
    assert leftovers(name, pids) == []


def test_command_line_up_status_exec_down(tmp_path):
    from conftest import unique_lab_name
    name = unique_lab_name()

    def lab_cmd(*args, check=True):
        result = subprocess.run([LAB_SCRIPT, "--name", name] + list(args),
                                capture_output=True, text=True, timeout=60)
        if check:
            assert result.returncode == 0, result.stderr
        return result

    try:
        lab_cmd("up", "2", "--no-daemons")
        again = lab_cmd("up", "2", "--no-daemons", check=False)
        assert again.returncode == 1 and "already up" in again.stderr
        status = lab_cmd("status").stdout
        assert "ap1" in status and "ap2" in status
        assert lab_cmd("exec", "ap2", "--", "uci", "get", "system.sysinfo.hostname").stdout \
            == "lab-ap2\n"
        pids = lab_pids(labmod.Lab.load(name))
    finally:
        lab_cmd("down", check=False)
    assert leftovers(name, pids) == []
    after = lab_cmd("status", check=False)
    assert after.returncode == 1 and f"no lab '{name}' is up" in after.stdout
