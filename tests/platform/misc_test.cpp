// Error slot, locks, secrets and USB devices.  The containers and string
// helpers are exercised by every file test and by the callers' own tests.
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
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

// LockByFile answers at once; the named lock gives up after its limit.
TEST(Locks, HeldByAnotherProcess) {
    const char *lock = "/run/qorasdk/lock/lock_printer";
    const unsigned int req = LOCK_USBIDMAP | LOCK_MODE_EX_WAIT;
    int locked[2];
    ASSERT_EQ(pipe(locked), 0);
    pid_t pid = fork();
    if (pid == 0) {
        int fd = -1;  // the lock file's directories are created too
        char ok = QLIBCFileLockByFile(lock, 1, &fd) == 1 && QLIBCFileLock(req, 1) == 0;
        (void)!write(locked[1], &ok, 1);
        pause();  // hold them until killed
    }
    char ok = 0;
    const bool held = read(locked[0], &ok, 1) == 1 && ok == 1;
    close(locked[0]);
    close(locked[1]);
    ASSERT_TRUE(held);
    int fd = -1, other = -1;
    EXPECT_EQ(QLIBCFileLockByFile(lock, 1, &fd), 0);
    EXPECT_EQ(fd, -1);
    const double t0 = now_s();
    QLIBCErrSetEx(0, "", 0);
    EXPECT_NE(QLIBCFileLock(req, 1), 0);
    EXPECT_GE(now_s() - t0, 0.95);
    EXPECT_EQ(QLIBCErrGet(), ERR_LOCK_FAILED);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);

    // Both are free again once their holder died.
    ASSERT_EQ(QLIBCFileLockByFile(lock, 1, &fd), 1);
    EXPECT_EQ(QLIBCFileLockByFile(lock, 1, &other), 0);  // held by this process's own descriptor
    close(fd);
    ASSERT_EQ(QLIBCFileLock(req, 1), 0);
    EXPECT_EQ(QLIBCFileUnlock(LOCK_USBIDMAP), 0);
    EXPECT_NE(QLIBCFileUnlock(LOCK_USBIDMAP), 0);  // not held any more
}

// Secrets are sealed under a name (the library's only use) with a fresh nonce
// each time; changed or cut stored text, a secret or a text that does not
// fit, and another name are refused.
TEST(Crypt, RoundTripTamperingAndSizes) {
    if (!qpt::in_sandbox()) GTEST_SKIP() << "creates the appliance key";
    const char *key = "/usr/qora/etc/.qoracrypt.key", *name = "google pass";
    qpt::remove_file(key);
    char a[512], b[512], plain[512];
    const std::string secret(255, 'p');
    ASSERT_NE(QLIBCCryptSzEncryptNamed(name, secret.c_str(), a, sizeof a), 0);
    ASSERT_NE(QLIBCCryptSzEncryptNamed(name, secret.c_str(), b, sizeof b), 0);
    EXPECT_TRUE(strlen(a) == 394u && strcmp(a, b) != 0) << a;
    struct stat st {};
    EXPECT_EQ(stat(key, &st) == 0 ? st.st_mode & 07777 : 0, 0600u);
    ASSERT_NE(QLIBCCryptSzDecryptNamed(name, a, plain, sizeof plain), 0);
    EXPECT_EQ(std::string(plain), secret);
    std::string tampered = a;
    tampered[200] = tampered[200] == 'A' ? 'B' : 'A';
    const struct { const char *name; std::string stored; int size; } refused[] = {
        {name, tampered, 512}, {name, std::string(a, 60), 512}, {name, a, 255}, {"refresh token", a, 512}};
    for (const auto &r : refused)
        EXPECT_EQ(QLIBCCryptSzDecryptNamed(r.name, r.stored.c_str(), plain, r.size), 0) << r.stored.size() << " " << r.size;
    EXPECT_EQ(QLIBCCryptSzEncryptNamed(name, secret.c_str(), b, 394), 0);
    // A key file others may read, or that root does not own, is refused and kept.
    const std::string key_bytes = qpt::read_file(key);
    for (auto [mode, owner] : {std::pair{0640, 0}, {0600, 65534}}) {
        ASSERT_EQ(chmod(key, mode) | chown(key, owner, 0), 0);
        EXPECT_EQ(QLIBCCryptSzDecryptNamed(name, a, plain, sizeof plain), 0) << mode << " " << owner;
        EXPECT_EQ(QLIBCCryptSzEncryptNamed(name, "x", b, sizeof b), 0);
        EXPECT_EQ(qpt::read_file(key), key_bytes);
        ASSERT_EQ(chmod(key, 0600) | chown(key, 0, 0), 0);
    }
}

// Device records (the callers' tests cover listing, types, order and printer
// IDs): fields cut to fit, unusable bus IDs.
TEST(Usb, InfoFromUsbtabAndSysfs) {
    if (!qpt::in_sandbox()) GTEST_SKIP() << "mounts over the USB sysfs";
    // Fake devices on a tmpfs of this test's own mount namespace.
    const std::string devices = "/sys/bus/usb/devices/";
    ASSERT_EQ(mount("tmpfs", qpt::exists(devices) ? devices.c_str() : "/sys/bus", "tmpfs", 0, "mode=0755"), 0);
    for (auto [file, value] : {std::pair<std::string, std::string>{"idVendor", "04a9"}, {"idProduct", "1827"},
                               {"serial", "A1B2C3"}, {"busnum", "3"}, {"devnum", "17"},
                               {"manufacturer", std::string(200, 'M')}, {"1-1.2:1.0/bInterfaceClass", "07"}})
        qpt::write_file(devices + "1-1.2/" + file, value + "\n");
    qpt::write_file("/tmp/usbtab", "lp2=\"9-9\"\nlp3=\"..\"\nlp0=\"1-1.2\"");

    QORAUSB_DEV_INFO i;
    ASSERT_EQ(QORAUSBDevGetInfo("lp0", &i), 0);
    char s[600];
    snprintf(s, sizeof s, "%s type=%x %04lx:%04lx serial=%s id=%s bus=%s %u/%u maker=%zu", i.szDevName, i.ucType,
             i.ulVendorId, i.ulProductId, i.szSerial, i.szPrinterId, i.szBusId, i.ucBusNum, i.ucDevNum,
             strnlen(i.szManufacturer, sizeof i.szManufacturer));
    EXPECT_EQ(std::string(s), "lp0 type=8 04a9:1827 serial=A1B2C3 id=04a9:1827:A1B2C3 bus=1-1.2 3/17 maker=127");
    // A bus ID without a directory, "..", or a device not in usbtab.
    for (const char *dev : {"lp2", "lp3", "lp9"}) {
        QLIBCErrSetEx(0, "", 0);
        EXPECT_LT(QORAUSBDevGetInfo(dev, &i), 0) << dev;
        EXPECT_NE(QLIBCErrGet(), 0u) << dev;
    }
}

}  // namespace
