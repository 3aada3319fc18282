/* ktipc: named Unix datagram channels under "/tmp/ktipc" for the daemon and its local clients. */
#ifndef KTIPC_H
#define KTIPC_H

#include <stddef.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Where every channel's socket file lives. */
#define KTIPC_DIR "/tmp/ktipc"

/* Bits of the create functions' `flags`: remove a stale socket file left at the path; have the
 * kernel attach each sender's credentials (see ktipc_receive_cred). */
#define KTIPC_REMOVE_STALE 0x01
#define KTIPC_PASS_CREDENTIALS 0x02

/* A channel: its socket (-1 when none) and its own bound address (empty path when anonymous).
 * Made by the create functions, released only by ktipc_close. No lock: one receiver, and each
 * send is one system call, so senders in several threads do not interleave. */
typedef struct ktipc {
    int fd;
    struct sockaddr_un addr;
} ktipc;

/* Makes sure KTIPC_DIR is a directory that anyone may use (mode 0777 whatever the umask);
 * 0, or -1 when it is missing and cannot be made, or is something other than a directory.
 * Hardened: mode 01777, and one that is not root's own directory is refused. */
int ktipc_make_dir(void);

/* New non-blocking datagram channel bound to `path` (mode 0777), or anonymous for a null path;
 * null on failure. Any failure once a path was given unlinks that path, whoever owned it
 * (hardened: never). */
ktipc *ktipc_create(const char *path, int flags);

/* Channel bound to KTIPC_DIR "/ipc-<name>.sock" (too long a name is cut to fit); null on
 * failure or for a null name. */
ktipc *ktipc_create_serveripc(const char *name, int flags);

/* Channel bound to KTIPC_DIR "/ipc-<number>.sock", or anonymous for number -1; null on
 * failure. A client that wants replies needs a bound channel. */
ktipc *ktipc_create_clientipc(int number, int flags);

/* Closes the socket, unlinks the channel's path (an anonymous one's empty path harmlessly) and
 * frees the channel. Null is ignored. */
void ktipc_close(ktipc *ipc);

/* Sends one datagram to the server channel `name`, without waiting; the byte count, or -1 (null
 * argument, a path that would not be 1 to 107 characters, or the send failed). */
int ktipc_send_srv(ktipc *ipc, const void *buf, size_t len, const char *name);

/* Sends one datagram to the socket at `path` (cut to 108 bytes); the byte count or -1. */
int ktipc_send_path(ktipc *ipc, const void *buf, size_t len, const char *path);

/* Sends one datagram (possibly empty; `buf` must still be given) to an address reported by
 * ktipc_receive; the byte count or -1. */
int ktipc_send_addr(ktipc *ipc, const void *buf, size_t len, const struct sockaddr *addr,
                    socklen_t addrlen);

/* Receives one datagram, cut to `len` bytes, waiting at most `timeout_ms` (no limit when
 * negative); the byte count, 0 on time-out (and for an empty datagram), -1 on error. `from` and
 * `from_len` (in/out) may both be null; `from` without `from_len` is an error. */
int ktipc_receive(ktipc *ipc, void *buf, size_t len, int timeout_ms, struct sockaddr *from,
                  socklen_t *from_len);

/* ktipc_receive, and the sender's user and group as the kernel checked them, on a channel made
 * with KTIPC_PASS_CREDENTIALS; -1 in both when the datagram came without them. */
int ktipc_receive_cred(ktipc *ipc, void *buf, size_t len, int timeout_ms, struct sockaddr *from,
                       socklen_t *from_len, uid_t *uid, gid_t *gid);

#ifdef __cplusplus
}
#endif

#endif
