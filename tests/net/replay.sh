#!/bin/sh
# Stand-in placed over a network tool inside the test sandbox (netlab.sh
# replay).  When the test left a recorded output for this call in
# /tmp/qp-net/replay it prints that (KEY.out, or KEY.out.N for the N-th run
# when present; after an optional delay, with an optional exit status) and
# counts the run; otherwise it runs the real tool.
# Keys: snmpwalk-AGENT, ping-ADDRESS, bjnp, avahi-browse.
tool=$(basename "$0")
dir=/tmp/qp-net/replay
case $tool in
snmpwalk) key="$tool-$5" ;;
ping) key="$tool-$3" ;;
*) key=$tool ;;
esac
if [ -f "$dir/$key.out" ]; then
    echo run >>"$dir/$key.runs"
    n=$(wc -l <"$dir/$key.runs")
    out="$dir/$key.out"
    [ -f "$out.$n" ] && out="$out.$n"
    [ -f "$dir/$key.delay" ] && sleep "$(cat "$dir/$key.delay")"
    cat "$out"
    exit "$(cat "$dir/$key.rc" 2>/dev/null || echo 0)"
fi
exec "/usr/lib/qp-net-real/$tool" "$@"
