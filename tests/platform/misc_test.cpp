// Error slot, locks, secrets and USB devices.  The containers and string
// helpers are exercised by every file test and by the callers' own tests.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "qoracore.h"
#include "qorausb.h"
#include "qp_test.hpp"

namespace {

double now_s() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

TEST(ErrorSlot, EachThreadHasItsOwn) {
    QLIBCErrSetEx(ERR_WRITE_FAILED, "main.cpp", 11);
    std::thread([] {
        EXPECT_EQ(QLIBCErrGet(), 0u);
        QLIBCErrSetEx(ERR_LOCK_FAILED, nullptr, 22);
        EXPECT_STREQ(QLIBCErrorGetFile(), "");
    }).join();
    EXPECT_EQ(QLIBCErrGet(), ERR_WRITE_FAILED);
    EXPECT_STREQ(QLIBCErrorGetFile(), "main.cpp");
    EXPECT_EQ(QLIBCErrorGetLine(), 11);
}

// LockByFile answers at once; the named lock gives up after its limit.  A
// lock conflicts with every other descriptor of its file, so this process
// can stand for the other holder.
TEST(Locks, HeldElsewhere) {
    const char *lock = "/run/qorasdk/lock/lock_printer";
    const unsigned int req = LOCK_USBIDMAP | LOCK_MODE_EX_WAIT;
    int fd = -1, other = -1;  // the lock file's directories are created too
    ASSERT_EQ(QLIBCFileLockByFile(lock, 1, &fd), 1);
    ASSERT_EQ(QLIBCFileLock(req, 1), 0);
    EXPECT_EQ(QLIBCFileLockByFile(lock, 1, &other), 0);
    EXPECT_EQ(other, -1);
    const double t0 = now_s();
    QLIBCErrSetEx(0, "", 0);
    EXPECT_NE(QLIBCFileLock(req, 1), 0);
    EXPECT_GE(now_s() - t0, 0.95);
    EXPECT_EQ(QLIBCErrGet(), ERR_LOCK_FAILED);

    // Both are free again once let go.
    close(fd);
    EXPECT_EQ(QLIBCFileUnlock(LOCK_USBIDMAP), 0);
    ASSERT_EQ(QLIBCFileLockByFile(lock, 1, &fd), 1);
    close(fd);
    ASSERT_EQ(QLIBCFileLock(req, 1), 0);
    EXPECT_EQ(QLIBCFileUnlock(LOCK_USBIDMAP), 0);
    EXPECT_NE(QLIBCFileUnlock(LOCK_USBIDMAP), 0);  // not held any more
}

// Secrets are sealed under a name (the library's only use); changed stored
// text and another name are refused.  The key is made 0600; a key file others
// may read, or that root does not own, is refused and kept.
TEST(Crypt, NamedSealingAndKeyFile) {
    if (!qpt::in_sandbox()) GTEST_SKIP() << "creates the appliance key";
    const char *key = "/usr/qora/etc/.qoracrypt.key", *name = "google pass";
    qpt::remove_file(key);
    char a[512], b[512], plain[512];
    ASSERT_NE(QLIBCCryptSzEncryptNamed(name, "pw", a, sizeof a), 0);
    struct stat st {};
    EXPECT_EQ(stat(key, &st) == 0 ? st.st_mode & 07777 : 0, 0600u);
    std::string tampered = a;
    tampered[20] = tampered[20] == 'A' ? 'B' : 'A';
    EXPECT_EQ(QLIBCCryptSzDecryptNamed(name, tampered.c_str(), plain, sizeof plain), 0);
    EXPECT_EQ(QLIBCCryptSzDecryptNamed("refresh token", a, plain, sizeof plain), 0);
    ASSERT_NE(QLIBCCryptSzDecryptNamed(name, a, plain, sizeof plain), 0);
    EXPECT_STREQ(plain, "pw");
    const std::string key_bytes = qpt::read_file(key);
    for (auto [mode, owner] : {std::pair{0640, 0}, {0600, 65534}}) {
        ASSERT_EQ(chmod(key, mode) | chown(key, owner, 0), 0);
        EXPECT_EQ(QLIBCCryptSzDecryptNamed(name, a, plain, sizeof plain), 0) << mode << " " << owner;
        EXPECT_EQ(QLIBCCryptSzEncryptNamed(name, "x", b, sizeof b), 0);
        EXPECT_EQ(qpt::read_file(key), key_bytes);
        ASSERT_EQ(chmod(key, 0600) | chown(key, 0, 0), 0);
    }
}

// Device records (the library's tests cover their fields, listing and
// types): a long field is cut to fit; a bus ID without a device directory,
// "..", or a device not in usbtab is refused.
TEST(Usb, InfoFromUsbtabAndSysfs) {
    if (!qpt::in_sandbox()) GTEST_SKIP() << "mounts over the USB sysfs";
    // A fake device on a tmpfs of this test's own mount namespace.
    const std::string devices = "/sys/bus/usb/devices/";
    ASSERT_EQ(mount("tmpfs", qpt::exists(devices) ? devices.c_str() : "/sys/bus", "tmpfs", 0, "mode=0755"), 0);
    qpt::write_file(devices + "1-1.2/manufacturer", std::string(200, 'M') + "\n");
    qpt::write_file("/tmp/usbtab", "lp2=\"9-9\"\nlp3=\"..\"\nlp0=\"1-1.2\"");
    QORAUSB_DEV_INFO i;
    ASSERT_EQ(QORAUSBDevGetInfo("lp0", &i), 0);
    EXPECT_EQ(std::string(i.szBusId) + " " + i.szManufacturer, "1-1.2 " + std::string(127, 'M'));
    for (const char *dev : {"lp2", "lp3", "lp9"}) {
        QLIBCErrSetEx(0, "", 0);
        EXPECT_LT(QORAUSBDevGetInfo(dev, &i), 0) << dev;
        EXPECT_NE(QLIBCErrGet(), 0u) << dev;
    }
}

}  // namespace
