# Sourced by a service script's test, which is run as `busybox ash tests/package/test_X.sh` (as
# root): `sandbox SERVICE "$@"` re-runs the test in a private mount namespace with fresh tmpfs on
# /mnt (its own files), /tmp and /var, and installs the package's files under $instroot as its
# recipe does, with $instroot/lib in place of /lib. Every command the script runs is a busybox
# applet (busybox's ash runs its own applets before any program on PATH, and PATH holds nothing
# else); OpenWrt's rc.common, functions.sh and procd.sh are the stand-ins beside this file.

sandbox() {
	service_name=$1
	if [ "${2-}" != --inside ]; then
		if [ "$(id -u)" -ne 0 ]; then
			echo "SKIP $(basename "$0"): needs root (a private mount namespace)"
			exit 0
		fi
		exec unshare --mount --propagation private busybox ash "$0" --inside
	fi
	work=/mnt
	mount -t tmpfs tmpfs "$work"
	instroot="$work/root"
	mkdir -p "$work/lib" "$work/bin" "$work/procd"
	cp "$here/rc.common" "$here/functions.sh" "$here/procd.sh" "$work/lib/"
	install_package "$here/../../openwrt/tarn"
	busybox --install -s "$work/bin"
	mount -o bind "$instroot/lib" /lib
	mount -t tmpfs tmpfs /tmp
	mount -t tmpfs tmpfs /var
	export PATH="$work/bin" UCI_CONFIG_DIR="$instroot/etc/config" PROCD_STATE_DIR="$work/procd" \
		SYSLOG="$work/syslog"
	config="$UCI_CONFIG_DIR/tarn"
}

# The files of the recipe's "$(INSTALL_X) ./files/FILE $(1)/PATH" lines, as $instroot/PATH.
install_package() {
	local mode file path
	sed -n 's|^\t$(INSTALL_\([A-Z]*\)) \./files/\([^ ]*\) $(1)\(/[^ ]*\)$|\1 \2 \3|p' \
		"$1/Makefile" | while read -r mode file path; do
		mkdir -p "$instroot${path%/*}"
		cp "$1/files/$file" "$instroot$path"
		[ "$mode" != BIN ] || chmod 0755 "$instroot$path"
	done
}

# /etc/init.d/SERVICE ACTION, as the kernel runs it: sh /etc/rc.common /etc/init.d/SERVICE ACTION.
# The system log: "logger [-t TAG] [-p PRIORITY] MESSAGE" appends "TAG: MESSAGE" to $SYSLOG.
service() {
	busybox ash -c '
		logger() {
			local OPTIND=1 option tag=""
			while getopts t:p: option; do
				[ "$option" != t ] || tag=$OPTARG
			done
			shift $((OPTIND - 1))
			echo "$tag: $*" >>"$SYSLOG"
		}
		. "$0"' "$work/lib/rc.common" "$instroot/etc/init.d/$service_name" "$@"
}

# The instance procd holds: "command line | parameters", or "" when none.
instance() { cat "$PROCD_STATE_DIR/$service_name" 2>/dev/null || true; }

# The system log since the last reset.
syslog() { cat "$SYSLOG" 2>/dev/null || true; }

# Writes /etc/config/tarn: $section_header, then the given option statements, separated by ';'.
write_config() {
	local IFS=';' statement
	echo "$section_header" >"$config"
	for statement in $1; do
		printf '\toption %s\n' "${statement# }" >>"$config"
	done
}

reset() {
	rm -f "$SYSLOG" "$PROCD_STATE_DIR"/*
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

finish() {
	if [ "$failures" -ne 0 ]; then
		echo "$(basename "$0" .sh): $failures failed"
		exit 1
	fi
	echo "$(basename "$0" .sh): passed"
}
