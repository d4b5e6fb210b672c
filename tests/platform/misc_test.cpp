// Error slot, containers and strings, locks, secrets, USB devices and the
// stored device ID string.
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "qoracore.h"
#include "qoraprintergpl.h"
#include "qorausb.h"
#include "qp_test.hpp"

namespace {

double now_s() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

std::vector<std::string> list_items(PQLIBSZLIST l) {
    std::vector<std::string> v;
    for (int i = 0; l && i < l->nItem; ++i) v.emplace_back(QLIBCSzListGet(l, i));
    return v;
}

using Strings = std::vector<std::string>;

TEST(ErrorSlot, EachThreadHasItsOwn) {
    QLIBCErrSetEx(ERR_WRITE_FAILED, "main.cpp", 11);
    std::thread t([] {
        EXPECT_EQ(QLIBCErrGet(), 0u);
        EXPECT_STREQ(QLIBCErrorGetFile(), "");
        QLIBCErrSetEx(ERR_LOCK_FAILED, nullptr, 22);
        EXPECT_STREQ(QLIBCErrorGetFile(), "");
        EXPECT_EQ(QLIBCErrorGetLine(), 22);
    });
    t.join();
    EXPECT_EQ(QLIBCErrGet(), ERR_WRITE_FAILED);
    EXPECT_STREQ(QLIBCErrorGetFile(), "main.cpp");
    EXPECT_EQ(QLIBCErrorGetLine(), 11);
}

TEST(Containers, HashKeepsInsertionOrderAndListsCopy) {
    PQLIBSZHASH h = QLIBCSzHashAlloc(2);
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(QLIBCSzHashSetValue(&h, ("k" + std::to_string(999 - i)).c_str(), std::to_string(i).c_str()), 0);
    ASSERT_EQ(QLIBCSzHashSetValue(&h, "k999", "replaced"), 0);
    ASSERT_EQ(QLIBCSzHashRemoveKey(h, "k500"), 0);
    ASSERT_EQ(QLIBCSzHashSetValue(&h, "k500", "back"), 0);
    EXPECT_EQ(QLIBCSzHashCount(h), 1000);
    EXPECT_STREQ(QLIBCSzHashGetValue(h, "k0"), "999");
    EXPECT_EQ(QLIBCSzHashGetValue(h, "nope"), nullptr);

    PQLIBSZLIST keys = QLIBCSzListAlloc(1);
    ASSERT_EQ(QLIBCSzHashEnumKey(h, &keys), 1000);
    Strings k = list_items(keys);
    EXPECT_EQ(k[0], "k999");  // replaced in place
    EXPECT_EQ(k[499], "k499");  // k500 left ...
    EXPECT_EQ(k[999], "k500");  // ... and came back last
    QLIBCSzListFree(keys);
    QLIBCSzHashFree(h);

    PQLIBSZLIST l = nullptr;
    char buf[8] = "first";
    ASSERT_EQ(QLIBCSzListPush(&l, buf), 0);
    strcpy(buf, "second");
    ASSERT_EQ(QLIBCSzListPush(&l, buf), 0);
    EXPECT_EQ(list_items(l), (Strings{"first", "second"}));
    EXPECT_EQ(QLIBCSzListGet(l, 2), nullptr);
    QLIBCSzListFree(l);
}


TEST(Strings, SplittingTrimmingAndReplacing) {
    PQLIBSZLIST l = nullptr;
    EXPECT_EQ(QLIBCStrTok("//10.0.0.5/queue name", "/", &l), 2);
    EXPECT_EQ(QLIBCStrSep("192.168.1.5=\"q1\"", "=\"", &l), 4);
    EXPECT_EQ(list_items(l), (Strings{"10.0.0.5", "queue name", "192.168.1.5", "", "q1", ""}));
    QLIBCSzListFree(l);

    char s[] = " \t a b \r\n";
    QLIBCStrTrim(s, 0, 0);
    EXPECT_STREQ(s, "a b");
    char low[4];
    QLIBCStrCaseLower("ABCdef", 0, low, sizeof low);
    EXPECT_STREQ(low, "abc");

    char *buf = nullptr;
    int cb = 0;
    std::string expect;
    for (int i = 0; i < 200; ++i) {
        std::string piece = "line " + std::to_string(i) + "\n";
        ASSERT_EQ(QLIBCStrCat(&buf, &cb, piece.c_str()), 0);
        expect += piece;
    }
    EXPECT_EQ(std::string(buf), expect);
    free(buf);

    char out[16];
    EXPECT_EQ(QLIBCStrReplace("a-b-c", "-", "+-", out, sizeof out), 2);
    EXPECT_STREQ(out, "a+-b+-c");
    EXPECT_EQ(QLIBCStrReplace("usbprinter1", "printer", "PRINTER", out, 6), 1);
    EXPECT_STREQ(out, "usbPR");
}


TEST(Locks, LockByFileAnswersAtOnce) {
    const char *lock = "/run/qorasdk/lock/lock_printer";
    int fd = -1;
    ASSERT_EQ(QLIBCFileLockByFile(lock, 1, &fd), 1);  // directories created too
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    int other = -1;
    EXPECT_EQ(QLIBCFileLockByFile(lock, 1, &other), 0);
    EXPECT_EQ(other, -1);

    pid_t pid = fork();
    if (pid == 0) {
        int f = -1;
        _exit(QLIBCFileLockByFile(lock, 1, &f));
    }
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    close(fd);
    ASSERT_EQ(QLIBCFileLockByFile(lock, 1, &other), 1);
    close(other);
}

TEST(Locks, UsbIdMapAcrossProcessesAndThreads) {
    const unsigned int req = LOCK_USBIDMAP | LOCK_MODE_EX_WAIT;
    int to_child[2], to_parent[2];
    ASSERT_EQ(pipe(to_child), 0);
    ASSERT_EQ(pipe(to_parent), 0);
    pid_t pid = fork();
    if (pid == 0) {
        close(to_child[1]);
        int ok = QLIBCFileLock(req, 1) == 0;
        (void)!write(to_parent[1], &ok, sizeof ok);
        char c;
        (void)!read(to_child[0], &c, 1);  // hold until the parent says so
        _exit(QLIBCFileUnlock(LOCK_USBIDMAP) == 0 ? 0 : 1);
    }
    close(to_child[0]);
    close(to_parent[1]);
    int ok = 0;
    ASSERT_EQ(read(to_parent[0], &ok, sizeof ok), static_cast<ssize_t>(sizeof ok));
    ASSERT_EQ(ok, 1);

    double t0 = now_s();
    QLIBCErrSetEx(0, "", 0);
    EXPECT_NE(QLIBCFileLock(req, 1), 0);
    double waited = now_s() - t0;
    EXPECT_GE(waited, 0.95);
    EXPECT_LT(waited, 3.0);
    EXPECT_EQ(QLIBCErrGet(), ERR_LOCK_FAILED);
    EXPECT_NE(QLIBCFileUnlock(LOCK_USBIDMAP), 0);  // not held here

    // Released while we wait: we get it well before the limit.
    std::thread release([&] {
        usleep(200 * 1000);
        close(to_child[1]);
    });
    t0 = now_s();
    EXPECT_EQ(QLIBCFileLock(req, 10), 0);
    EXPECT_LT(now_s() - t0, 5.0);
    release.join();
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    close(to_parent[0]);

    // Two threads of one process take it in turn, never together.
    std::atomic<bool> other_has{false};
    std::thread other([&] {
        EXPECT_EQ(QLIBCFileLock(req, 10), 0);
        other_has = true;
        EXPECT_EQ(QLIBCFileUnlock(LOCK_USBIDMAP), 0);
    });
    usleep(200 * 1000);
    EXPECT_FALSE(other_has);
    EXPECT_EQ(QLIBCFileUnlock(LOCK_USBIDMAP), 0);
    other.join();
    EXPECT_TRUE(other_has);
    EXPECT_NE(QLIBCFileUnlock(LOCK_USBIDMAP), 0);
    EXPECT_NE(QLIBCFileLock(0x10000 | LOCK_MODE_EX_WAIT, 1), 0);  // an unknown lock
}

TEST(Crypt, RoundTripTamperingAndSizes) {
    if (!qpt::in_sandbox()) GTEST_SKIP() << "creates the appliance key";
    const char *key = "/usr/qora/etc/.qoracrypt.key";
    qpt::remove_file(key);

    // Creators racing for the first key end up sharing one.
    constexpr int kProcs = 4;
    std::vector<pid_t> kids;
    for (int i = 0; i < kProcs; ++i) {
        pid_t pid = fork();
        if (pid == 0) {
            char out[512];
            if (!QLIBCCryptSzEncrypt(("secret" + std::to_string(i)).c_str(), out, sizeof out)) _exit(1);
            qpt::write_file("/tmp/platform-crypt-" + std::to_string(i), out);
            _exit(0);
        }
        kids.push_back(pid);
    }
    for (pid_t pid : kids) {
        int status = 0;
        waitpid(pid, &status, 0);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    for (int i = 0; i < kProcs; ++i) {
        char plain[512];
        ASSERT_NE(QLIBCCryptSzDecrypt(qpt::read_file("/tmp/platform-crypt-" + std::to_string(i)).c_str(), plain,
                                      sizeof plain),
                  0);
        EXPECT_EQ(std::string(plain), "secret" + std::to_string(i));
    }
    struct stat st {};
    ASSERT_EQ(stat(key, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(st.st_size, 32);

    const std::string secret(255, 'p');
    char a[512], b[512], plain[512];
    ASSERT_NE(QLIBCCryptSzEncrypt(secret.c_str(), a, sizeof a), 0);
    ASSERT_NE(QLIBCCryptSzEncrypt(secret.c_str(), b, sizeof b), 0);
    EXPECT_STRNE(a, b);  // fresh nonce each time
    ASSERT_NE(QLIBCCryptSzDecrypt(a, plain, sizeof plain), 0);
    EXPECT_EQ(std::string(plain), secret);

    std::string tampered = a;
    tampered[tampered.size() / 2] = tampered[tampered.size() / 2] == 'A' ? 'B' : 'A';
    EXPECT_EQ(QLIBCCryptSzDecrypt(tampered.c_str(), plain, sizeof plain), 0);
    EXPECT_EQ(QLIBCCryptSzDecrypt(std::string(a, 60).c_str(), plain, sizeof plain), 0);
    EXPECT_EQ(QLIBCCryptSzDecrypt(a, plain, 100), 0);  // the secret does not fit
    EXPECT_EQ(QLIBCCryptSzEncrypt(secret.c_str(), b, 100), 0);
    EXPECT_EQ(QLIBCCryptSzEncrypt("", b, sizeof b), 0);

    // Another appliance's key cannot read this one's secrets.
    qpt::remove_file(key);
    EXPECT_EQ(QLIBCCryptSzDecrypt(a, plain, sizeof plain), 0);
}

// A fake /sys/bus/usb/devices on a tmpfs of this test's own mount namespace.
void fake_usb_sysfs() {
    static bool mounted = false;
    if (mounted) return;
    const char *devices = "/sys/bus/usb/devices";
    if (qpt::exists(devices)) {
        ASSERT_EQ(mount("tmpfs", devices, "tmpfs", 0, "mode=0755"), 0);
    } else {
        ASSERT_EQ(mount("tmpfs", "/sys/bus", "tmpfs", 0, "mode=0755"), 0);
        qpt::mkdirs(devices);
    }
    mounted = true;
}

void add_device(const std::string &busid, const std::string &vendor, const std::string &product,
                const std::string &serial, const std::string &iface_class, const std::string &maker = "ACME") {
    const std::string dir = "/sys/bus/usb/devices/" + busid;
    qpt::mkdirs(dir);
    if (!vendor.empty()) qpt::write_file(dir + "/idVendor", vendor + "\n");
    if (!product.empty()) qpt::write_file(dir + "/idProduct", product + "\n");
    if (!serial.empty()) qpt::write_file(dir + "/serial", serial + "\n");
    qpt::write_file(dir + "/manufacturer", maker + "\n");
    qpt::write_file(dir + "/product", "Model X\n");
    qpt::write_file(dir + "/busnum", "3\n");
    qpt::write_file(dir + "/devnum", "17\n");
    qpt::write_file(dir + "/" + busid + ":1.0/bInterfaceClass", iface_class + "\n");
}

TEST(Usb, EnumAndInfoFromUsbtabAndSysfs) {
    if (!qpt::in_sandbox()) GTEST_SKIP() << "mounts over the USB sysfs";
    fake_usb_sysfs();
    qpt::remove_file("/tmp/usbtab");
    int need = -1;
    EXPECT_EQ(QORAUSBDevEnum(QORAUSB_TYPE_PRINTER, nullptr, 0, &need), 0);
    EXPECT_EQ(need, static_cast<int>(sizeof(char *)));

    add_device("1-1.2", "04a9", "1827", "A1B2C3", "07", std::string(200, 'M'));
    add_device("2-1", "0781", "5567", "S1", "08");
    add_device("4-1", "04b8", "0001", "", "07");
    qpt::write_file("/tmp/usbtab",
                    "lp4=\"4-1\"\r\n"
                    "other=\"1-1.2\"\n"
                    "lp2=\"9-9\"\n"
                    "lp3=\"..\"\n"
                    "lp1=\"2-1\"\n"
                    "lp0=\"1-1.2\"");

    ASSERT_EQ(QORAUSBDevEnum(QORAUSB_TYPE_PRINTER, nullptr, 0, &need), 2);
    EXPECT_EQ(need, static_cast<int>(3 * sizeof(char *) + 8));
    std::vector<char> buf(static_cast<size_t>(need));
    ASSERT_EQ(QORAUSBDevEnum(QORAUSB_TYPE_PRINTER, buf.data(), need, &need), 2);
    char **names = reinterpret_cast<char **>(buf.data());
    EXPECT_STREQ(names[0], "lp4");  // usbtab order
    EXPECT_STREQ(names[1], "lp0");
    EXPECT_EQ(names[2], nullptr);
    EXPECT_LT(QORAUSBDevEnum(QORAUSB_TYPE_PRINTER, buf.data(), need - 1, &need), 0);
    EXPECT_EQ(QORAUSBDevEnum(QORAUSB_TYPE_STORAGE, nullptr, 0, &need), 1);

    QORAUSB_DEV_INFO info;
    memset(&info, 0, sizeof info);
    ASSERT_EQ(QORAUSBDevGetInfo("lp0", &info), 0);
    EXPECT_TRUE(info.ucType & QORAUSB_TYPE_PRINTER);
    EXPECT_EQ(info.ulVendorId, 0x04a9ul);
    EXPECT_EQ(info.ulProductId, 0x1827ul);
    EXPECT_STREQ(info.szSerial, "A1B2C3");
    EXPECT_STREQ(info.szPrinterId, "04a9:1827:A1B2C3");
    EXPECT_STREQ(info.szBusId, "1-1.2");
    EXPECT_STREQ(info.szDevName, "lp0");
    EXPECT_EQ(std::string(info.szManufacturer), std::string(127, 'M'));
    EXPECT_EQ(info.ucBusNum, 3);
    EXPECT_EQ(info.ucDevNum, 17);

    memset(&info, 0, sizeof info);
    ASSERT_EQ(QORAUSBDevGetInfo("lp4", &info), 0);
    EXPECT_STREQ(info.szPrinterId, "");  // no serial number, no printer ID
    memset(&info, 0, sizeof info);
    ASSERT_EQ(QORAUSBDevGetInfo("lp1", &info), 0);
    EXPECT_FALSE(info.ucType & QORAUSB_TYPE_PRINTER);

    for (const char *bad : {"lp2", "lp3", "lp9"}) {
        QLIBCErrSetEx(0, "", 0);
        EXPECT_LT(QORAUSBDevGetInfo(bad, &info), 0) << bad;
        EXPECT_NE(QLIBCErrGet(), 0u) << bad;
    }
    EXPECT_LT(QORAUSBDevGetInfo(nullptr, &info), 0);
    EXPECT_LT(QORAUSBDevGetInfo("lp0", nullptr), 0);
}

TEST(PrinterGpl, StoredStringId) {
    if (!qpt::in_sandbox()) GTEST_SKIP() << "writes printer.conf";
    char buf[4096];
    qpt::write_file("/usr/qora/etc/printer.conf",
                    "[04a9:1827:A1]\n\tusblp string id = MFG:Canon;MDL:MX920;\n[empty]\n\tusblp string id =\n");
    ASSERT_EQ(QORAPrinterGPLConfStringIdGet("04a9:1827:A1", buf, sizeof buf, 0), 0);
    EXPECT_STREQ(buf, "MFG:Canon;MDL:MX920;");
    ASSERT_EQ(QORAPrinterGPLConfStringIdGet("empty", buf, sizeof buf, 0), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_LT(QORAPrinterGPLConfStringIdGet("other", buf, sizeof buf, 0), 0);
}

}  // namespace
