// The sandbox's root: a copy-on-write overlay of the machine's root file
// system with private /proc, /sys, /dev, /tmp and /run.
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "sandbox.hpp"

namespace qps {
namespace {

// Scratch space for the overlay's upper and work directories and the new
// root; the tmpfs mounted there lives only in this mount namespace.
// /run, not /tmp: the program and its tree may live under the machine's /tmp.
constexpr const char *kScratch = "/run";
const std::string kRoot = std::string(kScratch) + "/root";

bool fail(const char *what, const std::string &path) {
    fprintf(stderr, "qp-sandbox: %s %s: %s\n", what, path.c_str(), strerror(errno));
    return false;
}

bool do_mount(const char *src, const std::string &target, const char *type, unsigned long flags,
              const char *data = nullptr) {
    if (mount(src, target.c_str(), type, flags, data) != 0) return fail("mount", target);
    return true;
}

void mkdir_p(const std::string &path, mode_t mode = 0755) {
    for (size_t pos = 1; pos != std::string::npos;) {
        pos = path.find('/', pos + 1);
        mkdir(path.substr(0, pos).c_str(), mode);
    }
}

bool touch(const std::string &path) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    close(fd);
    return true;
}

// Undo the octal escapes of /proc/self/mountinfo.
std::string unescape(const std::string &s) {
    std::string r;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 3 < s.size()) {
            r += static_cast<char>(((s[i + 1] - '0') << 6) | ((s[i + 2] - '0') << 3) | (s[i + 3] - '0'));
            i += 3;
        } else {
            r += s[i];
        }
    }
    return r;
}

bool under(const std::string &path, const std::string &dir) {
    if (dir == "/") return true;
    return path.compare(0, dir.size(), dir) == 0 && (path.size() == dir.size() || path[dir.size()] == '/');
}

// The mount points of the current namespace, in mountinfo order.
std::vector<std::string> mount_points() {
    std::vector<std::string> points;
    std::ifstream in("/proc/self/mountinfo");
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream f(line);
        std::string id, parent, dev, root, point;
        if (f >> id >> parent >> dev >> root >> point) points.push_back(unescape(point));
    }
    return points;
}

bool bind_host_paths(const std::vector<std::string> &binds);

// The overlay shows only the root file system.  A path kept for the program
// that lives on another mount (a build tree on its own disk) gets that mount
// bound into the new root.
bool bind_separate_mounts(const std::vector<std::string> &keep) {
    static const char *const kFresh[] = {"/proc", "/sys", "/dev", "/tmp", "/run"};
    std::vector<std::string> points = mount_points();
    std::vector<std::string> done;
    for (const std::string &path : keep) {
        // Under the machine's /tmp (replaced by a fresh one): carry over the
        // whole top directory, a tree the program reads beside itself.
        if (under(path, "/tmp") && path.size() > 5) {
            const std::string top = path.substr(0, path.find('/', 5));
            if (!bind_host_paths({top})) return false;
            continue;
        }
        std::string best = "/";
        for (const std::string &p : points)
            if (under(path, p) && p.size() > best.size()) best = p;
        if (best == "/") continue;
        bool fresh = false;
        for (const char *f : kFresh) fresh = fresh || under(best, f);
        for (const std::string &d : done) fresh = fresh || under(best, d);
        if (fresh) continue;
        std::string target = kRoot + best;
        struct stat st;
        if (stat(best.c_str(), &st) != 0) continue;
        if (S_ISDIR(st.st_mode))
            mkdir_p(target);
        else
            touch(target);
        if (!do_mount(best.c_str(), target, nullptr, MS_BIND | MS_REC)) return false;
        done.push_back(best);
    }
    return true;
}

// Paths given to --bind: the machine's own directory or file, not the
// overlay's copy, so what the program leaves there (fuzzer crash inputs)
// outlives the run.
bool bind_host_paths(const std::vector<std::string> &binds) {
    for (const std::string &path : binds) {
        struct stat st;
        if (stat(path.c_str(), &st) != 0) return fail("stat", path);
        std::string target = kRoot + path;
        if (S_ISDIR(st.st_mode))
            mkdir_p(target);
        else
            touch(target);
        if (!do_mount(path.c_str(), target, nullptr, MS_BIND | MS_REC)) return false;
    }
    return true;
}

bool make_dev() {
    const std::string dev = kRoot + "/dev";
    if (!do_mount("tmpfs", dev, "tmpfs", MS_NOSUID | MS_NOEXEC, "mode=0755,size=65536k")) return false;
    for (const char *name : {"null", "zero", "random", "urandom", "full", "tty", "fuse"}) {
        std::string host = std::string("/dev/") + name;
        if (access(host.c_str(), F_OK) != 0) continue;
        std::string target = dev + "/" + name;
        if (!touch(target) || !do_mount(host.c_str(), target, nullptr, MS_BIND)) return false;
    }
    mkdir((dev + "/pts").c_str(), 0755);
    if (mount("devpts", (dev + "/pts").c_str(), "devpts", MS_NOSUID | MS_NOEXEC,
              "newinstance,ptmxmode=0666,mode=0620") == 0) {
        symlink("pts/ptmx", (dev + "/ptmx").c_str());
    } else if (!do_mount("/dev/pts", dev + "/pts", nullptr, MS_BIND | MS_REC)) {
        return false;
    }
    mkdir((dev + "/shm").c_str(), 01777);
    if (!do_mount("tmpfs", dev + "/shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777")) return false;
    mkdir((dev + "/usb").c_str(), 0755);
    symlink("/proc/self/fd", (dev + "/fd").c_str());
    symlink("/proc/self/fd/0", (dev + "/stdin").c_str());
    symlink("/proc/self/fd/1", (dev + "/stdout").c_str());
    symlink("/proc/self/fd/2", (dev + "/stderr").c_str());
    return true;
}

}  // namespace

bool enter_new_root(const std::string &cwd, const std::vector<std::string> &keep,
                    const std::vector<std::string> &binds) {
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return fail("make private", "/");
    if (!do_mount("tmpfs", kScratch, "tmpfs", 0, "mode=0700")) return false;
    const std::string upper = std::string(kScratch) + "/upper", work = std::string(kScratch) + "/work";
    mkdir(upper.c_str(), 0755);
    mkdir(work.c_str(), 0755);
    mkdir(kRoot.c_str(), 0755);
    const std::string opts = "lowerdir=/,upperdir=" + upper + ",workdir=" + work;
    if (!do_mount("overlay", kRoot, "overlay", 0, opts.c_str())) return false;

    if (!do_mount("proc", kRoot + "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC)) return false;
    // A fresh sysfs shows this network namespace's interfaces; fall back to
    // the machine's when the kernel refuses.
    if (mount("sysfs", (kRoot + "/sys").c_str(), "sysfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0 &&
        !do_mount("/sys", kRoot + "/sys", nullptr, MS_BIND | MS_REC))
        return false;
    if (!make_dev()) return false;
    mkdir((kRoot + "/tmp").c_str(), 01777);
    if (!do_mount("tmpfs", kRoot + "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777")) return false;
    mkdir((kRoot + "/run").c_str(), 0755);
    if (!do_mount("tmpfs", kRoot + "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755")) return false;
    if (!bind_separate_mounts(keep) || !bind_host_paths(binds)) return false;

    // pivot_root leaves the machine's tree unreachable once detached.
    if (chdir(kRoot.c_str()) != 0) return fail("chdir", kRoot);
    if (syscall(SYS_pivot_root, ".", ".") != 0) return fail("pivot_root", kRoot);
    if (umount2(".", MNT_DETACH) != 0) return fail("detach old root", "/");
    if (chdir(cwd.c_str()) != 0 && chdir("/") != 0) return fail("chdir", "/");
    return true;
}

void populate_root() {
    for (const char *dir : {"/usr/qora/etc", "/run/qorasdk/lock", "/dev/usb", "/var/services/printer",
                            "/etc/samba", "/run/qp-test", "/run/cups"})
        mkdir_p(dir);
    // /var/lock points here on Debian; daemons keep their lock files in it.
    mkdir("/run/lock", 01777);
    chmod("/run/lock", 01777);
    // The library runs the CUPS administration tools from /usr/bin; Debian
    // installs them in /usr/sbin.  cupsenable/cupsdisable act on argv[0], so
    // these must be links named after the tool.
    for (const char *tool : {"lpadmin", "cupsenable", "cupsdisable", "cupsaccept", "cupsreject"}) {
        std::string from = std::string("/usr/sbin/") + tool, to = std::string("/usr/bin/") + tool;
        if (access(from.c_str(), X_OK) == 0 && access(to.c_str(), F_OK) != 0) symlink(from.c_str(), to.c_str());
    }
}

bool loopback_up() {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return fail("socket", "lo");
    struct ifreq ifr = {};
    strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    bool ok = ioctl(fd, SIOCGIFFLAGS, &ifr) == 0;
    if (ok && !(ifr.ifr_flags & IFF_UP)) {
        ifr.ifr_flags |= IFF_UP | IFF_RUNNING;
        ok = ioctl(fd, SIOCSIFFLAGS, &ifr) == 0;
    }
    if (!ok) fail("bring up", "lo");
    close(fd);
    return ok;
}

}  // namespace qps
