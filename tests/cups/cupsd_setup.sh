#!/bin/sh
# qp-cupsd-setup: puts the tests' private scheduler configuration in /etc/cups
# (forgetting every queue a former scheduler left) and the tools where the
# library runs them from, so that a plain /usr/sbin/cupsd, as the library
# starts it, runs sandboxed.  Used by the CUPS fixture and the demo.
#   qp-cupsd-setup start   starts cupsd unless one runs (no setup), and waits
#                          for its socket
#   qp-cupsd-setup stop    stops whichever cupsd runs, and waits until it is gone
set -e
PATH=/usr/sbin:/usr/bin:/sbin:/bin
[ "${QP_SANDBOX:-}" = 1 ] || { echo "qp-cupsd-setup: writes /etc/cups; run it inside qp-sandbox" >&2; exit 2; }
# Each wait is bounded: 100 times 0.05 s.
case "${1:-}" in
start)
    pidof cupsd >/dev/null || /usr/sbin/cupsd
    # cupsd returns once its child listens; one the library started listens too.
    for _ in $(seq 100); do [ -S /run/cups/cups.sock ] && exit 0; sleep 0.05; done
    echo "qp-cupsd-setup: cupsd does not answer" >&2; exit 1 ;;
stop)
    # pidof skips zombies: a stopped one its parent has not reaped yet is gone.
    for _ in $(seq 100); do pids=$(pidof cupsd) || exit 0; kill $pids || true; sleep 0.05; done
    echo "qp-cupsd-setup: cupsd does not stop" >&2; exit 1 ;;
esac
mkdir -p /etc/cups/ppd /run/cups /var/spool/cups/tmp /var/cache/cups /var/log/cups
cp "@CMAKE_CURRENT_SOURCE_DIR@/cupsd.conf" "@CMAKE_CURRENT_SOURCE_DIR@/cups-files.conf" /etc/cups/
rm -rf /etc/cups/printers.conf /etc/cups/printers.conf.O /etc/cups/classes.conf /etc/cups/subscriptions.conf \
    /etc/cups/ppd/*
# Debian installs these in /usr/sbin; cupsenable and cupsdisable are one
# program acting on its own name, so each link keeps its name.
for t in lpadmin cupsenable cupsdisable; do ln -sfn /usr/sbin/$t /usr/bin/$t; done
echo "private cupsd configuration in /etc/cups (socket /run/cups/cups.sock only)"
