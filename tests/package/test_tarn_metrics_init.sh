#!/bin/sh
# The metrics writer's procd service script in the AP's shell: run as
# `busybox ash tests/package/test_tarn_metrics_init.sh` (as root), in the sandbox of sandbox.sh.
# Checked: the instance procd is given for each set of options of section "metrics" (the
# package's own /etc/config/tarn first), the log line of an interval refused, the reload
# trigger, and what start and stop do to /var/prometheus. The interval's number rule is the one
# the daemon's options follow, whose other cases test_tarn_init.sh runs.
set -eu

here=$(cd "$(dirname "$0")" && pwd)
. "$here/sandbox.sh"
sandbox tarn-metrics "$@"
section_header="config metrics 'metrics'"
writer="/usr/sbin/tarn-info --prometheus --output /var/prometheus/tarn.prom --interval"

# The package's configuration leaves the writer off; once on, at an interval of 15 s.
reset
service start
check "the package's configuration" "$(instance)|$(syslog)" "|"
sed -i "s/option enabled '0'/option enabled '1'/" "$config"
service start
check "the package's configuration, enabled" "$(instance)" "$writer 15 | respawn= stderr=1"
check "reload trigger" "$(cat "$PROCD_STATE_DIR/journal")" "open tarn-metrics
reload tarn-metrics on tarn
open tarn-metrics
reload tarn-metrics on tarn"

# options ('' for none) | the interval passed, '-' for no instance | the interval refused.
# A file left from an earlier run would be served as current: a start without an instance
# removes it, one with an instance leaves it to the writer.
prom=/var/prometheus/tarn.prom
while IFS='|' read -r options interval refused; do
	reset
	write_config "$options"
	mkdir -p /var/prometheus && echo 'tarn_up 1' >$prom
	service start
	expected="|"
	[ "$interval" = - ] || expected="$writer $interval | respawn= stderr=1|tarn_up 1"
	[ -z "$refused" ] ||
		refused="tarn-metrics: interval '$refused' is not 5-3600 seconds: using 15"
	check "options [$options]" "$(instance)|$(cat $prom 2>/dev/null)|$(syslog)" \
		"$expected|$refused"
done <<'TABLE'
|-|
enabled 'maybe'; interval '60'|-|
enabled 'yes'; interval '60'|60|
enabled '1'; interval ''|15|
enabled '1'; interval '5'|5|
enabled '1'; interval '4'|15|4
enabled '1'; interval '3600'|3600|
enabled '1'; interval '3601'|15|3601
enabled '1'; interval '0005'|5|
TABLE

# An enabled start makes the writer's directory; a stop removes the file.
rm -rf /var/prometheus
write_config "enabled '1'"
service start
check "enabled start" "$(stat -c %F /var/prometheus)" "directory"
echo 'tarn_up 1' >$prom
service stop
check "stop" "$(ls /var/prometheus)" ""

finish
