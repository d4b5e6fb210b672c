#!/bin/bash
# A small network of simulated printers for the tests, benchmarks and demo.
# Run it ONLY inside the sandbox (qp-sandbox): it creates network namespaces,
# writes /etc/snmp, /etc/avahi and /etc/hosts, all of which vanish
# with the sandbox.
#
#   netlab.sh up [snmp] [bjnp] [avahi] [ipp]   (no component: the network only)
#   netlab.sh ipp OPTION...   restart the IPP printer at 10.123.0.8 with these
#                             options (e.g. -a lab/eve.attrs -c lab/eve-print.sh)
#
# Layout: this namespace is the client (veth-c, 10.123.0.1/24); the
# namespace qp-prn holds the printers (veth-p):
#   10.123.0.2  printer "ACME X1": SNMP agent with device ID and device URI,
#               BJNP responder, mDNS host qp-office (ipp 631, socket 9100)
#   10.123.0.3  SNMP agent: device ID, no device URI; mDNS qp-basement (lpd 515)
#   10.123.0.4  SNMP agent: device URI, no device ID; mDNS qp-web (http 80 only)
#   10.123.0.5  SNMP agent: odd values (hex, quotes, newlines, empty)
#   10.123.0.6  SNMP agent: 10,000 objects, device ID among the first;
#               mDNS qp-half (ipp 631 without usb_MDL)
#   10.123.0.7  SNMP agent with another community
#   10.123.0.8  IPP Everywhere printer "ACME Eve 1" (ippeveprinter, port 631,
#               ipp/print), announced by mDNS as qp-eve.local; keeps
#               every document it receives in /tmp/qp-net/eve (component ipp)
#   10.123.0.2  with ipp: also an IPP printer on 631 that takes PostScript only
#   10.123.0.9  nobody (no host answers)
set -eu

HERE=$(cd "$(dirname "$0")" && pwd)
LAB=/tmp/qp-net
NS=qp-prn
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=/run/dbus/system_bus_socket

[ "${QP_SANDBOX:-}" = 1 ] || { echo "netlab.sh: run me inside qp-sandbox" >&2; exit 2; }

# Polls the command (an exported function will do) for up to the given seconds.
wait_for() {  # seconds, command...
    timeout "$1" bash -c 'until "$@" >/dev/null 2>&1; do sleep 0.05; done' wait_for "${@:2}"
}
# Something in the printers' namespace listens (ss filter, e.g. "src ADDR:PORT").
listening() {
    ip netns exec $NS ss -Hltun "$@" | grep -q .
}
export NS
export -f wait_for listening

net_up() {
    [ -e /run/netns/$NS ] && return 0
    mkdir -p $LAB
    ip netns add $NS
    ip link add veth-c type veth peer name veth-p netns $NS
    ip addr add 10.123.0.1/24 brd + dev veth-c
    ip link set veth-c up
    ip -n $NS link set lo up
    for a in 2 3 4 5 6 7; do ip -n $NS addr add 10.123.0.$a/24 brd + dev veth-p; done
    ip -n $NS link set veth-p up
    wait_for 5 ping -c 1 -W 1 10.123.0.2
}

snmp_up() {
    mkdir -p /etc/snmp
    # snmpwalk finds "enterprises" only through a MIB; Debian ships none.
    printf 'mibdirs %s\nmibs SNMPv2-SMI\n' "$HERE/mibs" > /etc/snmp/snmp.conf
    seq 9997 | sed 's/.*/override .1.3.6.1.4.1.2699.1.2.1.9.1.& octet_str "object number & of the big agent"/' \
        > $LAB/snmpd-big.conf
    for a in 2 3 4 5 6 7; do
        ip netns exec $NS /usr/sbin/snmpd -f -C -I -smux -Lf /dev/null -p $LAB/snmpd-$a.pid \
            -c "$HERE/lab/snmpd-common.conf,$HERE/lab/snmpd-10.123.0.$a.conf" "udp:10.123.0.$a:161" \
            </dev/null >/dev/null 2>&1 &
    done
    for a in 2 3 4 5 6 7; do
        wait_for 10 listening "src 10.123.0.$a:161" || { echo "netlab.sh: no snmpd on 10.123.0.$a" >&2; return 1; }
    done
}

bjnp_up() {
    ip netns exec $NS /usr/bin/python3 "$HERE/bjnp_responder.py" 10.123.0.2 "MFG:ACME;CMD:BJL,NCCe;MDL:X1;CLS:PRINTER;DES:ACME X1;" \
        </dev/null >$LAB/bjnp.log 2>&1 &
    wait_for 5 listening "sport = :8611"
}

# The printers' mDNS side: a D-Bus and an avahi-daemon of their own in a
# mount namespace with its own /run and lab/avahi as /etc/avahi (the host
# names in hosts, the printers' services in services/).  The daemon runs
# under another name so that the client's check for a running
# "avahi-daemon" does not see it.
avahi_up() {
    avahi_client_up
    ln -sf /usr/sbin/avahi-daemon $LAB/qp-prn-avahid
    ip netns exec $NS /bin/bash -ec "
        mount -t tmpfs tmpfs /run
        mount --bind $HERE/lab/avahi /etc/avahi
        mkdir -p /run/dbus /run/avahi-daemon
        dbus-daemon --system --fork
        wait_for 5 test -S /run/dbus/system_bus_socket
        $LAB/qp-prn-avahid --no-drop-root --no-chroot --no-rlimits -D
        wait_for 5 test -S /run/avahi-daemon/socket
        cat /run/avahi-daemon/pid > $LAB/avahi-prn.pid"
}

# IPP printers (ippeveprinter) in the printers' mount namespace, where the
# D-Bus and avahi-daemon it needs at start are.  Each one binds only the
# addresses its host name has in /etc/hosts (an IPv6 one too: it refuses to
# start without an IPv6 listener).  Its own DNS-SD registration would name
# the daemon's host, whose address is any of the namespace's: the IPP
# Everywhere printer is announced by lab/avahi/services/eve.service instead,
# with the TXT keys such a printer has.
ipp_start() {  # tag host v4 v6 options...
    local tag=$1 host=$2 v4=$3 v6=$4
    shift 4
    if [ -s $LAB/ipp-$tag.pid ]; then  # a restart
        kill "$(cat $LAB/ipp-$tag.pid)"
        wait_for 5 bash -c "! listening 'src $v4:631'"
    else
        ip -n $NS addr add $v6/64 dev veth-p nodad
        printf '%s %s\n%s %s\n' $v4 $host $v6 $host >> /etc/hosts
    fi
    mkdir -p $LAB/$tag
    nsenter -t "$(cat $LAB/avahi-prn.pid)" -m -n -r -w /usr/sbin/ippeveprinter -p 631 -n $host -r off \
        -d $LAB/$tag -k "$@" </dev/null >$LAB/ipp-$tag.log 2>&1 &
    echo $! > $LAB/ipp-$tag.pid
    wait_for 5 listening "src $v4:631" || { echo "ippeveprinter $tag did not come up: $(cat $LAB/ipp-$tag.log)" >&2; return 1; }
}

ipp_up() {
    [ -s $LAB/ipp-eve.pid ] && return 0
    [ -s $LAB/avahi-prn.pid ] || avahi_up
    ip -n $NS addr add 10.123.0.8/24 dev veth-p
    # Each document is taken at once (/bin/true), not after the simulated
    # 5-15 s of printing ippeveprinter spends without a command.
    ipp_start eve qp-eve.local 10.123.0.8 fd00:123::8 -M ACME -m "Eve 1" -c /bin/true "ACME Eve" &&
        ipp_start old qp-office.local 10.123.0.2 fd00:123::2 -M ACME -m X1 -f application/postscript -c /bin/true "ACME X1"
}

# The client's D-Bus, and the configuration its avahi-daemon reads when the
# library starts the service.
avahi_client_up() {
    mkdir -p /run/dbus /etc/avahi /usr/qora/sbin
    [ -S /run/dbus/system_bus_socket ] || dbus-daemon --system --fork
    wait_for 5 test -S /run/dbus/system_bus_socket
    cp "$HERE/lab/avahi-client.conf" /etc/avahi/avahi-daemon.conf
    [ -e /usr/qora/sbin/avahi-browse ] || ln -s /usr/bin/avahi-browse /usr/qora/sbin/avahi-browse
}

if [ "${1:-}" = ipp ]; then
    shift
    ipp_start eve qp-eve.local 10.123.0.8 fd00:123::8 "$@" "ACME Eve"
    exit
fi
[ "${1:-}" = up ] || { echo "usage: netlab.sh up [snmp] [bjnp] [avahi] [ipp] | ipp OPTION..." >&2; exit 2; }
shift
net_up
for c in "$@"; do
    case $c in
    snmp | bjnp | avahi | ipp) "${c}_up" ;;
    *) echo "netlab.sh: unknown component $c" >&2; exit 2 ;;
    esac
done
