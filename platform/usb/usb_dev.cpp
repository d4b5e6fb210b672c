// Attached USB devices: the device names are the "lp*" keys of /tmp/usbtab
// (value: the USB bus ID), the details come from the device's sysfs
// directory /sys/bus/usb/devices/<bus ID>/.  usbtab lives in /tmp, so it is
// read only through the core library's key-value readers: a usbtab that is
// not root's own regular file (a link, a FIFO, a user's file) reads as
// absent, nothing blocks, and a usbtab over 1 MiB is an error, never read.
#include "qoracore.h"
#include "qorausb.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <new>
#include <string>
#include <vector>

#define USB_FAIL(code) QLIBCErrSetEx((code), __FILE_NAME__, __LINE__)

namespace {

constexpr const char *kUsbtab = "/tmp/usbtab";
constexpr const char *kSysfsDevices = "/sys/bus/usb/devices";
constexpr int kValueMax = 4096;

// First line of a sysfs attribute, blanks around it removed; "" when missing.
std::string read_attr(const std::string &dir, const char *name) {
    std::string path = dir + "/" + name;
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return {};
    char buf[512];
    ssize_t n;
    do {
        n = ::read(fd, buf, sizeof buf - 1);
    } while (n < 0 && errno == EINTR);
    ::close(fd);
    if (n <= 0) return {};
    std::string s(buf, static_cast<size_t>(n));
    s = s.substr(0, s.find('\n'));
    s = s.substr(0, s.find('\0'));
    size_t b = s.find_first_not_of(" \t\r");
    if (b == std::string::npos) return {};
    size_t e = s.find_last_not_of(" \t\r");
    return s.substr(b, e - b + 1);
}

unsigned long parse_number(const std::string &s, int base) {
    if (s.empty()) return 0;
    char *end = nullptr;
    errno = 0;
    unsigned long v = strtoul(s.c_str(), &end, base);
    if (errno != 0 || *end != '\0' || s[0] == '-') return 0;
    return v;
}

void copy_field(char *dst, size_t size, const std::string &src) { snprintf(dst, size, "%s", src.c_str()); }

bool bus_id_ok(const char *id) {
    size_t n = strnlen(id, 64);
    return n > 0 && n < 64 && strchr(id, '/') == nullptr && strcmp(id, ".") != 0 && strcmp(id, "..") != 0;
}

// USB interface class of printers (07) and of mass storage (08).
unsigned char device_type(const std::string &dir, const std::string &bus_id) {
    unsigned char type = 0;
    const std::unique_ptr<DIR, int (*)(DIR *)> d(::opendir(dir.c_str()), ::closedir);
    if (!d) return QORAUSB_TYPE_OTHER;
    const std::string prefix = bus_id + ":";
    while (struct dirent *e = ::readdir(d.get())) {
        if (strncmp(e->d_name, prefix.c_str(), prefix.size()) != 0) continue;
        std::string cls = read_attr(dir + "/" + e->d_name, "bInterfaceClass");
        if (cls == "07")
            type |= QORAUSB_TYPE_PRINTER_BI;
        else if (cls == "08")
            type |= QORAUSB_TYPE_STORAGE;
    }
    return type ? type : QORAUSB_TYPE_OTHER;
}

}  // namespace

extern "C" QORAUSB_API int QORAUSBDevGetInfo(const char *szDevName, PQORAUSB_DEV_INFO pInfo) {
    if (!szDevName || !*szDevName || !pInfo || strlen(szDevName) >= sizeof pInfo->szDevName) {
        USB_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        char bus_id[kValueMax];
        if (QLIBCFileGetKeyValue(kUsbtab, szDevName, bus_id, sizeof bus_id, 0) < 0) {
            USB_FAIL(ERR_KEY_NOT_FOUND);
            return -1;
        }
        if (!bus_id_ok(bus_id)) {
            USB_FAIL(ERR_BAD_PARAMETER);
            return -1;
        }
        const std::string dir = std::string(kSysfsDevices) + "/" + bus_id;
        struct stat st {};
        if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            USB_FAIL(ERR_OPEN_FAILED);  // unplugged since usbtab was written
            return -1;
        }
        memset(pInfo, 0, sizeof *pInfo);
        copy_field(pInfo->szDevName, sizeof pInfo->szDevName, szDevName);
        copy_field(pInfo->szBusId, sizeof pInfo->szBusId, bus_id);
        pInfo->ulVendorId = parse_number(read_attr(dir, "idVendor"), 16);
        pInfo->ulProductId = parse_number(read_attr(dir, "idProduct"), 16);
        pInfo->ucBusNum = static_cast<unsigned char>(parse_number(read_attr(dir, "busnum"), 10));
        pInfo->ucDevNum = static_cast<unsigned char>(parse_number(read_attr(dir, "devnum"), 10));
        copy_field(pInfo->szManufacturer, sizeof pInfo->szManufacturer, read_attr(dir, "manufacturer"));
        copy_field(pInfo->szProduct, sizeof pInfo->szProduct, read_attr(dir, "product"));
        copy_field(pInfo->szSerial, sizeof pInfo->szSerial, read_attr(dir, "serial"));
        pInfo->ucType = device_type(dir, bus_id);
        if (pInfo->szSerial[0] && pInfo->ulVendorId && pInfo->ulProductId)
            snprintf(pInfo->szPrinterId, sizeof pInfo->szPrinterId, "%04lx:%04lx:%s", pInfo->ulVendorId,
                     pInfo->ulProductId, pInfo->szSerial);
        return 0;
    } catch (const std::bad_alloc &) {
        USB_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
}

extern "C" QORAUSB_API int QORAUSBDevEnum(unsigned int uTypeMask, void *pBuf, int cbBuf, int *pcbNeeded) {
    if (cbBuf < 0 || (pBuf && cbBuf == 0) || (!pBuf && cbBuf != 0) || (!pBuf && !pcbNeeded)) {
        USB_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        std::vector<std::string> names;
        PQLIBSZHASH hash = QLIBCSzHashAlloc(64);
        PQLIBSZLIST keys = QLIBCSzListAlloc(64);
        if (!hash || !keys) {
            QLIBCSzHashFree(hash);
            QLIBCSzListFree(keys);
            return -1;
        }
        // No usbtab: nothing attached.
        if (QLIBCFileGetPair(kUsbtab, &hash) > 0 && QLIBCSzHashEnumKey(hash, &keys) > 0) {
            for (int i = 0; i < keys->nItem; ++i) {
                const char *key = keys->pszItem[i];
                if (strncmp(key, "lp", 2) != 0) continue;
                // A device is listed only when its details can be read now.
                QORAUSB_DEV_INFO info;
                memset(&info, 0, sizeof info);
                if (QORAUSBDevGetInfo(key, &info) == 0 && (info.ucType & uTypeMask)) names.emplace_back(key);
            }
        }
        QLIBCSzHashFree(hash);
        QLIBCSzListFree(keys);

        size_t need = (names.size() + 1) * sizeof(char *);
        for (const auto &n : names) need += n.size() + 1;
        if (need > 0x7fffffff) {
            USB_FAIL(ERR_OUT_OF_MEMORY);
            return -1;
        }
        if (pcbNeeded) *pcbNeeded = static_cast<int>(need);
        if (!pBuf) return static_cast<int>(names.size());
        if (static_cast<size_t>(cbBuf) < need) {
            USB_FAIL(ERR_BAD_PARAMETER);
            return -1;
        }
        char **ptrs = static_cast<char **>(pBuf);
        char *text = static_cast<char *>(pBuf) + (names.size() + 1) * sizeof(char *);
        for (size_t i = 0; i < names.size(); ++i) {
            memcpy(text, names[i].c_str(), names[i].size() + 1);
            ptrs[i] = text;
            text += names[i].size() + 1;
        }
        ptrs[names.size()] = nullptr;
        return static_cast<int>(names.size());
    } catch (const std::bad_alloc &) {
        USB_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
}
