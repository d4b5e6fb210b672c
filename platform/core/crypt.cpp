// Secrets kept in configuration files: XChaCha20-Poly1305 (libsodium's
// IETF AEAD) under a per-appliance random key, with the name the value is
// stored under as associated data, stored as URL-safe base64 of nonce
// followed by ciphertext.  Any change to the stored text fails the
// authentication, and so does a sealed value moved to another name: a
// tampered or swapped secret is refused rather than garbled.
//
// The key file must be a regular file of root's that group and others cannot
// read or write (created 0600 with O_EXCL|O_NOFOLLOW); any other key file is
// refused and never replaced.
#include "core_internal.hpp"
#include "safe_file.hpp"

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

constexpr size_t kKeyBytes = crypto_aead_xchacha20poly1305_ietf_KEYBYTES;
constexpr size_t kNonceBytes = crypto_aead_xchacha20poly1305_ietf_NPUBBYTES;
constexpr size_t kMacBytes = crypto_aead_xchacha20poly1305_ietf_ABYTES;

enum class KeyState { Ok, Missing, Refused };

KeyState read_key(unsigned char key[kKeyBytes]) {
    qc::Fd fd{::open(kKeyFile, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY)};
    if (!fd.ok()) return errno == ENOENT ? KeyState::Missing : KeyState::Refused;
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != ::geteuid() || (st.st_mode & 077) ||
        st.st_size != static_cast<off_t>(kKeyBytes))
        return KeyState::Refused;
    std::string data;
    if (qp::safefile::read_bounded(fd.get(), data, kKeyBytes) != 0 || data.size() != kKeyBytes) {
        sodium_memzero(data.data(), data.size());
        return KeyState::Refused;
    }
    memcpy(key, data.data(), kKeyBytes);
    sodium_memzero(data.data(), data.size());
    return KeyState::Ok;
}

// Creates the key on first use.  The key is written completely to a private
// temporary file and then linked into place: link() fails when the name
// exists, so of two racing creators exactly one key survives and nobody ever
// reads a half-written key file.
bool create_key() {
    if (qc::make_dirs(kKeyDir, 0755) != 0) return false;
    qc::Fd dir{qp::safefile::open_dir(kKeyDir)};
    if (!dir.ok()) return false;
    std::string tmp;
    qc::Fd fd{qp::safefile::create_temp(dir.get(), ".qoracrypt.key", tmp)};
    if (!fd.ok()) return false;
    unsigned char key[kKeyBytes];
    crypto_aead_xchacha20poly1305_ietf_keygen(key);
    bool ok = ::write(fd.get(), key, sizeof key) == static_cast<ssize_t>(sizeof key) && ::fsync(fd.get()) == 0;
    sodium_memzero(key, sizeof key);
    const char *name = strrchr(kKeyFile, '/') + 1;
    if (ok && ::linkat(dir.get(), tmp.c_str(), dir.get(), name, 0) != 0 && errno != EEXIST) ok = false;
    ::unlinkat(dir.get(), tmp.c_str(), 0);
    return ok;
}

bool load_key(unsigned char key[kKeyBytes]) {
    if (sodium_init() < 0) return false;
    switch (read_key(key)) {
        case KeyState::Ok:
            return true;
        case KeyState::Refused:  // there but not ours alone, unreadable or damaged: never replace it
            return false;
        case KeyState::Missing:
            break;
    }
    return create_key() && read_key(key) == KeyState::Ok;
}

bool load_key_or_fail(unsigned char key[kKeyBytes]) {
    if (load_key(key)) return true;
    QC_FAIL(ERR_OPEN_FAILED);
    return false;
}

// The associated data: the name the value is stored under.
const unsigned char *ad_of(const char *name) { return reinterpret_cast<const unsigned char *>(name ? name : ""); }
unsigned long long ad_len(const char *name) { return name ? strlen(name) : 0; }

int encrypt_named(const char *szName, const char *szPlain, char *szBuf, int cbBuf) {
    if (!szPlain || !*szPlain || !szBuf || cbBuf <= 0) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return 0;
    }
    const size_t plain_len = strlen(szPlain);
    const size_t bin_len = kNonceBytes + kMacBytes + plain_len;
    if (sodium_base64_encoded_len(bin_len, kB64Variant) > static_cast<size_t>(cbBuf)) {
        QC_FAIL(ERR_VALUE_TOO_LONG);
        return 0;
    }
    unsigned char key[kKeyBytes];
    if (!load_key_or_fail(key)) return 0;
    std::vector<unsigned char> bin(bin_len);
    randombytes_buf(bin.data(), kNonceBytes);
    unsigned long long sealed_len = 0;
    crypto_aead_xchacha20poly1305_ietf_encrypt(bin.data() + kNonceBytes, &sealed_len,
                                               reinterpret_cast<const unsigned char *>(szPlain), plain_len,
                                               ad_of(szName), ad_len(szName), nullptr, bin.data(), key);
    sodium_memzero(key, sizeof key);
    sodium_bin2base64(szBuf, static_cast<size_t>(cbBuf), bin.data(), bin.size(), kB64Variant);
    return 1;
}

int decrypt_named(const char *szName, const char *szStored, char *szBuf, int cbBuf) {
    if (!szStored || !*szStored || !szBuf || cbBuf <= 0) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return 0;
    }
    const size_t stored_len = strlen(szStored);
    std::vector<unsigned char> bin(stored_len);
    size_t bin_len = 0;
    const char *end = nullptr;
    if (sodium_base642bin(bin.data(), bin.size(), szStored, stored_len, nullptr, &bin_len, &end, kB64Variant) != 0 ||
        end != szStored + stored_len || bin_len <= kNonceBytes + kMacBytes) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return 0;
    }
    const size_t plain_len = bin_len - kNonceBytes - kMacBytes;
    if (plain_len + 1 > static_cast<size_t>(cbBuf)) {
        QC_FAIL(ERR_VALUE_TOO_LONG);
        return 0;
    }
    unsigned char key[kKeyBytes];
    if (!load_key_or_fail(key)) return 0;
    std::vector<unsigned char> plain(plain_len);
    unsigned long long opened = 0;
    int rc = crypto_aead_xchacha20poly1305_ietf_decrypt(plain.data(), &opened, nullptr, bin.data() + kNonceBytes,
                                                        bin_len - kNonceBytes, ad_of(szName), ad_len(szName),
                                                        bin.data(), key);
    sodium_memzero(key, sizeof key);
    if (rc != 0 || opened != plain_len) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return 0;
    }
    memcpy(szBuf, plain.data(), plain_len);
    szBuf[plain_len] = '\0';
    sodium_memzero(plain.data(), plain.size());
    return 1;
}

}  // namespace

extern "C" QLIBC_API int QLIBCCryptSzEncrypt(const char *szPlain, char *szBuf, int cbBuf) {
    return encrypt_named(nullptr, szPlain, szBuf, cbBuf);
}

extern "C" QLIBC_API int QLIBCCryptSzDecrypt(const char *szStored, char *szBuf, int cbBuf) {
    return decrypt_named(nullptr, szStored, szBuf, cbBuf);
}

extern "C" QLIBC_API int QLIBCCryptSzEncryptNamed(const char *szName, const char *szPlain, char *szBuf, int cbBuf) {
    if (!szName) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return 0;
    }
    return encrypt_named(szName, szPlain, szBuf, cbBuf);
}

extern "C" QLIBC_API int QLIBCCryptSzDecryptNamed(const char *szName, const char *szStored, char *szBuf, int cbBuf) {
    if (!szName) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return 0;
    }
    return decrypt_named(szName, szStored, szBuf, cbBuf);
}
