// The name and address policies of names.hpp.
#include "names.hpp"

#include <arpa/inet.h>
#include <string.h>
#include <sys/stat.h>

#include <vector>

#include "frame.hpp"

namespace qp {

bool name_ok(const char *name, std::size_t max_len) noexcept {
    if (name == nullptr || name[0] == '\0' || name[0] == '-') return false;
    const std::size_t n = strnlen(name, max_len + 1);
    if (n > max_len || strcmp(name, "..") == 0) return false;
    for (std::size_t i = 0; i < n; ++i) {
        const unsigned char c = static_cast<unsigned char>(name[i]);
        if (c == '/' || c < 0x20 || c == 0x7F) return false;
    }
    return true;
}

bool address_ok(const char *addr) noexcept {
    if (addr == nullptr) return false;
    unsigned char raw[16];
    if (inet_pton(AF_INET, addr, raw) == 1 || inet_pton(AF_INET6, addr, raw) == 1) return true;
    const std::size_t n = strnlen(addr, 254);
    if (n == 0 || n > 253 || addr[0] == '-') return false;
    for (std::size_t i = 0; i < n; ++i) {
        const char c = addr[i];
        const bool alnum = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        if (!alnum && c != '.' && c != '_' && c != '-') return false;
    }
    return true;
}

bool print_file_ok(const char *path) noexcept {
    struct stat st;
    return path != nullptr && path[0] != '\0' && path[0] != '-' && stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

int stored_queue_name(const char *printer_id, char *buf, std::size_t size) {
    // One byte more than the caller's buffer tells a name that fits from one
    // that QORAPrinterCupsNameGet had to cut.
    std::vector<char> whole(size + 1);
    if (QORAPrinterCupsNameGet(printer_id, whole.data(), static_cast<int>(whole.size())) != 0) return -1;
    const bool fits = strlen(whole.data()) < size;
    if (!fits || !name_ok(whole.data(), kQueueMax)) {
        QP_LOG_ERR("stored cups printer name refused (%s), printer=%s", fits ? "not a queue name" : "too long",
                   printer_id);
        QP_SET_ERR(fits ? ERR_BAD_PARAMETER : ERR_NAME_TOO_LONG);
        return -1;
    }
    memcpy(buf, whole.data(), strlen(whole.data()) + 1);
    return 0;
}

}  // namespace qp
