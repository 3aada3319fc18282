// Test stand-in for the ROM device: a FUSE file system serving one file that keeps what is
// written to it and records every 'g' request that the device's driver would receive.
//
// usage: kteeprom_fuse RECORD_DIR MOUNTPOINT
//   MOUNTPOINT/kteeprom   the device file (reads, writes, truncation, 'g' requests)
//   RECORD_DIR/image      its content
//   RECORD_DIR/requests   a line per request: "<request, 8 hex digits> <r|w|rw> <bytes in hex, or
//   ->"
// A request that fetches data gets the int 0x6b740000 + its number. Prints "ready" once the
// file system answers, and exits as soon as its standard input ends (the test is done or gone).
#define FUSE_USE_VERSION 35
#include <fuse.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *file_path = "/kteeprom";
int image_fd = -1;
int requests_fd = -1;

int do_getattr(const char *path, struct stat *st, fuse_file_info *) {
    std::memset(st, 0, sizeof *st);
    if (std::strcmp(path, "/") == 0) {
        st->st_mode = S_IFDIR | 0755;
        st->st_nlink = 2;
        return 0;
    }
    if (std::strcmp(path, file_path) != 0)
        return -ENOENT;
    struct stat image {};
    if (fstat(image_fd, &image) != 0)
        return -errno;
    st->st_mode = S_IFREG | 0666;
    st->st_nlink = 1;
    st->st_size = image.st_size;
    return 0;
}

int do_readdir(const char *path, void *buf, fuse_fill_dir_t fill, off_t, fuse_file_info *,
               fuse_readdir_flags) {
    if (std::strcmp(path, "/") != 0)
        return -ENOENT;
    fill(buf, ".", nullptr, 0, FUSE_FILL_DIR_PLUS);
    fill(buf, "..", nullptr, 0, FUSE_FILL_DIR_PLUS);
    fill(buf, file_path + 1, nullptr, 0, FUSE_FILL_DIR_PLUS);
    return 0;
}

int do_open(const char *path, fuse_file_info *fi) {
    if (std::strcmp(path, file_path) != 0)
        return -ENOENT;
    if ((fi->flags & O_TRUNC) != 0 && ftruncate(image_fd, 0) != 0)
        return -errno;
    // The library hands later requests only the handle, so the handle keeps the open flags.
    fi->fh = static_cast<uint64_t>(fi->flags);
    return 0;
}

int do_truncate(const char *path, off_t size, fuse_file_info *) {
    if (std::strcmp(path, file_path) != 0)
        return -ENOENT;
    return ftruncate(image_fd, size) == 0 ? 0 : -errno;
}

int do_read(const char *, char *buf, size_t size, off_t offset, fuse_file_info *) {
    ssize_t n = pread(image_fd, buf, size, offset);
    return n < 0 ? -errno : static_cast<int>(n);
}

int do_write(const char *, const char *buf, size_t size, off_t offset, fuse_file_info *) {
    ssize_t n = pwrite(image_fd, buf, size, offset);
    return n < 0 ? -errno : static_cast<int>(n);
}

int do_ioctl(const char *, unsigned int request, void *, fuse_file_info *fi, unsigned int flags,
             void *data) {
    if (_IOC_TYPE(request) != 'g' || (flags & FUSE_IOCTL_DIR) != 0)
        return -ENOTTY;
    const char *mode = "rw";
    if ((fi->fh & O_ACCMODE) == O_RDONLY)
        mode = "r";
    else if ((fi->fh & O_ACCMODE) == O_WRONLY)
        mode = "w";
    size_t size = _IOC_SIZE(request);
    std::string bytes = (_IOC_DIR(request) & _IOC_WRITE) != 0 && size > 0 ? "" : "-";
    if (bytes.empty()) {
        for (size_t i = 0; i < size; ++i) {
            char hex[3];
            std::snprintf(hex, sizeof hex, "%02x", static_cast<unsigned char *>(data)[i]);
            bytes += hex;
        }
    }
    if (dprintf(requests_fd, "%08x %s %s\n", request, mode, bytes.c_str()) < 0)
        return -EIO;
    if ((_IOC_DIR(request) & _IOC_READ) != 0 && size >= sizeof(int)) {
        int answer = 0x6b740000 + static_cast<int>(_IOC_NR(request));
        std::memcpy(data, &answer, sizeof answer);
    }
    return 0;
}

void *do_init(fuse_conn_info *, fuse_config *cfg) {
    // Every read and write of the test reaches this process as it was made.
    cfg->direct_io = 1;
    std::printf("ready\n");
    std::fflush(stdout);
    return nullptr;
}

void *watch_stdin(void *) {
    char c;
    while (read(STDIN_FILENO, &c, 1) > 0) {
    }
    _exit(0);
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s RECORD_DIR MOUNTPOINT\n", argv[0]);
        return 2;
    }
    std::string dir = argv[1];
    image_fd = open((dir + "/image").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    requests_fd = open((dir + "/requests").c_str(),
                       O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (image_fd < 0 || requests_fd < 0) {
        std::perror("kteeprom_fuse: record files");
        return 1;
    }
    pthread_t watcher;
    if (pthread_create(&watcher, nullptr, watch_stdin, nullptr) != 0)
        return 1;

    fuse_operations ops{};
    ops.getattr = do_getattr;
    ops.readdir = do_readdir;
    ops.open = do_open;
    ops.truncate = do_truncate;
    ops.read = do_read;
    ops.write = do_write;
    ops.ioctl = do_ioctl;
    ops.init = do_init;
    char name[] = "kteeprom_fuse", foreground[] = "-f", single[] = "-s", opt[] = "-o";
    char options[] = "fsname=kteeprom,subtype=kteeprom";
    char *args[] = {name, foreground, single, opt, options, argv[2], nullptr};
    return fuse_main(6, args, &ops, nullptr);
}
