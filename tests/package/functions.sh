# Stand-in for OpenWrt's /lib/functions.sh: the UCI helpers a service script calls, with their
# documented behaviour. config_load NAME reads ${UCI_CONFIG_DIR:-/etc/config}/NAME in UCI's file
# format ("config TYPE 'NAME'", "option NAME 'VALUE'", quoted or bare, # comments).

# Drops one pair of enclosing single or double quotes.
uci_unquote() {
	case "$1" in
	\'*\' | \"*\") unquoted=${1#?} && unquoted=${unquoted%?} ;;
	*) unquoted=$1 ;;
	esac
}

config_load() {
	local file="${UCI_CONFIG_DIR:-/etc/config}/$1" keyword name value section='' unquoted
	[ -f "$file" ] || return 1
	while read -r keyword name value; do
		case "$keyword" in
		config)
			uci_unquote "$value"
			section=$unquoted
			;;
		option)
			uci_unquote "$value"
			eval "CONFIG_${section}_${name}=\$unquoted"
			;;
		esac
	done <"$file"
}

# config_get VARIABLE SECTION OPTION [DEFAULT]: the option's value, or DEFAULT when it is unset
# or empty.
config_get() {
	eval "$1=\${CONFIG_$2_$3:-\${4-}}"
}

# config_get_bool VARIABLE SECTION OPTION [DEFAULT]: 1 for 1/on/true/yes/enabled, 0 for
# 0/off/false/no/disabled, DEFAULT for anything else (unset included).
config_get_bool() {
	local raw
	config_get raw "$2" "$3"
	case "$raw" in
	1 | on | true | yes | enabled) raw=1 ;;
	0 | off | false | no | disabled) raw=0 ;;
	*) raw=${4-} ;;
	esac
	eval "$1=\$raw"
}
