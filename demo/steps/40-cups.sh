#!/usr/bin/env bash
# CUPS: the attached USB printer gets its queue (the library starts the print
# service), the queue is stopped, a job waits in it, then the queue goes.
. "$QP_DEMO_DIR/lib.sh"

heading "CUPS queue for the USB printer"

# The USB step leaves its simulated printer attached; take the first one.
id=$(qoraprinter list --usb 2>/dev/null | head -n 1)
if [ -z "$id" ]; then
    id='04a9:1827:A1B2C3'
    say "No USB printer is attached (the USB step did not run); using a printer section for $id."
    qoraprinter conf set "$id" producer=ACME 'product name=Laser 100' >/dev/null
fi
say "Printer: $id"

say ""
say "A private scheduler configuration (Unix socket only, no network, no browsing):"
show qp-cupsd-setup
say "The print service is not running yet, so no queue can serve the printer:"
show qoraprinter queue check "$id" usbprinter1
show_log

say ""
say "Creating the queue starts cupsd, picks the first free USB queue name, stores"
say "it in printer.conf, runs lpadmin and leaves the queue stopped; usbprinter1"
say "gets its twin usbprinter:"
show qoraprinter queue add "$id"
show lpstat -v
show qoraprinter queue check "$id" usbprinter1
show qoraprinter conf cups-name "$id"
show_log

queue=$(qoraprinter conf cups-name "$id" 2>/dev/null)
queue=${queue:-usbprinter1}

say ""
say "The queue is stopped (created with -E, then cupsdisable'd); stopping it again is harmless:"
show qoraprinter queue disable "$queue"
show lpstat -p "$queue"

say ""
say "A job printed to a stopped queue stays in it:"
printf 'Hello from the demo\n' >/tmp/demo-page.txt
show qoraprinter print "$id" /tmp/demo-page.txt --title "demo page"
show lpq -P "$queue"
job=$(lpstat -o "$queue" 2>/dev/null | awk 'NR == 1 { n = split($1, p, "-"); print p[n] }')
if [ -n "$job" ]; then
    say "Job $job stays listed; waiting two seconds for it ends with exit status 5 (timed out):"
    show qoraprinter job wait "$id" "$job" --timeout 2
fi

say ""
say "Removing the printer's queue (only after lpstat confirms it is this printer's);"
say "usbprinter1 takes its twin along and the job goes with the queue:"
show qoraprinter queue rm "$id"
show lpstat -v
show_log
