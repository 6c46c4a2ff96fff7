#!/bin/sh
# The metrics writer's procd service script, run with stand-ins of the OpenWrt shell helpers it
# calls (UCI's config_load/config_get/config_get_bool, procd's instance calls, logger): the
# command procd runs for each set of options of section "metrics", the line it logs for an
# interval it refuses, and what it does to /var/prometheus (as root, in a private mount
# namespace with a fresh /var).
set -eu

here=$(cd "$(dirname "$0")" && pwd)
files="$here/../../openwrt/tarn/files"
init_text=$(cat "$files/tarn-metrics.init")

# UCI: options of section "metrics" are given as name=value words. As on OpenWrt, an empty
# option takes config_get's default.
config_load() { loaded=$1; }
config_get() {
	eval "$1=\${opt_$3:-\${4-}}"
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
procd_open_instance() { instance=open; }
procd_set_param() {
	local name=$1
	shift
	if [ "$name" = command ]; then command_line="$*"; else params="$params $name=$*"; fi
}
procd_append_param() {
	shift
	command_line="$command_line $*"
}
procd_close_instance() { instance=closed; }
procd_add_reload_trigger() { triggers="$triggers $*"; }
logger() { shift 4 && logged="$*"; }

# Runs start_service with the given options; prints what procd and the log were given.
start_with() {
	instance=none command_line= params= triggers= logged=
	for option in "$@"; do
		eval "opt_${option%%=*}=\${option#*=}"
	done
	eval "$init_text"
	start_service
	service_triggers
	echo "$loaded|$instance|$command_line|$params|$triggers|$logged"
}

failures=0
check() {
	if [ "$2" = "$3" ]; then echo "ok   $1: $2" && return 0; fi
	echo "FAIL $1: got '$2', expected '$3'"
	failures=$((failures + 1))
}

# Files: in a private mount namespace, a disabled start and a stop remove the file; an enabled
# start creates the directory and leaves a current file alone.
check_files() {
	mount -t tmpfs tmpfs /var
	out=/var/prometheus/tarn.prom
	mkdir -p /var/prometheus && echo 'tarn_up 1' >$out
	(start_with enabled=0) >/dev/null
	check "disabled start" "$(ls /var/prometheus)" ""
	rmdir /var/prometheus
	(start_with enabled=1) >/dev/null
	check "enabled start" "$(stat -c %F /var/prometheus)" "directory"
	echo 'tarn_up 1' >$out
	(start_with enabled=1) >/dev/null
	check "enabled restart" "$(cat $out)" "tarn_up 1"
	(eval "$init_text" && service_stopped)
	check "stopped" "$(ls /var/prometheus)" ""
	exit "$failures"
}
[ "${1-}" != --files ] || check_files

# Options -> what procd runs (or no instance) and the log line. The interval is 5-3600 s.
command=/usr/sbin/tarn-info' --prometheus --output /var/prometheus/tarn.prom --interval'
refused="is not 5-3600 seconds: using 15"
while IFS='|' read -r options expected_command expected_log; do
	got=$(
		for name in rm mkdir; do eval "$name() { :; }"; done
		# shellcheck disable=SC2086
		start_with $options
	)
	if [ "$expected_command" = - ]; then
		expected="tarn|none||| tarn|"
	else
		expected="tarn|closed|$command $expected_command| respawn= stderr=1| tarn|"
	fi
	[ -z "$expected_log" ] || expected="${expected}interval '$expected_log' $refused"
	check "options '$options'" "$got" "$expected"
done <<'TABLE'
|-|
enabled=0 interval=60|-|
enabled=maybe|-|
enabled=1|15|
enabled=yes interval=60|60|
enabled=1 interval=|15|
enabled=1 interval=5|5|
enabled=1 interval=4|15|4
enabled=1 interval=3600|3600|
enabled=1 interval=3601|15|3601
enabled=1 interval=0005|5|
enabled=1 interval=0|15|0
enabled=1 interval=99999999999999999999|15|99999999999999999999
enabled=1 interval=abc|15|abc
enabled=1 interval=-5|15|-5
enabled=1 interval=1e3|15|1e3
TABLE

# The shipped configuration leaves the writer off, at the default interval.
shipped=$(awk '/^config /{in_metrics = ($2 == "metrics")}
	in_metrics && $1 == "option" {gsub("\047", "", $3); printf "%s=%s ", $2, $3}' \
	"$files/tarn.config")
check "shipped options" "$shipped" "enabled=0 interval=15 "
# shellcheck disable=SC2086
check "shipped start" "$(start_with $shipped)" "tarn|none||| tarn|"

if [ "$(id -u)" -eq 0 ] && command -v unshare >/dev/null; then
	unshare --mount --propagation private sh "$0" --files || failures=$((failures + $?))
else
	echo "SKIP file cases: they need root (mount namespace)"
fi

if [ "$failures" -ne 0 ]; then
	echo "test_tarn_metrics_init: $failures failed"
	exit 1
fi
echo "test_tarn_metrics_init: passed"
