#!/bin/sh
# The procd service script, run with stand-ins of the OpenWrt shell helpers it calls (UCI's
# config_load/config_get/config_get_bool, procd's instance calls): the command line and the
# instance parameters it gives procd for each set of options, and the directories it prepares
# (as root, in a private mount namespace with a fresh /tmp and /var).
set -eu

here=$(cd "$(dirname "$0")" && pwd)
init_text=$(cat "$here/../../openwrt/tarn/files/tarn.init")

# UCI: options of section "config" are given as name=value words.
config_load() { loaded=$1; }
config_get() {
	eval "$1=\${opt_$3-\${4-}}"
}
config_get_bool() {
	local value
	eval "value=\${opt_$3-}"
	case "$value" in
	1 | on | true | yes | enabled) value=1 ;;
	0 | off | false | no | disabled) value=0 ;;
	*) value=$4 ;;
	esac
	eval "$1=\$value"
}
# procd: the instance's command line and its other parameters, in the order given.
procd_open_instance() { command_line=; params=; }
procd_set_param() {
	local name=$1
	shift
	if [ "$name" = command ]; then command_line="$*"; else params="$params $name=$*"; fi
}
procd_append_param() {
	shift
	command_line="$command_line $*"
}
procd_close_instance() { :; }
procd_add_reload_trigger() { params="$params reload_trigger=$*"; }

# Runs start_service (and service_triggers, when defined) with the given options.
start_with() {
	for option in "$@"; do
		eval "opt_${option%%=*}=\${option#*=}"
	done
	eval "$init_text"
	start_service
	if command -v service_triggers >/dev/null; then service_triggers; fi
}

failures=0
check() {
	if [ "$2" = "$3" ]; then echo "ok   $1: $2" && return 0; fi
	echo "FAIL $1: got '$2', expected '$3'"
	failures=$((failures + 1))
}

# Directories: in a private mount namespace, /tmp/socket is made root's, mode 0700, whatever was
# at the path before; /var/config is created.
check_dirs() {
	mount -t tmpfs tmpfs /tmp
	mount -t tmpfs tmpfs /var
	for before in absent other-users-dir symlink file; do
		rm -rf /tmp/socket /tmp/elsewhere /var/config
		mkdir -m 0777 /tmp/elsewhere
		case $before in
		other-users-dir) mkdir -m 0777 /tmp/socket && chown 65534:65534 /tmp/socket ;;
		symlink) ln -s /tmp/elsewhere /tmp/socket ;;
		file) touch /tmp/socket ;;
		esac
		(start_with) >/dev/null
		check "/tmp/socket ($before)" "$(stat -c '%F %u:%g %a' /tmp/socket)" "directory 0:0 700"
		check "/var/config ($before)" "$(stat -c '%F' /var/config)" "directory"
		check "symlink target ($before)" "$(stat -c '%u %a' /tmp/elsewhere)" "0 777"
	done
	exit "$failures"
}
[ "${1-}" != --dirs ] || check_dirs

# Command lines: options -> what procd runs. -D comes first; a value that is not a decimal
# number is left out.
while IFS='|' read -r options expected; do
	got=$(
		# No file system changes here: the directory cases are checked on their own.
		for command in rm mkdir chown chmod; do eval "$command() { :; }"; done
		# shellcheck disable=SC2086
		start_with $options
		echo "$loaded|$command_line|$params"
	)
	check "options '$options'" "$got" "tarn|$expected| respawn= stderr=1"
done <<'TABLE'
|/usr/sbin/tarn
debug=0|/usr/sbin/tarn
debug=1 version=3 max_neighbors=32 rssi=6|/usr/sbin/tarn -D -V 3 -n 32 -R 6
rssi=200 version=255 debug=yes|/usr/sbin/tarn -D -V 255 -R 200
debug=maybe version=0 max_neighbors=300|/usr/sbin/tarn -V 0 -n 300
version=abc max_neighbors= rssi=-5|/usr/sbin/tarn
TABLE

if [ "$(id -u)" -eq 0 ] && command -v unshare >/dev/null; then
	unshare --mount --propagation private sh "$0" --dirs || failures=$((failures + $?))
else
	echo "SKIP directory cases: they need root (mount namespace)"
fi

if [ "$failures" -ne 0 ]; then
	echo "test_tarn_init: $failures failed"
	exit 1
fi
echo "test_tarn_init: passed"
