#!/bin/sh
# A print command for the IPP Everywhere printer (netlab.sh ipp -c): a few
# seconds per document, with the reasons a printer low on toner and out of
# paper reports meanwhile.
echo 'STATE: +toner-low,media-empty' >&2
sleep 4
