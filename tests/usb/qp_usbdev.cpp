// qp-usbdev: a simulated USB printer class driver for the tests.
//
//   qp-usbdev MOUNTPOINT LOGFILE
//
// A FUSE file system (single-threaded) mounted on /dev/usb inside the
// sandbox.  It serves the printer nodes lp0 and lp1 as regular files that
// answer the real open/ioctl/close calls of the printer class driver, and a
// node "control" that reconfigures them.  Every open, close and driver
// request is appended to LOGFILE as one line, e.g.
//
//   lp0 open
//   lp0 GET_DEVICE_ID
//   lp0 ENABLE
//   lp0 close
//
// Control: write lines "NODE key=value ..." (or "reset") to /dev/usb/control;
// the write returns once they are applied.  Keys:
//   present=0|1   an absent node is not there (ENOENT)
//   busy=N        the next N opens fail with EBUSY
//   idfail=N      the next N LPIOC_GET_DEVICE_ID requests fail with EIO
//   len=N         the 16-bit length sent before the device ID (-1: the real
//                 length, the text's size plus 2)
//   id=TEXT       the device ID: the rest of the line, blanks included
//
// Regular files get the kernel's restricted ioctls: the size comes from the
// request number (LPIOC_GET_DEVICE_ID: 4095 bytes back, zeros after the
// reply; the two notices carry no data).
#define FUSE_USE_VERSION 35

#include <errno.h>
#include <fcntl.h>
#include <fuse.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <string>

namespace {

struct Node {
    bool present = true;
    int busy = 0;
    int idfail = 0;
    long len = -1;
    std::string id = "MFG:Acme;CMD:PCL,PJL;MDL:Laser 100;CLS:PRINTER;";
};

Node g_nodes[2];
int g_log = -1;

void log_line(const std::string &line) {
    std::string l = line + "\n";
    if (write(g_log, l.data(), l.size()) < 0) perror("qp-usbdev: log");
}

// The node a path ("/lp0") or name names, nullptr for anything else.
Node *node(std::string name) {
    if (!name.empty() && name[0] == '/') name.erase(0, 1);
    return name == "lp0" ? &g_nodes[0] : name == "lp1" ? &g_nodes[1] : nullptr;
}

// One control line; false when it makes no sense.
bool apply_control(const std::string &line) {
    if (line == "reset") {
        for (auto &n : g_nodes) n = Node();
        return true;
    }
    const size_t id = line.find(" id=");
    std::istringstream in(line.substr(0, id));
    std::string name, word;
    if (!(in >> name)) return true;  // a blank line
    Node *n = node(name);
    if (n == nullptr) return false;
    if (id != std::string::npos) n->id = line.substr(id + 4);
    while (in >> word) {
        const size_t eq = word.find('=');
        const std::string key = word.substr(0, eq);
        const long value = eq == std::string::npos ? 0 : strtol(word.c_str() + eq + 1, nullptr, 10);
        if (key == "present") n->present = value != 0;
        else if (key == "busy") n->busy = int(value);
        else if (key == "idfail") n->idfail = int(value);
        else if (key == "len") n->len = value;
        else return false;
    }
    return true;
}

int fs_getattr(const char *path, struct stat *st, struct fuse_file_info *) {
    *st = {};
    const Node *n = node(path);
    st->st_mode = strcmp(path, "/") == 0 ? S_IFDIR | 0755 : S_IFREG | 0666;
    st->st_nlink = 1;
    return strcmp(path, "/") == 0 || strcmp(path, "/control") == 0 || (n && n->present) ? 0 : -ENOENT;
}

int fs_readdir(const char *, void *buf, fuse_fill_dir_t fill, off_t, struct fuse_file_info *, fuse_readdir_flags) {
    fill(buf, "control", nullptr, 0, fuse_fill_dir_flags(0));
    for (const char *name : {"lp0", "lp1"})
        if (node(name)->present) fill(buf, name, nullptr, 0, fuse_fill_dir_flags(0));
    return 0;
}

int fs_open(const char *path, struct fuse_file_info *fi) {
    fi->direct_io = 1;
    fi->nonseekable = 1;
    Node *n = node(path);
    if (n == nullptr) return 0;
    const bool busy = n->busy > 0;
    log_line(std::string(path + 1) + (busy ? " open EBUSY" : " open"));
    return busy ? (--n->busy, -EBUSY) : 0;
}

// close() waits for the flush but not for the release, so the close is
// logged here: a test that reads the log right after a call sees it.
int fs_flush(const char *path, struct fuse_file_info *) {
    if (node(path)) log_line(std::string(path + 1) + " close");
    return 0;
}

// Truncation (a shell's "echo >control") is accepted and ignored.
int fs_truncate(const char *, off_t, struct fuse_file_info *) { return 0; }

int fs_write(const char *path, const char *buf, size_t size, off_t, struct fuse_file_info *) {
    if (strcmp(path, "/control") != 0) return -EINVAL;
    std::istringstream in(std::string(buf, size));
    for (std::string line; std::getline(in, line);) {
        if (!apply_control(line)) {
            fprintf(stderr, "qp-usbdev: bad control line: %s\n", line.c_str());
            return -EINVAL;
        }
    }
    return int(size);
}

int fs_ioctl(const char *path, unsigned int cmd, void *, struct fuse_file_info *, unsigned int, void *data) {
    Node *n = node(path);
    if (n == nullptr) return -ENOTTY;
    const std::string name = path + 1;
    switch (cmd) {
    case 0x8FFF5001u: {  // LPIOC_GET_DEVICE_ID
        if (n->idfail > 0) {
            --n->idfail;
            log_line(name + " GET_DEVICE_ID EIO");
            return -EIO;
        }
        log_line(name + " GET_DEVICE_ID");
        const long len = std::min(n->len >= 0 ? n->len : long(n->id.size()) + 2, 0xFFFFL);
        std::string reply = {char(len >> 8), char(len & 0xFF)};
        reply += n->id;
        reply.resize(4095);
        memcpy(data, reply.data(), reply.size());
        return 0;
    }
    case 0x5009u:  // LPIOC_SOFT_RESET
        log_line(name + " SOFT_RESET");
        return 0;
    case 0x40005008u:  // the enable and disable notices
    case 0x40005007u:
        log_line(name + (cmd == 0x40005008u ? " ENABLE" : " DISABLE"));
        return 0;
    default:
        return -ENOTTY;
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3 || (g_log = open(argv[2], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644)) < 0) {
        fprintf(stderr, "usage: qp-usbdev MOUNTPOINT LOGFILE (a file it can append to)\n");
        return 2;
    }
    struct fuse_operations ops = {};
    ops.getattr = fs_getattr;
    ops.truncate = fs_truncate;
    ops.open = fs_open;
    ops.write = fs_write;
    ops.flush = fs_flush;
    ops.readdir = fs_readdir;
    ops.ioctl = fs_ioctl;
    // Foreground, one thread, and nothing cached: a control write takes effect at once.
    char arg0[] = "qp-usbdev", fg[] = "-f", single[] = "-s", opt[] = "-o",
         opts[] = "fsname=qp-usbdev,subtype=qp-usbdev,entry_timeout=0,attr_timeout=0,negative_timeout=0";
    char *fargv[] = {arg0, fg, single, opt, opts, argv[1], nullptr};
    return fuse_main(6, fargv, &ops, nullptr);
}
