#!/usr/bin/env bash
# Network printers: a simulated printer in a network namespace of the
# sandbox (real snmpd, a BJNP responder, avahi announcements) is identified
# by SNMP and by mDNS, registered with a queue, checked, pinged and removed.
. "$QP_DEMO_DIR/lib.sh"

heading "Network printer"

say "Setting up a small printer network inside the sandbox: this namespace is the"
say "appliance (10.123.0.1); a second namespace holds the printers (10.123.0.2 ...)."
lab_up snmp bjnp avahi
ip=10.123.0.2

say ""
say "What the printer's SNMP agent holds (community tarvel, private-enterprise subtree):"
show snmpwalk -v 1 -c tarvel "$ip" enterprises
say "Identification by SNMP: backend and queue from the device URI, maker and model"
say "from the IEEE 1284 device ID:"
show qoraprinter net identify "$ip"

say ""
say "Identification by mDNS (the library starts avahi-daemon; the printer announces"
say "ipp on 631 and raw printing on 9100, and 9100 wins). A fresh daemon needs a few"
say "seconds to hear the announcements:"
for _ in 1 2 3 4 5 6 7 8; do
    qoraprinter net identify "$ip" --mdns >/dev/null 2>&1 && break
    sleep 1
done
skip_log
show qoraprinter net identify "$ip" --mdns
say "And by the BJNP backend's discovery:"
show qoraprinter net identify "$ip" --bjnp
show_log

say ""
say "Registering it: the nptab line, its printer.conf section and its queue"
say "(the scheduler is started by the library):"
if command -v qp-cupsd-setup >/dev/null; then qp-cupsd-setup >/dev/null 2>&1; fi
show qoraprinter net configure "$ip" --name Office --ppd /usr/share/ppd/cupsfilters/Generic-PDF_Printer-PDF.ppd
show cat /usr/qora/etc/nptab
show qoraprinter conf show "$ip-Office"
show lpstat -v
show_log

say ""
say "Address checks: a queue prints to $ip; the queue Office prints there; another"
say "address is not served:"
show qoraprinter net check "$ip"
show qoraprinter net check "$ip" Office
show qoraprinter net check 10.123.0.20 Office
say "Reachability: the printer answers; 10.123.0.9 is nobody:"
show qoraprinter net ping "$ip"
show qoraprinter net ping 10.123.0.9

say ""
say "Removing the printer: its queue and its nptab line (the printer.conf section stays):"
show qoraprinter net remove "$ip" --name Office
show lpstat -v
show cat /usr/qora/etc/nptab
show qoraprinter net check "$ip"
show_log
