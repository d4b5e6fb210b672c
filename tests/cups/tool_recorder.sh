#!/bin/sh
# Stands in a tool's place (a copy of this script at e.g. /usr/bin/lpadmin),
# records every run, then runs the real tool or plays a chosen part.
# Control files in /run/qp-rec/NAME/, NAME being this copy's file name:
#   real      the real program, run with the same arguments
#   log       one line per run: the arguments, the path included, joined by \037
#   fail      "N STATUS": the next N runs exit with STATUS (negative: killed by
#             that signal) without running the real tool
#   output    printed instead of running the real tool; the run exits 0 (or
#             as "fail" says)
#   delay_ms  wait this long first
#   restore   when present, the real program is moved back over this copy
#             and run from there (a daemon then runs its own program path)
d=/run/qp-rec/${0##*/}
if [ -f "$d/delay_ms" ]; then ms=$(cat "$d/delay_ms"); sleep "$((ms / 1000)).$(printf %03d $((ms % 1000)))"; fi
line=$0
for a in "$@"; do line="$line$(printf '\037')$a"; done
printf '%s\n' "$line" >>"$d/log"
status=0 stand_in=
fail=$(cat "$d/fail" 2>/dev/null)
if [ "${fail%% *}" -gt 0 ] 2>/dev/null; then
    echo "$((${fail%% *} - 1)) ${fail#* }" >"$d/fail"
    status=${fail#* } stand_in=1
fi
[ -f "$d/output" ] && cat "$d/output" && stand_in=1
if [ -n "$stand_in" ]; then
    [ "$status" -lt 0 ] && kill -s "$((-status))" $$
    exit "$status"
fi
real=$(cat "$d/real")
[ -f "$d/restore" ] && mv -f "$real" "$0" && real=$0
exec "$real" "$@"
