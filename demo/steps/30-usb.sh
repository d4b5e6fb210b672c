#!/usr/bin/env bash
# USB printers: a simulated printer is plugged in and attached, then a second
# one comes and goes; the tables, the printer's section of printer.conf and
# the Samba print share are shown at each step.  lp0 stays attached for the
# CUPS step.
. "$QP_DEMO_DIR/lib.sh"

heading "USB printers: attach and detach"

bin=${QP_BIN:-$QP_BUILD_DIR/bin}
events=/run/qp-usbdev.log
id0='04a9:1827:A1B2C3'
id1='03f0:002a:XZ9'

show_share() {
    say "Samba share section ([printers] of /etc/samba/smb.reserved.conf):"
    if [ -f /etc/samba/smb.reserved.conf ]; then
        sed -n '/^\[printers\]/,/^\[[^p]/p' /etc/samba/smb.reserved.conf
    else
        say "  (no file yet)"
    fi
}

show_events() {
    say "What the printer driver saw:"
    sed 's/^/  /' "$events"
    : >"$events"
}

# The simulated USB printer class driver: a FUSE file system serving lp0 and
# lp1 on /dev/usb; and a fake USB sysfs with the two printers' attributes.
say "Plugging in two simulated USB printers (nodes on /dev/usb, devices in sysfs)."
mkdir -p /dev/usb
: >"$events"
"$bin/qp-usbdev" /dev/usb "$events" >/dev/null 2>&1 &
for _ in $(seq 100); do [ -e /dev/usb/control ] && break; sleep 0.02; done
if [ ! -e /dev/usb/control ]; then
    say "The simulated printer driver did not start; skipping the USB step."
    exit 1
fi
if [ -d /sys/bus/usb ]; then sysfs_mount=/sys/bus/usb/devices; else sysfs_mount=/sys/bus; fi
mount -t tmpfs tmpfs "$sysfs_mount"
add_device() {  # busid vendor product serial manufacturer product
    local d=/sys/bus/usb/devices/$1
    mkdir -p "$d/$1:1.0"
    echo "$2" >"$d/idVendor"; echo "$3" >"$d/idProduct"; echo "$4" >"$d/serial"
    echo "$5" >"$d/manufacturer"; echo "$6" >"$d/product"
    echo 07 >"$d/$1:1.0/bInterfaceClass"
}
add_device 1-1 04a9 1827 A1B2C3 ACME 'Laser USB'
add_device 1-2 03f0 002a XZ9 Hewlett 'Office Jet'
echo 'lp1 id=MFG:Hewlett;CMD:PCL3;DES:Office Jet 200;' >/dev/usb/control
show ls -l /dev/usb

say ""
say "Hot-plug of lp0 on bus 1-1: the table line, the printer ID (vendor:product:serial),"
say "the printer's section from its device ID string, the driver's enable notice, the share:"
show qoraprinter attach lp0 1-1
show cat /tmp/usbtab
show qoraprinter conf show "$id0"
show_share
show_events
show qoraprinter share-status
show_log

say ""
say "The device ID string straight from the node, and a soft reset:"
show qoraprinter device-id lp0
show qoraprinter reset lp0
show_events

say ""
say "A second printer on bus 1-2; its device ID has no MDL:, so DES: names the model."
say "A third node (lp2) is refused: two USB printers at most, and that is no error."
show qoraprinter attach lp1 1-2
show qoraprinter attach lp2 1-3
show cat /tmp/usbtab
show qoraprinter conf show "$id1"
show qoraprinter list --usb
show_share
show_log

say ""
say "The administrator changes lp1's mode; pulling it out removes only its table line"
say "(the section stays), and plugging it in again keeps the stored mode:"
show qoraprinter conf set "$id1" mode=exclusive
show qoraprinter detach lp1
show cat /tmp/usbtab
show qoraprinter attach lp1 1-2
show qoraprinter conf show "$id1"

say ""
say "Detach by bus ID removes every printer under that port prefix (no notice: no node name):"
show qoraprinter detach --bus 1-2
show cat /tmp/usbtab
show_events

say ""
say "A network printer table entry is listed beside the USB printers:"
show qoraprinter nptab add 192.168.1.20 Office_Laser
show qoraprinter list
show qoraprinter nptab rm 192.168.1.20 Office_Laser
show qoraprinter list --net

say ""
say "USB/IP sharing: a stand-in for /usr/bin/bind_driver records its arguments; the"
say "printer's status file is the USB/IP side's:"
install -m 0755 "$QP_SOURCE_DIR/tests/usb/fake_bind_driver.sh" /usr/bin/bind_driver
printf 'LOCK="Locked by 10.0.0.7"\nQUEUE="usbprinter1 (2)"\n' >"/tmp/usbip_$id0"
show qoraprinter usbip status "$id0"
show qoraprinter usbip queue "$id0"
show qoraprinter usbip release "$id0"
show qoraprinter usbip eject "$id0"
show cat /tmp/bind_driver.log
show qoraprinter usbip status "$id1"
show_log

say ""
say "lp0 stays attached for the next step."
show qoraprinter list --usb
