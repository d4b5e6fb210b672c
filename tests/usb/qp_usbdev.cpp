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
//   lp0 ENABLE
//   lp0 close
//
// Control: write lines "NODE key=value ..." (or "reset") to /dev/usb/control;
// the write returns once they are applied.  Keys:
//   present=0|1   an absent node fails its lookup (ENOENT)
//   busy=N        the next N opens fail with EBUSY
//   idfail=N      the next N LPIOC_GET_DEVICE_ID requests fail with EIO
//   len=N         the 16-bit length sent before the device ID (-1: the real
//                 length, the text's size plus 2)
//   id=TEXT       the device ID: the rest of the line, blanks included
//
// Regular files get the kernel's restricted ioctls: the size comes from the
// request number (LPIOC_GET_DEVICE_ID: up to 4095 bytes back; only what is
// sent here is written into the caller's buffer).
#define FUSE_USE_VERSION 35

#include <errno.h>
#include <fcntl.h>
#include <fuse_lowlevel.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <string>

namespace {

constexpr fuse_ino_t kRoot = 1;
constexpr fuse_ino_t kControl = 2;
constexpr fuse_ino_t kFirstNode = 3;  // lp0, lp1
constexpr int kNodes = 2;

struct Node {
    bool present = true;
    int busy = 0;
    int idfail = 0;
    long len = -1;
    std::string id = "MFG:Acme;CMD:PCL,PJL;MDL:Laser 100;CLS:PRINTER;";
};

Node g_nodes[kNodes];
int g_log = -1;

void log_line(const std::string &line) {
    std::string l = line + "\n";
    if (write(g_log, l.data(), l.size()) < 0) perror("qp-usbdev: log");
}

std::string node_name(fuse_ino_t ino) { return "lp" + std::to_string(ino - kFirstNode); }

// The node's index from its inode or its name; -1 for anything else.
int node_index(fuse_ino_t ino) { return ino >= kFirstNode && ino < kFirstNode + kNodes ? int(ino - kFirstNode) : -1; }
int node_index(const std::string &name) { return name == "lp0" ? 0 : name == "lp1" ? 1 : -1; }

struct stat attr_of(fuse_ino_t ino) {
    struct stat st = {};
    st.st_ino = ino;
    st.st_mode = ino == kRoot ? S_IFDIR | 0755 : S_IFREG | 0666;
    st.st_nlink = ino == kRoot ? 2 : 1;
    return st;
}

// One control line; false when it makes no sense.
bool apply_control(const std::string &line) {
    if (line == "reset") {
        for (auto &n : g_nodes) n = Node();
        return true;
    }
    std::istringstream in(line.substr(0, line.find(" id=")));
    std::string name, word;
    if (!(in >> name)) return true;  // a blank line
    const int i = node_index(name);
    if (i < 0) return false;
    Node &n = g_nodes[i];
    if (line.find(" id=") != std::string::npos) n.id = line.substr(line.find(" id=") + 4);
    while (in >> word) {
        const size_t eq = word.find('=');
        const std::string key = word.substr(0, eq);
        const long value = eq == std::string::npos ? 0 : strtol(word.c_str() + eq + 1, nullptr, 10);
        if (key == "present") n.present = value != 0;
        else if (key == "busy") n.busy = int(value);
        else if (key == "idfail") n.idfail = int(value);
        else if (key == "len") n.len = value;
        else return false;
    }
    return true;
}

void op_lookup(fuse_req_t req, fuse_ino_t parent, const char *name) {
    const int i = node_index(name);
    const bool control = strcmp(name, "control") == 0;
    if (parent != kRoot || (!control && (i < 0 || !g_nodes[i].present))) return (void)fuse_reply_err(req, ENOENT);
    const fuse_ino_t ino = control ? kControl : kFirstNode + fuse_ino_t(i);
    struct fuse_entry_param e = {};  // no caching, so a control write takes effect at once
    e.ino = ino;
    e.attr = attr_of(ino);
    fuse_reply_entry(req, &e);
}

void op_getattr(fuse_req_t req, fuse_ino_t ino, struct fuse_file_info *) {
    struct stat st = attr_of(ino);
    fuse_reply_attr(req, &st, 0);
}

// Truncation (a shell's "echo >control") is accepted and ignored.
void op_setattr(fuse_req_t req, fuse_ino_t ino, struct stat *, int, struct fuse_file_info *fi) {
    op_getattr(req, ino, fi);
}

// The whole listing in one reply: the next call, at its offset, gets nothing.
void op_readdir(fuse_req_t req, fuse_ino_t, size_t size, off_t off, struct fuse_file_info *) {
    std::string buf(size, '\0');
    size_t used = 0;
    for (fuse_ino_t ino = kControl; off == 0 && ino < kFirstNode + kNodes; ++ino) {
        if (ino >= kFirstNode && !g_nodes[ino - kFirstNode].present) continue;
        struct stat st = attr_of(ino);
        const std::string name = ino == kControl ? "control" : node_name(ino);
        used += fuse_add_direntry(req, &buf[used], size - used, name.c_str(), &st, off_t(ino));
    }
    fuse_reply_buf(req, buf.data(), std::min(used, size));
}

void op_open(fuse_req_t req, fuse_ino_t ino, struct fuse_file_info *fi) {
    fi->direct_io = 1;
    fi->nonseekable = 1;
    const int i = node_index(ino);
    if (i >= 0 && g_nodes[i].busy > 0) {
        --g_nodes[i].busy;
        log_line(node_name(ino) + " open EBUSY");
        return (void)fuse_reply_err(req, EBUSY);
    }
    if (i >= 0) log_line(node_name(ino) + " open");
    fuse_reply_open(req, fi);
}

// close() waits for the flush but not for the release, so the close is
// logged here: a test that reads the log right after a call sees it.
void op_flush(fuse_req_t req, fuse_ino_t ino, struct fuse_file_info *) {
    if (node_index(ino) >= 0) log_line(node_name(ino) + " close");
    fuse_reply_err(req, 0);
}

void op_write(fuse_req_t req, fuse_ino_t ino, const char *buf, size_t size, off_t, struct fuse_file_info *) {
    if (ino != kControl) return (void)fuse_reply_err(req, EINVAL);
    std::istringstream in(std::string(buf, size));
    for (std::string line; std::getline(in, line);) {
        if (!apply_control(line)) {
            fprintf(stderr, "qp-usbdev: bad control line: %s\n", line.c_str());
            return (void)fuse_reply_err(req, EINVAL);
        }
    }
    fuse_reply_write(req, size);
}

void op_ioctl(fuse_req_t req, fuse_ino_t ino, unsigned int cmd, void *, struct fuse_file_info *, unsigned,
              const void *, size_t, size_t out_bufsz) {
    const int i = node_index(ino);
    if (i < 0) return (void)fuse_reply_err(req, ENOTTY);
    Node &n = g_nodes[i];
    const std::string name = node_name(ino);
    switch (cmd) {
    case 0x8FFF5001u: {  // LPIOC_GET_DEVICE_ID
        if (n.idfail > 0) {
            --n.idfail;
            log_line(name + " GET_DEVICE_ID EIO");
            return (void)fuse_reply_err(req, EIO);
        }
        log_line(name + " GET_DEVICE_ID");
        const long len = std::min(n.len >= 0 ? n.len : long(n.id.size()) + 2, 0xFFFFL);
        std::string reply = {char(len >> 8), char(len & 0xFF)};
        reply += n.id;
        reply.resize(std::min({reply.size(), out_bufsz, size_t(4095)}));
        return (void)fuse_reply_ioctl(req, 0, reply.data(), reply.size());
    }
    case 0x5009u:  // LPIOC_SOFT_RESET
        log_line(name + " SOFT_RESET");
        return (void)fuse_reply_ioctl(req, 0, nullptr, 0);
    case 0x40005008u:  // the enable and disable notices
    case 0x40005007u:
        log_line(name + (cmd == 0x40005008u ? " ENABLE" : " DISABLE"));
        return (void)fuse_reply_ioctl(req, 0, nullptr, 0);
    default:
        log_line(name + " ioctl " + std::to_string(cmd) + " ENOTTY");
        return (void)fuse_reply_err(req, ENOTTY);
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3 || (g_log = open(argv[2], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644)) < 0) {
        fprintf(stderr, "usage: qp-usbdev MOUNTPOINT LOGFILE (a file it can append to)\n");
        return 2;
    }
    struct fuse_lowlevel_ops ops = {};
    ops.lookup = op_lookup;
    ops.getattr = op_getattr;
    ops.setattr = op_setattr;
    ops.readdir = op_readdir;
    ops.open = op_open;
    ops.flush = op_flush;
    ops.write = op_write;
    ops.ioctl = op_ioctl;

    char arg0[] = "qp-usbdev", opt[] = "-o", opts[] = "fsname=qp-usbdev,subtype=qp-usbdev";
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
