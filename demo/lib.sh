# Helpers for the demo steps (sourced by demo/run and by each step).
#   heading TEXT    a step's title
#   say TEXT        narration
#   show CMD...     echo the command, run it (stderr with stdout), show a
#                   non-zero exit status
#   show_log        what the library logged (syslog) since the last call

QP_DEMO_LOG=/run/qp-test/syslog

heading() {
    printf '\n\033[1m== %s ==\033[0m\n' "$*"
}

say() {
    printf '%s\n' "$*"
}

show() {
    local quoted=() a
    for a in "$@"; do
        if [[ $a =~ ^[A-Za-z0-9_./:=,+@%-]+$ ]]; then
            quoted+=("$a")
        elif [[ $a != *"'"* ]]; then
            quoted+=("'$a'")
        else
            quoted+=("$(printf '%q' "$a")")
        fi
    done
    printf '\033[36m$ %s\033[0m\n' "${quoted[*]}"
    "$@" 2>&1
    local rc=$?
    [ "$rc" -eq 0 ] || printf '\033[33m(exit status %d)\033[0m\n' "$rc"
    return 0
}

# The sandbox's syslog catcher writes "<severity> text" per message; show
# the lines added since the previous call, with severity names.
show_log() {
    local mark=/run/qp-test/demo-log-offset offset=0 size
    [ -s "$mark" ] && offset=$(cat "$mark")
    [ -f "$QP_DEMO_LOG" ] || return 0
    sleep 0.05  # the catcher writes asynchronously
    size=$(stat -c %s "$QP_DEMO_LOG")
    if [ "$size" -gt "$offset" ]; then
        printf '\033[2msyslog:\033[0m\n'
        tail -c +"$((offset + 1))" "$QP_DEMO_LOG" | sed -e 's/^3 /  LOG_ERR   /' -e 's/^7 /  LOG_DEBUG /' \
            -e 's/^\([0-6]\) /  <\1>       /'
    fi
    echo "$size" >"$mark"
}

# What the simulated printers' daemons log is not the library's: skip it.
skip_log() {
    [ -f "$QP_DEMO_LOG" ] && stat -c %s "$QP_DEMO_LOG" >/run/qp-test/demo-log-offset
    return 0
}

# Starts components of the printer network (tests/net/netlab.sh), or says so
# and ends the step; avahi-browse and the avahi-daemon the library starts then
# use this sandbox's bus.
lab_up() {
    if ! bash "$QP_SOURCE_DIR/tests/net/netlab.sh" up "$@"; then
        say "The printer network could not be set up."
        exit 1
    fi
    export DBUS_SYSTEM_BUS_ADDRESS=unix:path=/run/dbus/system_bus_socket
    skip_log
}
