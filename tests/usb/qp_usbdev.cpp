// qp-usbdev: a simulated USB printer class driver for the tests.
//
//   qp-usbdev MOUNTPOINT LOGFILE
//
// A FUSE file system (low-level API, single-threaded) mounted on /dev/usb
// inside the sandbox.  It serves the printer nodes lp0 and lp1 as regular
// files that answer the real open/ioctl/close calls of the printer class
// driver, and a node "control" that reconfigures them.  Every open, close
// and driver request is appended to LOGFILE as one line, e.g.
//
//   lp0 open
//   lp0 GET_DEVICE_ID
//   lp0 ENABLE 0
//   lp0 close
//
// Control: write lines "NODE key=value ..." (or "reset") to /dev/usb/control;
// the write returns once they are applied.  Keys:
//   present=0|1   an absent node fails its lookup (ENOENT)
//   busy=N        the next N opens fail with EBUSY
//   idfail=N      the next N LPIOC_GET_DEVICE_ID requests fail with EIO
//   vanish=1      the node disappears right after its next open; requests on
//                 that descriptor then fail with ENODEV
//   len=N         the 16-bit length sent before the device ID (-1: the real
//                 length, the text's size plus 2)
//   id=TEXT       the device ID: the rest of the line, blanks included
//
// Regular files get the kernel's restricted ioctls: the size comes from the
// request number (LPIOC_GET_DEVICE_ID: up to 4095 bytes back; only what is
// sent here is written into the caller's buffer), and the two notices,
// which carry no data, arrive with the caller's pointer, read here with
// process_vm_readv.
#define FUSE_USE_VERSION 35

#include <errno.h>
#include <fcntl.h>
#include <fuse_lowlevel.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

constexpr unsigned int kGetDeviceId = 0x8FFF5001u;
constexpr unsigned int kSoftReset = 0x5009u;
constexpr unsigned int kPrinterEnable = 0x40005008u;
constexpr unsigned int kPrinterDisable = 0x40005007u;
constexpr size_t kReplyMax = 4095;

constexpr fuse_ino_t kRoot = 1;
constexpr fuse_ino_t kControl = 2;
constexpr fuse_ino_t kFirstNode = 3;  // lp0, lp1
constexpr int kNodes = 2;

struct Node {
    bool present = true;
    int busy = 0;
    int idfail = 0;
    bool vanish = false;
    long len = -1;
    std::string id = "MFG:Acme;CMD:PCL,PJL;MDL:Laser 100;CLS:PRINTER;";
};

Node g_nodes[kNodes];
int g_log = -1;

void log_line(const std::string &line) {
    std::string l = line + "\n";
    if (write(g_log, l.data(), l.size()) < 0) perror("qp-usbdev: log");
}

std::string node_name(int i) { return "lp" + std::to_string(i); }

int node_index(fuse_ino_t ino) {
    if (ino < kFirstNode || ino >= kFirstNode + kNodes) return -1;
    return static_cast<int>(ino - kFirstNode);
}

int node_by_name(const std::string &name) {
    for (int i = 0; i < kNodes; ++i)
        if (name == node_name(i)) return i;
    return -1;
}

struct stat attr_of(fuse_ino_t ino) {
    struct stat st;
    memset(&st, 0, sizeof(st));
    st.st_ino = ino;
    if (ino == kRoot) {
        st.st_mode = S_IFDIR | 0755;
        st.st_nlink = 2;
    } else {
        st.st_mode = S_IFREG | 0666;
        st.st_nlink = 1;
    }
    return st;
}

void reply_entry(fuse_req_t req, fuse_ino_t ino) {
    struct fuse_entry_param e;
    memset(&e, 0, sizeof(e));
    e.ino = ino;
    e.attr = attr_of(ino);
    e.attr_timeout = 0;  // so a control write takes effect at once
    e.entry_timeout = 0;
    fuse_reply_entry(req, &e);
}

// One control line; false when it makes no sense.
bool apply_control(const std::string &line) {
    if (line.empty()) return true;
    if (line == "reset") {
        for (auto &n : g_nodes) n = Node();
        return true;
    }
    size_t sp = line.find(' ');
    int i = node_by_name(line.substr(0, sp));
    if (i < 0) return false;
    Node &n = g_nodes[i];
    size_t pos = sp;
    while (pos != std::string::npos && pos < line.size()) {
        pos = line.find_first_not_of(' ', pos);
        if (pos == std::string::npos) break;
        size_t eq = line.find('=', pos);
        if (eq == std::string::npos) return false;
        std::string key = line.substr(pos, eq - pos);
        if (key == "id") {
            n.id = line.substr(eq + 1);
            return true;
        }
        size_t end = line.find(' ', eq);
        std::string value = line.substr(eq + 1, end == std::string::npos ? std::string::npos : end - eq - 1);
        pos = end;
        if (key == "present") n.present = value != "0";
        else if (key == "busy") n.busy = atoi(value.c_str());
        else if (key == "idfail") n.idfail = atoi(value.c_str());
        else if (key == "vanish") n.vanish = value != "0";
        else if (key == "len") n.len = atol(value.c_str());
        else return false;
    }
    return true;
}

void op_lookup(fuse_req_t req, fuse_ino_t parent, const char *name) {
    if (parent != kRoot) return (void)fuse_reply_err(req, ENOENT);
    if (strcmp(name, "control") == 0) return reply_entry(req, kControl);
    int i = node_by_name(name);
    if (i < 0 || !g_nodes[i].present) return (void)fuse_reply_err(req, ENOENT);
    reply_entry(req, kFirstNode + static_cast<fuse_ino_t>(i));
}

void op_getattr(fuse_req_t req, fuse_ino_t ino, struct fuse_file_info *) {
    struct stat st = attr_of(ino);
    fuse_reply_attr(req, &st, 0);
}

void op_setattr(fuse_req_t req, fuse_ino_t ino, struct stat *, int, struct fuse_file_info *) {
    struct stat st = attr_of(ino);
    fuse_reply_attr(req, &st, 0);
}

void op_readdir(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, struct fuse_file_info *) {
    if (ino != kRoot) return (void)fuse_reply_err(req, ENOTDIR);
    std::vector<std::pair<std::string, fuse_ino_t>> entries = {{".", kRoot}, {"..", kRoot}, {"control", kControl}};
    for (int i = 0; i < kNodes; ++i)
        if (g_nodes[i].present) entries.push_back({node_name(i), kFirstNode + static_cast<fuse_ino_t>(i)});
    std::vector<char> buf(size);
    size_t used = 0;
    for (size_t k = static_cast<size_t>(off); k < entries.size(); ++k) {
        struct stat st = attr_of(entries[k].second);
        size_t n = fuse_add_direntry(req, buf.data() + used, size - used, entries[k].first.c_str(), &st,
                                     static_cast<off_t>(k + 1));
        if (n > size - used) break;
        used += n;
    }
    fuse_reply_buf(req, buf.data(), used);
}

// fh of an open printer node: 1 when the node vanished after this open.
void op_open(fuse_req_t req, fuse_ino_t ino, struct fuse_file_info *fi) {
    fi->direct_io = 1;
    fi->nonseekable = 1;
    fi->fh = 0;
    if (ino == kControl) return (void)fuse_reply_open(req, fi);
    int i = node_index(ino);
    if (i < 0) return (void)fuse_reply_err(req, EISDIR);
    Node &n = g_nodes[i];
    if (!n.present) {
        log_line(node_name(i) + " open ENOENT");
        return (void)fuse_reply_err(req, ENOENT);
    }
    if (n.busy > 0) {
        --n.busy;
        log_line(node_name(i) + " open EBUSY");
        return (void)fuse_reply_err(req, EBUSY);
    }
    log_line(node_name(i) + " open");
    if (n.vanish) {
        n.vanish = false;
        n.present = false;
        fi->fh = 1;
    }
    fuse_reply_open(req, fi);
}

// close() waits for the flush but not for the release, so the close is
// logged here: a test that reads the log right after a call sees it.
void op_flush(fuse_req_t req, fuse_ino_t ino, struct fuse_file_info *) {
    int i = node_index(ino);
    if (i >= 0) log_line(node_name(i) + " close");
    fuse_reply_err(req, 0);
}

void op_release(fuse_req_t req, fuse_ino_t, struct fuse_file_info *) { fuse_reply_err(req, 0); }

void op_write(fuse_req_t req, fuse_ino_t ino, const char *buf, size_t size, off_t, struct fuse_file_info *) {
    if (ino != kControl) return (void)fuse_reply_err(req, EINVAL);
    std::string text(buf, size);
    size_t start = 0;
    while (start <= text.size()) {
        size_t nl = text.find('\n', start);
        std::string line = text.substr(start, nl == std::string::npos ? std::string::npos : nl - start);
        if (!apply_control(line)) {
            fprintf(stderr, "qp-usbdev: bad control line: %s\n", line.c_str());
            return (void)fuse_reply_err(req, EINVAL);
        }
        if (nl == std::string::npos) break;
        start = nl + 1;
    }
    fuse_reply_write(req, size);
}

// The int a notice points at, from the caller's memory.
std::string peek_int(fuse_req_t req, void *arg) {
    int value = 0;
    struct iovec local = {&value, sizeof(value)};
    struct iovec remote = {arg, sizeof(value)};
    pid_t pid = fuse_req_ctx(req)->pid;
    if (arg == nullptr || process_vm_readv(pid, &local, 1, &remote, 1, 0) != sizeof(value)) return "?";
    return std::to_string(value);
}

void op_ioctl(fuse_req_t req, fuse_ino_t ino, unsigned int cmd, void *arg, struct fuse_file_info *fi, unsigned,
              const void *, size_t, size_t out_bufsz) {
    int i = node_index(ino);
    if (i < 0) return (void)fuse_reply_err(req, ENOTTY);
    Node &n = g_nodes[i];
    std::string name = node_name(i);
    bool gone = fi->fh == 1 || !n.present;

    switch (cmd) {
    case kGetDeviceId: {
        if (gone) {
            log_line(name + " GET_DEVICE_ID ENODEV");
            return (void)fuse_reply_err(req, ENODEV);
        }
        if (n.idfail > 0) {
            --n.idfail;
            log_line(name + " GET_DEVICE_ID EIO");
            return (void)fuse_reply_err(req, EIO);
        }
        log_line(name + " GET_DEVICE_ID");
        long len = n.len >= 0 ? n.len : static_cast<long>(n.id.size()) + 2;
        if (len > 0xFFFF) len = 0xFFFF;
        std::string reply;
        reply.push_back(static_cast<char>((len >> 8) & 0xFF));
        reply.push_back(static_cast<char>(len & 0xFF));
        reply += n.id;
        size_t cap = std::min(out_bufsz, kReplyMax);
        if (reply.size() > cap) reply.resize(cap);
        return (void)fuse_reply_ioctl(req, 0, reply.data(), reply.size());
    }
    case kSoftReset:
        log_line(name + (gone ? " SOFT_RESET ENODEV" : " SOFT_RESET"));
        if (gone) return (void)fuse_reply_err(req, ENODEV);
        return (void)fuse_reply_ioctl(req, 0, nullptr, 0);
    case kPrinterEnable:
    case kPrinterDisable:
        log_line(name + (cmd == kPrinterEnable ? " ENABLE " : " DISABLE ") + peek_int(req, arg));
        return (void)fuse_reply_ioctl(req, 0, nullptr, 0);
    default:
        char hex[16];
        snprintf(hex, sizeof(hex), "%#x", cmd);
        log_line(name + " ioctl " + hex + " ENOTTY");
        return (void)fuse_reply_err(req, ENOTTY);
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: qp-usbdev MOUNTPOINT LOGFILE\n");
        return 2;
    }
    g_log = open(argv[2], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (g_log < 0) {
        perror(argv[2]);
        return 1;
    }

    struct fuse_lowlevel_ops ops;
    memset(&ops, 0, sizeof(ops));
    ops.lookup = op_lookup;
    ops.getattr = op_getattr;
    ops.setattr = op_setattr;
    ops.readdir = op_readdir;
    ops.open = op_open;
    ops.flush = op_flush;
    ops.release = op_release;
    ops.write = op_write;
    ops.ioctl = op_ioctl;

    char arg0[] = "qp-usbdev";
    char opt[] = "-o";
    char opts[] = "fsname=qp-usbdev,subtype=qp-usbdev";
    char *fargv[] = {arg0, opt, opts, nullptr};
    struct fuse_args args = FUSE_ARGS_INIT(3, fargv);

    struct fuse_session *se = fuse_session_new(&args, &ops, sizeof(ops), nullptr);
    if (se == nullptr) return 1;
    int rc = 1;
    if (fuse_set_signal_handlers(se) == 0) {
        if (fuse_session_mount(se, argv[1]) == 0) {
            rc = fuse_session_loop(se) == 0 ? 0 : 1;
            fuse_session_unmount(se);
        }
        fuse_remove_signal_handlers(se);
    }
    fuse_session_destroy(se);
    return rc;
}
