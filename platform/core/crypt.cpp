// Secrets kept in configuration files: XSalsa20-Poly1305 (libsodium's
// secretbox) under a per-appliance random key, stored as URL-safe base64 of
// nonce followed by ciphertext.  Any change to the stored text fails the
// authentication, so a tampered secret is refused rather than garbled.
#include "core_internal.hpp"

#include <errno.h>
#include <fcntl.h>
#include <sodium.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

namespace {

constexpr const char *kKeyFile = "/usr/qora/etc/.qoracrypt.key";
constexpr const char *kKeyDir = "/usr/qora/etc";
constexpr int kB64Variant = sodium_base64_VARIANT_URLSAFE_NO_PADDING;

bool read_key(unsigned char key[crypto_secretbox_KEYBYTES]) {
    qc::Fd fd{::open(kKeyFile, O_RDONLY | O_CLOEXEC)};
    if (!fd.ok()) return false;
    std::string data;
    if (qc::read_whole_fd(fd.get(), data) != 0 || data.size() != crypto_secretbox_KEYBYTES) return false;
    memcpy(key, data.data(), crypto_secretbox_KEYBYTES);
    sodium_memzero(data.data(), data.size());
    return true;
}

// Creates the key on first use.  The key is written completely to a private
// temporary file and then linked into place: link() fails when the name
// exists, so of two racing creators exactly one key survives and nobody ever
// reads a half-written key file.
bool create_key() {
    if (qc::make_dirs(kKeyDir, 0755) != 0) return false;
    std::string tmpl = std::string(kKeyDir) + "/.qoracrypt.key.XXXXXX";
    qc::Fd fd{::mkostemp(tmpl.data(), O_CLOEXEC)};
    if (!fd.ok()) return false;
    unsigned char key[crypto_secretbox_KEYBYTES];
    crypto_secretbox_keygen(key);
    bool ok = ::fchmod(fd.get(), 0600) == 0 &&
              ::write(fd.get(), key, sizeof key) == static_cast<ssize_t>(sizeof key) && ::fsync(fd.get()) == 0;
    sodium_memzero(key, sizeof key);
    if (ok && ::link(tmpl.c_str(), kKeyFile) != 0 && errno != EEXIST) ok = false;
    ::unlink(tmpl.c_str());
    return ok;
}

bool load_key(unsigned char key[crypto_secretbox_KEYBYTES]) {
    if (sodium_init() < 0) return false;
    if (read_key(key)) return true;
    if (QLIBCFileExist(kKeyFile)) return false;  // there but unreadable or damaged: never replace it
    return create_key() && read_key(key);
}

}  // namespace

extern "C" QLIBC_API int QLIBCCryptSzEncrypt(const char *szPlain, char *szBuf, int cbBuf) {
    if (!szPlain || !*szPlain || !szBuf || cbBuf <= 0) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return 0;
    }
    const size_t plain_len = strlen(szPlain);
    const size_t bin_len = crypto_secretbox_NONCEBYTES + crypto_secretbox_MACBYTES + plain_len;
    if (sodium_base64_encoded_len(bin_len, kB64Variant) > static_cast<size_t>(cbBuf)) {
        QC_FAIL(ERR_VALUE_TOO_LONG);
        return 0;
    }
    unsigned char key[crypto_secretbox_KEYBYTES];
    if (!load_key(key)) {
        QC_FAIL(ERR_OPEN_FAILED);
        return 0;
    }
    std::vector<unsigned char> bin(bin_len);
    randombytes_buf(bin.data(), crypto_secretbox_NONCEBYTES);
    crypto_secretbox_easy(bin.data() + crypto_secretbox_NONCEBYTES, reinterpret_cast<const unsigned char *>(szPlain),
                          plain_len, bin.data(), key);
    sodium_memzero(key, sizeof key);
    sodium_bin2base64(szBuf, static_cast<size_t>(cbBuf), bin.data(), bin.size(), kB64Variant);
    return 1;
}

extern "C" QLIBC_API int QLIBCCryptSzDecrypt(const char *szStored, char *szBuf, int cbBuf) {
    if (!szStored || !*szStored || !szBuf || cbBuf <= 0) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return 0;
    }
    const size_t stored_len = strlen(szStored);
    std::vector<unsigned char> bin(stored_len);
    size_t bin_len = 0;
    const char *end = nullptr;
    if (sodium_base642bin(bin.data(), bin.size(), szStored, stored_len, nullptr, &bin_len, &end, kB64Variant) != 0 ||
        end != szStored + stored_len || bin_len <= crypto_secretbox_NONCEBYTES + crypto_secretbox_MACBYTES) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return 0;
    }
    const size_t plain_len = bin_len - crypto_secretbox_NONCEBYTES - crypto_secretbox_MACBYTES;
    if (plain_len + 1 > static_cast<size_t>(cbBuf)) {
        QC_FAIL(ERR_VALUE_TOO_LONG);
        return 0;
    }
    unsigned char key[crypto_secretbox_KEYBYTES];
    if (!load_key(key)) {
        QC_FAIL(ERR_OPEN_FAILED);
        return 0;
    }
    std::vector<unsigned char> plain(plain_len);
    int rc = crypto_secretbox_open_easy(plain.data(), bin.data() + crypto_secretbox_NONCEBYTES,
                                        bin_len - crypto_secretbox_NONCEBYTES, bin.data(), key);
    sodium_memzero(key, sizeof key);
    if (rc != 0) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return 0;
    }
    memcpy(szBuf, plain.data(), plain_len);
    szBuf[plain_len] = '\0';
    sodium_memzero(plain.data(), plain.size());
    return 1;
}
