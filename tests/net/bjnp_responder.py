#!/usr/bin/python3
# A simulated BJNP printer for the sandbox's printer namespace: answers the
# discovery and identity requests the CUPS BJNP backend broadcasts on UDP port
# 8611, so the real backend lists it.
#
#     bjnp_responder.py ADDRESS DEVICE_ID
#
# A BJNP datagram starts with a 16-byte header: "BJNP", the device type (0x01
# printer request, 0x81 printer reply), the command, two unknown bytes, a
# sequence number, a session ID and the payload length, all big-endian.
# Discovery (0x01) is answered with a MAC and the IPv4 address, identity (0x30)
# with a 2-byte length (counting itself) and the IEEE 1284 device ID.
import socket
import struct
import sys

address, device_id = sys.argv[1], sys.argv[2].encode()
payloads = {
    0x01: bytes([0, 1, 8, 0, 6, 4, 0x02, 0x00, 0x5E, 0x10, 0x00, 0x02]) + socket.inet_aton(address),
    0x30: struct.pack(">H", len(device_id) + 2) + device_id,
}
sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
sock.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
sock.bind(("", 8611))  # the discovery comes as a broadcast
while True:
    request, peer = sock.recvfrom(2048)
    if len(request) < 16 or request[:5] != b"BJNP\x01" or request[5] not in payloads:
        continue
    payload = payloads[request[5]]
    sock.sendto(b"BJNP\x81" + bytes([request[5], 0, 0]) + request[8:12] + struct.pack(">I", len(payload)) + payload, peer)
