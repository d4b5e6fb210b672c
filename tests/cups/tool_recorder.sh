#!/bin/sh
# Stands in a tool's place (a copy of this script at e.g. /usr/bin/lpadmin),
# records every run, then runs the real tool (kept as .qp-saved/NAME beside
# it) or plays a chosen part.  Control files in /run/qp-rec/NAME/, NAME being
# this copy's file name:
#   log      one line per run: each argument, the path first, ended by \037
#   fail     "N STATUS": the next N runs exit with STATUS (negative: killed by
#            that signal) without running the real tool
#   output   printed instead of running the real tool (exit 0 unless "fail")
d=/run/qp-rec/${0##*/}
{ printf '%s\037' "$0" "$@"; echo; } >>"$d/log"
status=0 stand_in=
read -r n s 2>/dev/null <"$d/fail"
if [ "${n:-0}" -gt 0 ]; then
    echo "$((n - 1)) $s" >"$d/fail"
    status=$s stand_in=1
fi
[ -f "$d/output" ] && cat "$d/output" && stand_in=1
if [ -n "$stand_in" ]; then
    [ "$status" -lt 0 ] && kill -s "$((-status))" $$
    exit "$status"
fi
exec "${0%/*}/.qp-saved/${0##*/}" "$@"
