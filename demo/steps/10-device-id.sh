#!/usr/bin/env bash
# Device ID strings: the IEEE 1284 string a printer reports, and what the
# library reads out of it.
. "$QP_DEMO_DIR/lib.sh"

heading "Device ID strings"
say "A printer describes itself with pairs KEY:value; separated by semicolons."
id='MFG:ACME;CMD:PCL,PJL,POSTSCRIPT;MDL:Laser 100;CLS:PRINTER;DES:ACME Laser 100 series;'
show qoraprinter stringid vendor "$id"
show qoraprinter stringid model "$id"
show qoraprinter stringid cmd "$id"

say ""
say "Long key names come first when both are present; keys match whatever their case."
show qoraprinter stringid vendor 'manufacturer:Acme Corp;mfg:ACME;model:LX-9;'
show qoraprinter stringid model 'manufacturer:Acme Corp;mfg:ACME;model:LX-9;'

say ""
say "Any key, with its colon; an absent key gives exit status 3 ("no")."
show qoraprinter stringid get 'CLS:' "$id"
show qoraprinter stringid get 'SN:' "$id"

say ""
say "Bad arguments are refused. The parse logs the check that failed, once for each"
say "key the shortcut tries (MANUFACTURER:, MFG:, MFR:):"
show qoraprinter stringid vendor ''
show_log
