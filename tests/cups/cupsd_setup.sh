#!/bin/sh
# qp-cupsd-setup: puts the tests' private scheduler configuration in /etc/cups
# (forgetting every queue a former scheduler left) and the tools where the
# library runs them from, so that a plain /usr/sbin/cupsd, as the library
# starts it, runs sandboxed.  Used by the CUPS fixture and the demo.
set -e
[ "${QP_SANDBOX:-}" = 1 ] || { echo "qp-cupsd-setup: writes /etc/cups; run it inside qp-sandbox" >&2; exit 2; }
mkdir -p /etc/cups/ppd /run/cups /var/spool/cups/tmp /var/cache/cups /var/log/cups
cp "@CMAKE_CURRENT_SOURCE_DIR@/cupsd.conf" "@CMAKE_CURRENT_SOURCE_DIR@/cups-files.conf" /etc/cups/
rm -rf /etc/cups/printers.conf /etc/cups/printers.conf.O /etc/cups/classes.conf /etc/cups/subscriptions.conf \
    /etc/cups/ppd/*
# Debian installs these in /usr/sbin; cupsenable and cupsdisable are one
# program acting on its own name, so each link keeps its name.
for t in lpadmin cupsenable cupsdisable; do ln -sfn /usr/sbin/$t /usr/bin/$t; done
echo "private cupsd configuration in /etc/cups (socket /run/cups/cups.sock only)"
