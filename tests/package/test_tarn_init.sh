#!/bin/sh
# The procd service script in the AP's shell: run as `busybox ash tests/package/test_tarn_init.sh`
# (as root), in the sandbox of sandbox.sh.
# Checked: the instance procd is given for each set of options (the package's own
# /etc/config/tarn first), the options left out with their log line, the boot order's links and
# what becomes of whatever lies at /tmp/socket. Stop, restart and disable are the stand-ins' own
# (the script adds nothing to them).
set -eu

here=$(cd "$(dirname "$0")" && pwd)
. "$here/sandbox.sh"
sandbox tarn "$@"
section_header="config tarn 'config'"

# Option names named in the log since the last reset, in order.
logged_options() {
	syslog | sed -n "s/^tarn: option \([a-z_]*\) '.*' is not .*: left out, the default applies$/\1/p" |
		tr '\n' ' ' | sed 's/ $//'
}

# ----- options -> the instance's command line and the log ------------------------------------

reset
service start
# No reload trigger: a restart would lose the neighbor table.
check "start with the package's configuration" \
	"$(instance)|$(syslog)|$(cat "$PROCD_STATE_DIR/journal")" \
	"/usr/sbin/tarn | respawn= stderr=1||open tarn"

# options | daemon arguments | options named in the log (debug '0' is the package's own). The
# shell says nothing, even of a number too long for its arithmetic.
while IFS='|' read -r options arguments logged; do
	reset
	write_config "$options"
	service start 2>"$work/stderr"
	check "options [$options]" "$(instance)$(cat "$work/stderr")" \
		"/usr/sbin/tarn$arguments | respawn= stderr=1"
	check "options [$options]: logged" "$(logged_options)" "$logged"
done <<'TABLE'
debug '1'; version '1'; max_neighbors '16'; rssi '1'| -D -V 1 -n 16 -R 1|
version '255'; max_neighbors '64'; rssi '200'| -V 255 -n 64 -R 200|
version '0'; max_neighbors '15'; rssi '0'||version max_neighbors rssi
version '256'; max_neighbors '65'; rssi '201'||version max_neighbors rssi
version '032'; max_neighbors '00064'; rssi '0000000000000000000000000000000000007'| -V 32 -n 64 -R 7|
version '99999999999999999999999'; max_neighbors '0000'||version max_neighbors
version 'abc'; max_neighbors '-5'; rssi '3x'||version max_neighbors rssi
version ' 32'; max_neighbors '32 '; rssi '0x10'||version max_neighbors rssi
version ''; max_neighbors ''; rssi ''; debug ''||
debug '2'; version '65'| -V 65|debug
TABLE

reset
write_config "max_neighbors '65'"
service start
check "the log line of an option left out" "$(syslog)" \
	"tarn: option max_neighbors '65' is not a number from 16 to 64: left out, the default applies"

# ----- enable --------------------------------------------------------------------------------

# In the root an image is assembled in: the boot order's links.
(export IPKG_INSTROOT="$instroot" && service enable)
check "enable: the rc.d links" "$(cd "$instroot/etc/rc.d" && for link in *; do
	echo "$link -> $(readlink "$link")"
done)" "K10tarn -> ../init.d/tarn
S95tarn -> ../init.d/tarn"

# ----- /tmp/socket ---------------------------------------------------------------------------

# What lies at /tmp/socket before the start | is the old content kept (the file "held" inside
# it, or the target of a symlink)? Whatever it was, a directory of root's only is left, the
# symlink's target is untouched and the daemon starts.
write_config "version '9'"
while IFS='|' read -r before kept; do
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
	state="$(stat -c '%F %u %a' /tmp/socket) $([ -e /tmp/socket/held ] && echo kept || echo gone)"
	state="$state|$(stat -c '%u %a' /tmp/elsewhere) $(ls /tmp/elsewhere)|$(instance)"
	check "/tmp/socket was $before" "$state" \
		"directory 0 700 $kept|0 777 held|/usr/sbin/tarn -V 9 | respawn= stderr=1"
done <<'TABLE'
absent|gone
root-dir-0755|kept
root-dir-0700|kept
root-dir-other-group|kept
other-users-dir|gone
symlink-to-dir|gone
dangling-symlink|gone
file|gone
fifo|gone
TABLE
check "/var/config made" "$(stat -c '%F' /var/config)" "directory"

# A /tmp/socket that cannot be made: no instance, and the log says why.
reset
rm -rf /tmp/socket
mount -o remount,ro /tmp
service start 2>/dev/null  # mkdir's own complaint
mount -o remount,rw /tmp
check "/tmp/socket cannot be made" "$(instance)|$(syslog)" \
	"|tarn: cannot create /tmp/socket as root's own directory: not started"

finish
