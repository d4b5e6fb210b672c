#!/usr/bin/env bash
# Driverless printing: an IPP Everywhere printer (ippeveprinter) in the
# printers' namespace is found by mDNS, configured from what it says about
# itself over IPP, prints a page, and reports its state and supplies.
. "$QP_DEMO_DIR/lib.sh"

heading "Driverless network printer"

lab_up ipp
ip=10.123.0.8

say "A printer at $ip announces itself by mDNS as an IPP printer, with its"
say "make, model and page formats in the TXT record:"
for _ in 1 2 3 4 5 6 7 8; do
    qoraprinter net identify "$ip" --mdns >/dev/null 2>&1 && break
    sleep 1
done
skip_log
show sh -c "timeout 10 avahi-browse -rtp _ipp._tcp | grep qp-eve"
show qoraprinter net identify "$ip" --mdns
skip_log

say ""
say "Configured driverlessly: the command asks the printer for its attributes"
say "(ipptool), makes the PPD from them (cups-filters' driverless) and registers"
say "the printer as usual (nptab line, printer.conf section, queue with that PPD):"
if command -v qp-cupsd-setup >/dev/null; then qp-cupsd-setup >/dev/null 2>&1; fi
show qoraprinter net configure "$ip" --name Eve --driverless
show lpstat -v Eve
show grep -E '^\*(NickName|cupsFilter2|DefaultPageSize)' /etc/cups/ppd/Eve.ppd
show_log

say ""
say "Printing the test page through the queue; the scheduler's filters turn it"
say "into a raster format the printer announced, and the printer keeps it:"
show qoraprinter print-test "$ip-Eve"
job=$(lpstat -o Eve 2>/dev/null | sed -n '1s/^Eve-\([0-9]*\) .*/\1/p')
show lpstat -o Eve
say "Waiting until job $job has left the queue:"
for _ in $(seq 60); do
    [ "$(qoraprinter job wait "$ip-Eve" "$job" 2>/dev/null)" = complete ] && break
    sleep 0.5
done
skip_log
show qoraprinter job wait "$ip-Eve" "$job"
show ls -l /tmp/qp-net/eve
for f in /tmp/qp-net/eve/*; do
    case $f in *.prn) ;; *) say "$(basename "$f") starts with: $(head -c 8 "$f" | tr -c '[:print:]' '.')" ;; esac
done
show_log

say ""
say "The printer's status over IPP: state, reasons and supplies (text and JSON):"
show qoraprinter net status "$ip"
show qoraprinter net status "$ip" --json

say ""
say "A printer that speaks IPP but takes only PostScript, and an address where"
say "no IPP printer answers, are refused with exit status 3:"
show qoraprinter net configure 10.123.0.2 --name Old --driverless
show qoraprinter net status 10.123.0.3
show_log
