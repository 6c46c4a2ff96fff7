"""Stand-ins for the AP platform's commands, one set per lab AP.

Each command is a small /bin/sh script in <ap dir>/bin that appends its own command line to
<ap dir>/calls.log ("<epoch seconds> <name> <arguments>") and answers from the AP's value files
(<ap dir>/values/<key>) or its `uci` store (<ap dir>/uci.db, lines "key=value"), so a test can
change an answer while the daemon runs.
"""

import os
import shlex

# key of the value file -> command that prints it
VALUE_COMMANDS = {
    "qv_ip": "getqvinfo",
    "version": "showver",
    "uplink": "getupifname",
    "mode": "getmode",
}

UCI_HOSTNAME = "system.sysinfo.hostname"
UCI_WIFI_COUNT = "spec.wifi.count"
UCI_VERSION = "tarn.config.version"

COMMANDS = sorted(list(VALUE_COMMANDS.values()) + ["showsysinfo", "uci", "iwpriv", "ubus"])


def _log_line(ap_dir, name):
    log = shlex.quote(os.path.join(ap_dir, "calls.log"))
    return f'printf \'%s %s\\n\' "$(date +%s.%N)" "{name} $*" >> {log}'


def _value_script(ap_dir, name, key):
    value = shlex.quote(os.path.join(ap_dir, "values", key))
    return f"""#!/bin/sh
{_log_line(ap_dir, name)}
cat {value} 2>/dev/null
"""


def _showsysinfo_script(ap_dir):
    value = shlex.quote(os.path.join(ap_dir, "values", "mac"))
    return f"""#!/bin/sh
{_log_line(ap_dir, "showsysinfo")}
echo "Model:LAB-AP"
printf 'MAC:%s\\n' "$(cat {value})"
echo "Serial:LAB0000"
"""


def _uci_script(ap_dir):
    db = shlex.quote(os.path.join(ap_dir, "uci.db"))
    commits = shlex.quote(os.path.join(ap_dir, "uci.commits"))
    return f"""#!/bin/sh
{_log_line(ap_dir, "uci")}
while [ $# -gt 0 ]; do
    case "$1" in
        -c|-d|-p|-P) shift 2 ;;
        -*) shift ;;
        *) break ;;
    esac
done
cmd=$1
[ $# -gt 0 ] && shift
case "$cmd" in
    get)
        awk -v k="$1" 'index($0, k "=") == 1 {{ print substr($0, length(k) + 2); found = 1; exit }}
                       END {{ exit !found }}' {db} 2>/dev/null && exit 0
        echo "uci: Entry not found" >&2
        exit 1 ;;
    set)
        key=${{1%%=*}}
        val=${{1#*=}}
        [ "$key" = "$1" ] && {{ echo "uci: Invalid argument" >&2; exit 1; }}
        {{ awk -v k="$key" 'index($0, k "=") != 1' {db} 2>/dev/null
          printf '%s=%s\\n' "$key" "$val"; }} > {db}.new && mv {db}.new {db} ;;
    commit)
        echo "${{1:-all}}" >> {commits} ;;
    *)
        echo "uci: unsupported in the lab: $cmd" >&2
        exit 1 ;;
esac
"""


def _recorder_script(ap_dir, name):
    return f"""#!/bin/sh
{_log_line(ap_dir, name)}
exit 0
"""


def write_standins(ap_dir, values, uci_values):
    """Creates <ap_dir>/bin with every stand-in, the value files and the uci store."""
    bin_dir = os.path.join(ap_dir, "bin")
    os.makedirs(bin_dir, exist_ok=True)
    os.makedirs(os.path.join(ap_dir, "values"), exist_ok=True)
    scripts = {name: _value_script(ap_dir, name, key) for key, name in VALUE_COMMANDS.items()}
    scripts["showsysinfo"] = _showsysinfo_script(ap_dir)
    scripts["uci"] = _uci_script(ap_dir)
    scripts["iwpriv"] = _recorder_script(ap_dir, "iwpriv")
    scripts["ubus"] = _recorder_script(ap_dir, "ubus")
    for name, text in scripts.items():
        path = os.path.join(bin_dir, name)
        with open(path, "w", encoding="utf-8") as script:
            script.write(text)
        os.chmod(path, 0o755)
    for key, value in values.items():
        set_value(ap_dir, key, value)
    for key, value in uci_values.items():
        set_uci(ap_dir, key, value)
    open(os.path.join(ap_dir, "calls.log"), "a", encoding="utf-8").close()
    return bin_dir


def set_value(ap_dir, key, value):
    """Changes what a value command prints from now on (None: it prints nothing)."""
    path = os.path.join(ap_dir, "values", key)
    tmp = path + ".new"
    with open(tmp, "w", encoding="utf-8") as handle:
        if value is not None:
            handle.write(f"{value}\n")
    os.replace(tmp, path)


def read_uci(ap_dir):
    store = {}
    try:
        with open(os.path.join(ap_dir, "uci.db"), encoding="utf-8") as db:
            for line in db:
                key, sep, value = line.rstrip("\n").partition("=")
                if sep:
                    store[key] = value
    except FileNotFoundError:
        pass
    return store


def set_uci(ap_dir, key, value):
    store = read_uci(ap_dir)
    if value is None:
        store.pop(key, None)
    else:
        store[key] = str(value)
    path = os.path.join(ap_dir, "uci.db")
    with open(path + ".new", "w", encoding="utf-8") as db:
        for item, text in store.items():
            db.write(f"{item}={text}\n")
    os.replace(path + ".new", path)


def read_calls(ap_dir):
    """The recorded stand-in calls as (time, command line) pairs, oldest first."""
    calls = []
    try:
        with open(os.path.join(ap_dir, "calls.log"), encoding="utf-8") as log:
            for line in log:
                stamp, _, command = line.rstrip("\n").partition(" ")
                try:
                    calls.append((float(stamp), command))
                except ValueError:
                    continue
    except FileNotFoundError:
        pass
    return calls
