# Shell functions shared by tarn's service scripts, installed as /lib/functions/tarn.sh.

# Sets `number` to VALUE without leading zeros when VALUE is a decimal number from MIN to MAX.
# Leading zeros go before any comparison, so "032" is 32 (as the daemon reads it), not octal.
# A number longer than MAX is refused before test's arithmetic could overflow on it.
number_in_range() {
	case "$1" in
	'' | *[!0-9]*) return 1 ;;
	esac
	number=${1#"${1%%[!0]*}"}
	number=${number:-0}
	[ "${#number}" -le "${#3}" ] && [ "$number" -ge "$2" ] && [ "$number" -le "$3" ]
}
