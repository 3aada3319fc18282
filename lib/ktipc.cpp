// ktipc: creating, naming, sending on and receiving from Unix datagram channels.
#include "lib/ktipc.h"

#include "lib/kt_internal.h"

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr size_t path_size = sizeof(sockaddr_un{}.sun_path);

// Peers on the appliance, 32-bit ones included, exchange and store whole addresses of this
// size (request records keep up to 110 bytes of a client's address).
static_assert(path_size == 108, "socket paths are 108 bytes");
static_assert(offsetof(sockaddr_un, sun_path) == 2, "the family is 2 bytes");
static_assert(sizeof(sockaddr_un) == 110, "addresses handed to the kernel are 110 bytes");

// A zero-filled address whose path holds at most 108 bytes of `path`; a 108-byte path keeps no
// terminator, which the kernel accepts for a full-size address.
sockaddr_un address_of(const char *path) {
    sockaddr_un addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path, strnlen(path, path_size));
    return addr;
}

int send_to(const ktipc *ipc, const void *buf, size_t len, const sockaddr_un &to) {
    return static_cast<int>(
        sendto(ipc->fd, buf, len, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to));
}

// Releases a half-made channel. Once a path was given it is unlinked too, even when the file
// was somebody else's: deliberate, so that a failed create never leaves a file in the way of
// the next attempt at that name.
ktipc *fail_create(ktipc *ipc, const char *path) {
    if (ipc->fd != -1)
        close(ipc->fd);
    std::free(ipc);
    // Hardened: the file was not made here, so it is left alone (a daemon started by mistake
    // with another's name would otherwise remove that one's socket).
    if (path != nullptr && !kt::hardened)
        unlink(path);
    return nullptr;
}

// Binds a channel at the formatted path once the directory is there; null on failure.
__attribute__((format(printf, 2, 3))) ktipc *create_named(int flags, const char *fmt, ...) {
    if (ktipc_make_dir() != 0)
        return nullptr;
    char path[path_size];
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(path, sizeof path, fmt, ap);
    va_end(ap);
    return n < 1 ? nullptr : ktipc_create(path, flags);
}

} // namespace

extern "C" {

int ktipc_make_dir(void) {
    if (mkdir(KTIPC_DIR, 0777) != 0) {
        struct stat st;
        if (errno != EEXIST || stat(KTIPC_DIR, &st) != 0 || !S_ISDIR(st.st_mode))
            return -1;
        // Hardened: a directory (or a link to one) that a user made before the daemon would let
        // that user replace the daemon's socket with one of their own.
        if (kt::hardened && (lstat(KTIPC_DIR, &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != 0))
            return -1;
    }
    // Any local user's client must be able to create its socket here; a failing chmod still
    // leaves a usable directory for root. Hardened: sticky, so nobody removes another's socket.
    chmod(KTIPC_DIR, kt::hardened ? 01777 : 0777);
    return 0;
}

ktipc *ktipc_create(const char *path, int flags) {
    auto *ipc = static_cast<ktipc *>(std::calloc(1, sizeof(ktipc)));
    if (ipc == nullptr)
        return nullptr;
    ipc->fd = -1;
    ipc->addr.sun_family = AF_UNIX;

    if (path != nullptr) {
        if (strnlen(path, path_size) >= path_size)
            return fail_create(ipc, path);
        struct stat st;
        if (stat(path, &st) == 0 && S_ISSOCK(st.st_mode)) {
            // Kept from the channel's origins on systems where a socket file can be opened;
            // Linux refuses (ENXIO), so this always falls through to the stale-file check.
            int fd = open(path, O_RDWR);
            if (fd >= 0) {
                ipc->fd = fd;
                ipc->addr = address_of(path);
                return ipc;
            }
            if (flags & KTIPC_REMOVE_STALE)
                unlink(path);
        }
    }

    ipc->fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (ipc->fd == -1)
        return fail_create(ipc, path);

    if (path != nullptr) {
        ipc->addr = address_of(path);
        if (bind(ipc->fd, reinterpret_cast<const sockaddr *>(&ipc->addr), sizeof ipc->addr) != 0)
            return fail_create(ipc, path);
        // Clients of any user send to the daemon's socket.
        chmod(path, 0777);
    }
    const int on = 1;
    if ((flags & KTIPC_PASS_CREDENTIALS) != 0 &&
        setsockopt(ipc->fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0)
        return fail_create(ipc, path);

    // A send to a peer whose queue is full must fail at once rather than stall the daemon; the
    // fcntl calls cannot fail on a descriptor just made.
    fcntl(ipc->fd, F_SETFL, fcntl(ipc->fd, F_GETFL) | O_NONBLOCK);
    return ipc;
}

ktipc *ktipc_create_serveripc(const char *name, int flags) {
    if (name == nullptr)
        return nullptr;
    // A name too long for the path is cut here, silently; only ktipc_send_srv checks.
    return create_named(flags, "%s/ipc-%s.sock", KTIPC_DIR, name);
}

ktipc *ktipc_create_clientipc(int number, int flags) {
    if (number == -1)
        return ktipc_create(nullptr, flags);
    return create_named(flags, "%s/ipc-%d.sock", KTIPC_DIR, number);
}

void ktipc_close(ktipc *ipc) {
    if (ipc == nullptr)
        return;
    if (ipc->fd != -1)
        close(ipc->fd);
    // An anonymous channel's path is empty; that unlink fails with ENOENT and is ignored.
    unlink(ipc->addr.sun_path);
    std::free(ipc);
}

int ktipc_send_srv(ktipc *ipc, const void *buf, size_t len, const char *name) {
    if (ipc == nullptr || buf == nullptr || name == nullptr)
        return -1;
    char path[path_size];
    int n = std::snprintf(path, sizeof path, "%s/ipc-%s.sock", KTIPC_DIR, name);
    if (n < 1 || n >= static_cast<int>(path_size))
        return -1;
    return send_to(ipc, buf, len, address_of(path));
}

int ktipc_send_path(ktipc *ipc, const void *buf, size_t len, const char *path) {
    if (ipc == nullptr || buf == nullptr || path == nullptr)
        return -1;
    return send_to(ipc, buf, len, address_of(path));
}

int ktipc_send_addr(ktipc *ipc, const void *buf, size_t len, const struct sockaddr *addr,
                    socklen_t addrlen) {
    if (ipc == nullptr || buf == nullptr || addr == nullptr)
        return -1;
    return static_cast<int>(sendto(ipc->fd, buf, len, 0, addr, addrlen));
}

int ktipc_receive(ktipc *ipc, void *buf, size_t len, int timeout_ms, struct sockaddr *from,
                  socklen_t *from_len) {
    return ktipc_receive_cred(ipc, buf, len, timeout_ms, from, from_len, nullptr, nullptr);
}

int ktipc_receive_cred(ktipc *ipc, void *buf, size_t len, int timeout_ms, struct sockaddr *from,
                       socklen_t *from_len, uid_t *uid, gid_t *gid) {
    if (ipc == nullptr || buf == nullptr || len == 0)
        return -1;
    // Asking for the sender without room for its length would consume the datagram and fail.
    if (from != nullptr && from_len == nullptr)
        return -1;
    // select cannot watch a descriptor outside its set; refuse rather than corrupt memory.
    if (ipc->fd < 0 || ipc->fd >= FD_SETSIZE)
        return -1;

    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(ipc->fd, &readable);
    timeval limit{};
    timeval *limitp = nullptr;
    if (timeout_ms >= 0) {
        limit.tv_sec = timeout_ms / 1000;
        limit.tv_usec = (timeout_ms % 1000) * 1000;
        limitp = &limit;
    }
    int ready = select(ipc->fd + 1, &readable, nullptr, nullptr, limitp);
    // The two diagnostics go to standard output, which the daemon points at /dev/null; clients
    // run by hand show them on the terminal.
    if (ready == -1) {
        std::printf("error(%d)\n", errno);
        return -1;
    }
    if (ready == 0)
        return 0;
    if (!FD_ISSET(ipc->fd, &readable)) {
        std::puts("error");
        return -1;
    }
    if (uid == nullptr && gid == nullptr) {
        if (from == nullptr)
            from_len = nullptr;
        return static_cast<int>(recvfrom(ipc->fd, buf, len, 0, from, from_len));
    }
    iovec data{buf, len};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
    msghdr message{};
    message.msg_name = from;
    message.msg_namelen = from != nullptr ? *from_len : 0;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t n = recvmsg(ipc->fd, &message, 0);
    if (from != nullptr)
        *from_len = message.msg_namelen;
    ucred sender{0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
    for (cmsghdr *c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c))
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_CREDENTIALS &&
            c->cmsg_len == CMSG_LEN(sizeof sender))
            std::memcpy(&sender, CMSG_DATA(c), sizeof sender);
    if (uid != nullptr)
        *uid = sender.uid;
    if (gid != nullptr)
        *gid = sender.gid;
    return static_cast<int>(n);
}

} // extern "C"
