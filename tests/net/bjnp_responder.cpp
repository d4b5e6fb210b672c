// A simulated BJNP printer for the sandbox's printer namespace: answers the
// discovery and identity requests that the CUPS BJNP backend broadcasts on
// UDP port 8611, so the real backend lists it.
//
//   qp-bjnp-responder ADDRESS DEVICE_ID [MAC]
//
// Every BJNP datagram starts with a 16-byte header: "BJNP", the device type
// (0x01 printer request, 0x81 printer reply), the command, two unknown
// bytes, a sequence number, a session ID and the payload length, all
// big-endian.  Discovery (0x01) is answered with the printer's MAC and IPv4
// address, identity (0x30) with a 2-byte length (counting itself) and the
// IEEE 1284 device ID.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

constexpr size_t kHeader = 16;

void put16(std::vector<uint8_t> &v, size_t at, uint16_t x) {
    v[at] = static_cast<uint8_t>(x >> 8);
    v[at + 1] = static_cast<uint8_t>(x);
}

void put32(std::vector<uint8_t> &v, size_t at, uint32_t x) {
    for (int i = 0; i < 4; ++i) v[at + static_cast<size_t>(i)] = static_cast<uint8_t>(x >> (24 - 8 * i));
}

std::vector<uint8_t> reply(const uint8_t *request, uint8_t cmd, const std::vector<uint8_t> &payload) {
    std::vector<uint8_t> out(kHeader + payload.size());
    memcpy(out.data(), "BJNP", 4);
    out[4] = 0x81;
    out[5] = cmd;
    memcpy(&out[8], request + 8, 4);  // sequence number and session ID as asked
    put32(out, 12, static_cast<uint32_t>(payload.size()));
    memcpy(out.data() + kHeader, payload.data(), payload.size());
    return out;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: %s ADDRESS DEVICE_ID [MAC]\n", argv[0]);
        return 2;
    }
    in_addr self{};
    if (inet_pton(AF_INET, argv[1], &self) != 1) {
        fprintf(stderr, "bad address %s\n", argv[1]);
        return 2;
    }
    const std::string id = argv[2];
    uint8_t mac[6] = {0x02, 0x00, 0x5e, 0x10, 0x00, 0x02};
    if (argc > 3) {
        unsigned m[6];
        if (sscanf(argv[3], "%x:%x:%x:%x:%x:%x", &m[0], &m[1], &m[2], &m[3], &m[4], &m[5]) == 6) {
            for (int i = 0; i < 6; ++i) mac[i] = static_cast<uint8_t>(m[i]);
        }
    }

    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return perror("socket"), 1;
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(8611);
    any.sin_addr.s_addr = htonl(INADDR_ANY);  // the discovery comes as a broadcast
    if (bind(fd, reinterpret_cast<sockaddr *>(&any), sizeof any) < 0) return perror("bind"), 1;

    for (;;) {
        uint8_t buf[2048];
        sockaddr_in peer{};
        socklen_t plen = sizeof peer;
        const ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&peer), &plen);
        if (n < 0) continue;
        if (static_cast<size_t>(n) < kHeader || memcmp(buf, "BJNP", 4) != 0 || buf[4] != 0x01) continue;
        fprintf(stderr, "request 0x%02x from %s\n", buf[5], inet_ntoa(peer.sin_addr));
        std::vector<uint8_t> payload;
        if (buf[5] == 0x01) {
            payload = {0x00, 0x01, 0x08, 0x00, 6, 4};
            payload.insert(payload.end(), mac, mac + 6);
            const auto *a = reinterpret_cast<const uint8_t *>(&self.s_addr);
            payload.insert(payload.end(), a, a + 4);
        } else if (buf[5] == 0x30) {
            payload.resize(2);
            put16(payload, 0, static_cast<uint16_t>(id.size() + 2));
            payload.insert(payload.end(), id.begin(), id.end());
        } else {
            continue;
        }
        const std::vector<uint8_t> out = reply(buf, buf[5], payload);
        sendto(fd, out.data(), out.size(), 0, reinterpret_cast<sockaddr *>(&peer), plen);
    }
}
