#!/bin/sh
# The procd service script in the AP's shell: run as `busybox ash tests/package/test_tarn_init.sh`
# (as root). Every command the script runs is a busybox applet (busybox's ash runs its own
# applets before any program on PATH, and PATH holds nothing else); OpenWrt's rc.common,
# functions.sh and procd.sh are the stand-ins beside this file; a `logger` function records the
# system log.
# Checked: the instance procd is given for each set of options (the package's own
# /etc/config/tarn first), the options left out with their log line, start, stop, restart,
# enable and disable, and what becomes of whatever lies at /tmp/socket.
#
# It runs in a private mount namespace with fresh tmpfs on /mnt (its own files), /tmp and /var.
set -eu

here=$(cd "$(dirname "$0")" && pwd)
if [ "${1-}" != --inside ]; then
	if [ "$(id -u)" -ne 0 ]; then
		echo "SKIP test_tarn_init: needs root (a private mount namespace)"
		exit 0
	fi
	exec unshare --mount --propagation private busybox ash "$here/test_tarn_init.sh" --inside
fi

work=/mnt
mount -t tmpfs tmpfs "$work"
mkdir -p "$work/lib" "$work/bin" "$work/procd" "$work/root/etc/init.d" \
	"$work/root/etc/config"
cp "$here/rc.common" "$here/functions.sh" "$here/procd.sh" "$work/lib/"
cp "$here/../../openwrt/tarn/files/tarn.init" "$work/root/etc/init.d/tarn"
chmod 0755 "$work/root/etc/init.d/tarn"
cp "$here/../../openwrt/tarn/files/tarn.config" "$work/package.config"
busybox --install -s "$work/bin"
mount -t tmpfs tmpfs /tmp
mount -t tmpfs tmpfs /var

export PATH="$work/bin" UCI_CONFIG_DIR="$work/root/etc/config" PROCD_STATE_DIR="$work/procd" \
	SYSLOG="$work/syslog"
# The root an image is assembled in, where `enable` makes its links.
instroot="$work/root"
image_service() { (export IPKG_INSTROOT="$instroot" && service "$@"); }
config="$UCI_CONFIG_DIR/tarn"

# /etc/init.d/tarn ACTION, as the kernel runs it: sh /etc/rc.common /etc/init.d/tarn ACTION.
# The system log: "logger -t TAG MESSAGE" appends "TAG: MESSAGE" to $SYSLOG.
service() {
	busybox ash -c '
		logger() {
			local tag=""
			if [ "$1" = -t ]; then tag=$2 && shift 2; fi
			echo "$tag: $*" >>"$SYSLOG"
		}
		. "$0"' "$work/lib/rc.common" "$instroot/etc/init.d/tarn" "$@"
}

# The instance procd holds: "command line | parameters", or "" when none.
instance() { cat "$PROCD_STATE_DIR/tarn" 2>/dev/null || true; }

# Option names named in the log since the last reset, in order.
logged_options() {
	sed -n "s/^tarn: option \([a-z_]*\) '.*' is not .*: left out, the default applies$/\1/p" \
		"$SYSLOG" 2>/dev/null | tr '\n' ' ' | sed 's/ $//'
}

reset() {
	rm -f "$SYSLOG" "$PROCD_STATE_DIR"/*
}

# Writes section "config" with the given option statements, separated by ';'.
write_config() {
	local IFS=';' statement
	echo "config tarn 'config'" >"$config"
	for statement in $1; do
		printf '\toption %s\n' "${statement# }" >>"$config"
	done
}

failures=0
check() {
	if [ "$2" = "$3" ]; then
		echo "ok   $1"
		return 0
	fi
	echo "FAIL $1: got '$2', expected '$3'"
	failures=$((failures + 1))
}

# ----- options -> the instance's command line and the log ------------------------------------

reset
cp "$work/package.config" "$config"
service start
check "start with the package's configuration" "$(instance)" \
	"/usr/sbin/tarn | respawn= stderr=1"
check "start with the package's configuration: log" "$(cat "$SYSLOG" 2>/dev/null)" ""

# options ('' for no option at all) | daemon arguments | options named in the log
while IFS='|' read -r options arguments logged; do
	reset
	write_config "$options"
	service start
	check "options [$options]" "$(instance)" "/usr/sbin/tarn$arguments | respawn= stderr=1"
	check "options [$options]: logged" "$(logged_options)" "$logged"
done <<'TABLE'
||
debug '1'; version '3'; max_neighbors '32'; rssi '6'| -D -V 3 -n 32 -R 6|
version '1'; max_neighbors '16'; rssi '1'| -V 1 -n 16 -R 1|
version '255'; max_neighbors '64'; rssi '200'| -V 255 -n 64 -R 200|
version '0'; max_neighbors '15'; rssi '0'||version max_neighbors rssi
version '256'; max_neighbors '65'; rssi '201'||version max_neighbors rssi
version '032'; max_neighbors '00064'; rssi '0000000000000000000000000000000000007'| -V 32 -n 64 -R 7|
version '99999999999999999999999'; max_neighbors '0000'||version max_neighbors
version 'abc'; max_neighbors '-5'; rssi '3x'||version max_neighbors rssi
version ' 32'; max_neighbors '32 '; rssi '0x10'||version max_neighbors rssi
version ''; max_neighbors ''; rssi ''; debug ''||
version 7; max_neighbors "20"| -V 7 -n 20|
debug 'yes'; version '2'| -D -V 2|
debug 'off'||
debug '2'; version '65'| -V 65|debug
TABLE

reset
write_config "max_neighbors '65'"
service start
check "the log line of an option left out" "$(cat "$SYSLOG")" \
	"tarn: option max_neighbors '65' is not a number from 16 to 64: left out, the default applies"

# ----- start, stop, restart, enable, disable -------------------------------------------------

reset
write_config "version '4'"
service start
service stop
check "stop: procd ends the instance" "$(instance)" ""
check "stop: what procd was told" "$(cat "$PROCD_STATE_DIR/journal")" "open tarn
kill tarn"

reset
write_config "version '4'"
service start
write_config "version '5'; debug '1'"
service restart
check "restart: the changed options" "$(instance)" "/usr/sbin/tarn -D -V 5 | respawn= stderr=1"
check "restart: what procd was told" "$(cat "$PROCD_STATE_DIR/journal")" "open tarn
kill tarn
open tarn"

rc_d="$instroot/etc/rc.d"
image_service enable
check "enable: the rc.d links" "$(cd "$rc_d" && for link in *; do
	echo "$link -> $(readlink "$link")"
done)" "K10tarn -> ../init.d/tarn
S95tarn -> ../init.d/tarn"
check "enabled after enable" "$(image_service enabled && echo yes || echo no)" "yes"
image_service disable
check "disable: no rc.d links" "$(ls -A "$rc_d")" ""
check "enabled after disable" "$(image_service enabled && echo yes || echo no)" "no"

# ----- /tmp/socket ---------------------------------------------------------------------------

# What lies at /tmp/socket before the start | /tmp/socket afterwards | is the old content kept
# (the file "held" inside it, or the target of a symlink)?
write_config "version '9'"
while IFS='|' read -r before after kept; do
	reset
	rm -rf /tmp/socket /tmp/elsewhere
	mkdir -m 0777 /tmp/elsewhere && touch /tmp/elsewhere/held
	case $before in
	root-dir-0755) mkdir -m 0755 /tmp/socket && touch /tmp/socket/held ;;
	root-dir-0700) mkdir -m 0700 /tmp/socket && touch /tmp/socket/held ;;
	root-dir-other-group) mkdir -m 0770 /tmp/socket && touch /tmp/socket/held &&
		chgrp 65534 /tmp/socket ;;
	other-users-dir) mkdir -m 0700 /tmp/socket && touch /tmp/socket/held &&
		chown -R 65534:65534 /tmp/socket ;;
	symlink-to-dir) ln -s /tmp/elsewhere /tmp/socket ;;
	dangling-symlink) ln -s /tmp/nowhere /tmp/socket ;;
	file) echo text >/tmp/socket ;;
	fifo) mkfifo /tmp/socket ;;
	esac
	service start
	check "/tmp/socket was $before" "$(stat -c '%F %u %a' /tmp/socket)" "$after"
	check "/tmp/socket was $before: content kept" \
		"$([ -e /tmp/socket/held ] && echo kept || echo gone)" "$kept"
	check "/tmp/socket was $before: elsewhere untouched" \
		"$(stat -c '%u %a' /tmp/elsewhere) $(ls /tmp/elsewhere)" "0 777 held"
	check "/tmp/socket was $before: started" "$(instance)" "/usr/sbin/tarn -V 9 | respawn= stderr=1"
	check "/tmp/socket was $before: /var/config" "$(stat -c '%F' /var/config)" "directory"
done <<'TABLE'
absent|directory 0 700|gone
root-dir-0755|directory 0 700|kept
root-dir-0700|directory 0 700|kept
root-dir-other-group|directory 0 700|kept
other-users-dir|directory 0 700|gone
symlink-to-dir|directory 0 700|gone
dangling-symlink|directory 0 700|gone
file|directory 0 700|gone
fifo|directory 0 700|gone
TABLE

# A /tmp/socket that cannot be made: no instance, and the log says why.
reset
rm -rf /tmp/socket
mount -o remount,ro /tmp
service start 2>/dev/null  # mkdir's own complaint
mount -o remount,rw /tmp
check "/tmp/socket cannot be made: started" "$(instance)" ""
check "/tmp/socket cannot be made: log" "$(cat "$SYSLOG")" \
	"tarn: cannot create /tmp/socket as root's own directory: not started"

if [ "$failures" -ne 0 ]; then
	echo "test_tarn_init: $failures failed"
	exit 1
fi
echo "test_tarn_init: passed"
