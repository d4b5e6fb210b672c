// What a local user can try against the platform libraries running as root:
// links, FIFOs, foreign and huge files in /tmp, holding the library's locks,
// look-alike daemons, and what a careless caller leaves open.  For each row
// a child dropped to uid/gid 65534 plants something; root then makes its
// calls in a child of its own (killed at the time bound) that must give the
// expected answers; and the watched root file must be exactly as before.
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <syslog.h>

#include <filesystem>
#include <vector>

#include "attacker.hpp"
#include "qoracore.h"
#include "qorasdk.h"
#include "qorausb.h"

namespace {

using namespace qpatk;

const std::string kTarget = "/etc/qp-platform-target";  // a root file a link points at
const char *kUsbtab = "/tmp/usbtab";
const char *kConf = "/usr/qora/etc/printer.conf";
std::vector<pid_t> g_holders;  // planted processes, killed after each row

// As 65534, for the rest of the row: an flock on each path it can open
// (creating those in /tmp).  True once the holder reported back.
bool hold_locks(const std::vector<const char *> &paths) {
    int ready[2];
    if (pipe(ready) != 0) return false;
    const pid_t pid = fork();
    if (pid == 0) {
        drop_to_nobody();
        for (const char *p : paths) flock(open(p, O_RDONLY | O_CREAT | O_NONBLOCK, 0666), LOCK_EX | LOCK_NB);
        (void)!write(ready[1], "!", 1);
        pause();
        _exit(0);
    }
    g_holders.push_back(pid);
    close(ready[1]);
    char ok = 0;
    const bool answered = read(ready[0], &ok, 1) == 1;
    close(ready[0]);
    return answered;
}

// As 65534, for the rest of the row: a copy of /bin/sleep runs under a daemon's name.
bool look_alike(const char *name) {
    const std::string copy = std::string("/tmp/") + name, comm = std::string(name) + "\n";
    if (!std::filesystem::copy_file("/bin/sleep", copy)) return false;
    const pid_t pid = qpt::start({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", copy, "60"});
    if (pid <= 0) return false;
    g_holders.push_back(pid);
    return qpt::wait_until([&] { return qpt::read_file("/proc/" + std::to_string(pid) + "/comm") == comm; });
}

// As 65534: plant in a child that ends with it.
Step as_nobody(const Step &f) { return [=] { return in_child(f, true) == 0; }; }

int usb_count() {
    int need = 0;
    return QORAUSBDevEnum(QORAUSB_TYPE_PRINTER | QORAUSB_TYPE_STORAGE, nullptr, 0, &need);
}

// usbtab reads as empty and a write leaves root's own file with just its line.
bool usbtab_absent_then_replaced() {
    char buf[64];
    PQLIBSZHASH h = nullptr;
    const bool absent = usb_count() == 0 && QLIBCFileGetKeyValue(kUsbtab, "lp0", buf, sizeof buf, 0) < 0 &&
                        QLIBCFileGetPair(kUsbtab, &h) < 0;
    QLIBCSzHashFree(h);
    struct stat st {};
    return absent && QLIBCFileSetKeyValue(kUsbtab, "lp1", "2-1", nullptr) == 0 && lstat(kUsbtab, &st) == 0 &&
           S_ISREG(st.st_mode) && st.st_uid == 0 && (st.st_mode & 07777) == 0644 && st.st_nlink == 1 &&
           qpt::read_file(kUsbtab) == "lp1=\"2-1\"\n";
}

struct Row {
    const char *what;
    Step plant;  // by root, dropping to 65534 for everything it plants
    Step call;   // as root: true when every answer is the expected one
};

TEST(AttackerPlatform, MachineUnchangedAndEveryCallReturnsInTime) {
    const Step nothing = [] { return true; };
    const Row rows[] = {
        // Files in /tmp: a link to a root file, a FIFO, the user's own or huge files.
        {"usbtab link", as_nobody(link_to(kUsbtab, kTarget)), usbtab_absent_then_replaced},
        {"usbtab FIFO", as_nobody(fifo(kUsbtab)), usbtab_absent_then_replaced},
        {"usbtab of the user", as_nobody(own_file(kUsbtab, "lp0=\"1-1\"\n")), usbtab_absent_then_replaced},
        {"usbtab of 1 GiB of the user",
         as_nobody([] { return own_file(kUsbtab, "lp0=\"1-1\"\n")() && truncate(kUsbtab, 1L << 30) == 0; }),
         usbtab_absent_then_replaced},
        // (Where hard links to others' files are not refused by the kernel.)
        {"usbtab hard link to a root file", [] {
             qpt::write_file("/tmp/qp-roots", "lp0=\"1-1\"\n");
             return link("/tmp/qp-roots", kUsbtab) == 0;
         },
         usbtab_absent_then_replaced},
        {"usbtab of 1 GiB of root's", nothing, [] {
             char buf[64];
             qpt::write_file(kUsbtab, "lp0=\"1-1\"\n");
             return truncate(kUsbtab, 1L << 30) == 0 && QLIBCFileGetKeyValue(kUsbtab, "lp0", buf, sizeof buf, 0) < 0 &&
                    QLIBCErrGet() == ERR_READ_FAILED && usb_count() == 0;
         }},
        // Locks: the user holds whatever lock file it can open.
        {"lock holder",
         [] {
             return hold_locks({"/run/qorasdk/lock/lock_printer", "/run/qorasdk/lock/lock_usbidmap",
                                "/tmp/.usbtab.lock", "/run/qorasdk/lock/rewrite%2Ftmp%2Fusbtab",
                                "/usr/qora/etc/.printer.conf.lock"});
         },
         [] {
             int fd = -1;
             return QLIBCFileLockByFile("/run/qorasdk/lock/lock_printer", 1, &fd) == 1 &&
                    QLIBCFileLock(LOCK_USBIDMAP | LOCK_MODE_EX_WAIT, 2) == 0 &&
                    QLIBCFileSetKeyValue(kUsbtab, "lp1", "2-1", nullptr) == 0 &&
                    QLIBCFileSetSectionValue(kConf, "P1", "k", "2") == 0 &&
                    QLIBCFileLockByFile("/tmp/qp-lock", 1, &fd) < 0;  // no lock where others can write
         }},
        // Services: a process of the user merely named like a daemon does not count.
        {"daemon look-alikes", [] { return look_alike("cupsd") && look_alike("avahi-daemon") && look_alike("qpd"); },
         [] {
             return QLIBServiceIsRunning("cupsd") == 0 && QLIBCIsProcAlive("cupsd") == 0 &&
                    QLIBCIsProcAlive("avahi-daemon") == 0 && QLIBCIsProcAlive("qpd") == 0;
         }},
        // Programs: what the caller left open or ignored does not reach or fool them.
        {"inherited descriptor", nothing, [] {
             const int fd = open(kTarget.c_str(), O_RDONLY);  // not close-on-exec
             const std::string self = "/proc/self/fd/" + std::to_string(fd);
             return QLIBCExec("/usr/bin/test", "-e", self.c_str(), nullptr, nullptr) == 1;
         }},
        {"SIGCHLD ignored", nothing, [] {
             signal(SIGCHLD, SIG_IGN);
             QLIBCErrSetEx(0, "", 0);
             return QLIBCExec("/usr/bin/touch", "/tmp/qp-ran", nullptr, nullptr, nullptr) == -1 &&
                    QLIBCErrGet() == ERR_SIGCHLD_IGNORED && !qpt::exists("/tmp/qp-ran") &&
                    QLIBCPopen("/usr/bin/touch", "r", "/tmp/qp-ran", nullptr) == nullptr &&
                    QLIBCErrGet() == ERR_SIGCHLD_IGNORED && !qpt::exists("/tmp/qp-ran");
         }},
        {"endless tool output", nothing, [] {
             qpt::LogCapture log;
             FILE *fp = QLIBCPopen("/usr/bin/yes", "r", nullptr);
             size_t total = 0;
             char buf[65536];
             for (size_t n; fp && (n = fread(buf, 1, sizeof buf, fp)) > 0;) total += n;
             return fp && total == size_t{16} << 20 && QLIBCPclose(fp) < 0 && QLIBCErrGet() == ERR_EXTERNAL_FAILED &&
                    log.count(LOG_ERR, "/usr/bin/yes killed") == 1;
         }},
    };

    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        qpt::write_file(kTarget, "root's file\nlp0=\"1-1\"\n");
        // The library's lock files exist already, as they do on a running
        // appliance, two of them left readable by an earlier version.
        for (const char *old : {"/run/qorasdk/lock/lock_printer", "/usr/qora/etc/.printer.conf.lock"})
            qpt::write_file(old, "", 0644);
        int fd = -1;
        ASSERT_EQ(QLIBCFileLockByFile("/run/qorasdk/lock/lock_printer", 1, &fd), 1);
        close(fd);
        ASSERT_EQ(QLIBCFileLock(LOCK_USBIDMAP | LOCK_MODE_EX_WAIT, 1), 0);
        ASSERT_EQ(QLIBCFileUnlock(LOCK_USBIDMAP), 0);
        ASSERT_EQ(QLIBCFileSetKeyValue(kUsbtab, "lp9", "9-9", nullptr), 0);
        qpt::write_file(kConf, "[P1]\n\tk = 0\n");
        ASSERT_EQ(QLIBCFileSetSectionValue(kConf, "P1", "k", "1"), 0);
        unlink(kUsbtab);

        ASSERT_TRUE(row.plant()) << "planting failed";
        expect_answer(row.call);
        EXPECT_EQ(qpt::read_file(kTarget), "root's file\nlp0=\"1-1\"\n");

        for (pid_t pid : g_holders) kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
        g_holders.clear();
        for (const char *p : {kUsbtab, "/tmp/.usbtab.lock", "/tmp/cupsd", "/tmp/avahi-daemon", "/tmp/qpd",
                              "/tmp/qp-ran", "/tmp/qp-roots"})
            unlink(p);
    }
}

}  // namespace
