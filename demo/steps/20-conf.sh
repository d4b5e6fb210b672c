#!/usr/bin/env bash
# printer.conf: a USB printer's section, forced keys, model detection and the
# cloud print account with its enciphered secret.
. "$QP_DEMO_DIR/lib.sh"

conf=/usr/qora/etc/printer.conf
id='04a9:1827:A1B2C3'
devid='MFG:ACME;CMD:PCL,PJL;MDL:Laser 100;CLS:PRINTER;'

heading "Printer configuration (printer.conf)"
say "The attach of a USB printer reads its maker and model out of the device ID string:"
show qoraprinter stringid vendor "$devid"
show qoraprinter stringid model "$devid"

say ""
say "It writes the printer's section; only the fields given are stored."
show qoraprinter conf set "$id" producer=ACME 'product name=Laser 100' mode=usbip driver=pcl6 \
    'driver brand=ACME' "usblp string id=$devid"
show qoraprinter conf show "$id"

say ""
say "An empty driver leaves the stored one alone, unless forced (then it is stored empty):"
show qoraprinter conf set "$id" driver= mode=lpr
show qoraprinter conf show "$id"
show qoraprinter conf set "$id" driver= --force
show qoraprinter conf show "$id"

say ""
say "Model detection walks the stored device ID pair by pair (keys whole, with their case):"
show qoraprinter conf detect "$id"

say ""
say "No queue yet, so no queue name; the library logs why:"
show qoraprinter conf cups-name "$id"
show_log

heading "Cloud print account"
say "Secrets never go on the command line (every user can read it in /proc):"
show qoraprinter cloud set user@example.com --password 'correct horse'
say "They come from a file or, with -, from standard input:"
show qoraprinter cloud set user@example.com --password-file - <<<'correct horse'
show qoraprinter cloud show
say "In the file the password is enciphered:"
show cat "$conf"
say "Switching to a refresh token drops the stored password:"
printf '1//refresh-token-value\n' >/tmp/demo-token && chmod 600 /tmp/demo-token
show qoraprinter cloud set user@example.com --token-file /tmp/demo-token
show qoraprinter cloud show --reveal --json
show qoraprinter conf show 'Google Cloud Print'
