# The router's own functions, as far as the package's scripts call them: what reaches procd, the log
# and the bus is recorded, a call a line, its words apart by a unit separator; UCI is read for real.
#
# Takes from its surroundings RECORD, the file to write to, UCI, the program, and CONFIGURATION, the
# folder of the UCI files.
# shellcheck shell=dash

record() {
    printf '%s\037' "$@" >>"$RECORD"
    echo >>"$RECORD"
}

recorded() {
    for name in "$@"; do
        eval "$name() { record $name \"\$@\"; }"
    done
}

recorded procd_open_instance procd_set_param procd_close_instance procd_add_jail \
    procd_add_jail_mount procd_add_jail_mount_rw procd_add_reload_trigger logger ubus

config_load() {
    package=$1
    "$UCI" -q -c "$CONFIGURATION" show "$package" >/dev/null
}

# config_get VARIABLE SECTION OPTION [DEFAULT]
config_get() {
    config_value=$("$UCI" -q -c "$CONFIGURATION" get "$package.$2.$3") || config_value=${4:-}
    eval "$1=\$config_value"
}

config_get_bool() {
    config_get "$@"
    case "$config_value" in
    1 | on | true | yes | enabled) eval "$1=1" ;;
    0 | off | false | no | disabled) eval "$1=0" ;;
    *) eval "$1=\$4" ;;
    esac
}

# config_list_foreach SECTION OPTION FUNCTION
config_list_foreach() {
    config_get config_list "$1" "$2"
    # shellcheck disable=SC2154 # config_get has just set it
    for config_item in $config_list; do
        "$3" "$config_item"
    done
}

start() {
    start_service "$@"
}
