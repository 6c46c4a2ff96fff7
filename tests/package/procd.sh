# Stand-in for OpenWrt's /lib/functions/procd.sh: instead of sending the service's definition to
# procd over the bus, it writes what procd would be told under $PROCD_STATE_DIR:
#   SERVICE      one line per instance: "command ARGS... | param=value ..."
#   journal      one line per definition procd is sent: "open SERVICE", then
#                "reload SERVICE on CONFIG" for each reload trigger

procd_open_service() {
	procd_service=$1
	procd_instances=''
	echo "open $1" >>"$PROCD_STATE_DIR/journal"
}

procd_open_instance() {
	procd_command=''
	procd_params=''
}

# procd_set_param NAME VALUE...: sets (replaces) a parameter of the open instance.
procd_set_param() {
	local name="$1"
	shift
	if [ "$name" = command ]; then
		procd_command="$*"
	else
		procd_params="$procd_params $name=$*"
	fi
}

# procd_append_param command VALUE...: adds values to the command line (the only list
# parameter a service script here appends to).
procd_append_param() {
	shift
	procd_command="$procd_command $*"
}

procd_close_instance() {
	procd_instances="$procd_instances$procd_command |$procd_params
"
}

# procd_add_reload_trigger CONFIG...: procd reloads the service when one of these UCI
# configurations changes.
procd_add_reload_trigger() {
	local config
	for config in "$@"; do
		echo "reload $procd_service on $config" >>"$PROCD_STATE_DIR/journal"
	done
}

# The service's triggers (service_triggers, when the script defines it) go with its instances,
# which replace the ones procd held before.
procd_close_service() {
	if command -v service_triggers >/dev/null; then service_triggers; fi
	printf '%s' "$procd_instances" >"$PROCD_STATE_DIR/$procd_service"
}

# procd_kill SERVICE: procd ends the service's instances.
procd_kill() {
	rm -f "$PROCD_STATE_DIR/$1"
}
