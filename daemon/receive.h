/* receive: the request server, the daemon's only input: queues mount requests, answers queries. */
#ifndef DAEMON_RECEIVE_H
#define DAEMON_RECEIVE_H

#include "config/sysconf.h"
#include "lib/ktipc.h"
#include "registry/mntmg.h"
#include "registry/sddb.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Request kinds beyond the mount requests of records.h. */
enum {
    RECEIVE_LIST_DISKS = 101,
    RECEIVE_DISK_INFO = 102,
    RECEIVE_PARTITION_MAP = 103,
    RECEIVE_PARTITION_INFO = 104,
    RECEIVE_STOP = 999,
    /* A request datagram is read into a buffer this long; a longer one is cut. */
    RECEIVE_REQUEST_SIZE = 1024
};

/* The reply to a partition map query. */
typedef struct receive_partition_map {
    uint32_t count;
    uint8_t present[16];
    uint8_t mounted[16];
} receive_partition_map;

/* The disk list and the partition maps of "sda" to "sdz" as the database last gave them: built in
 * one walk, and again only once its change count (sddb.changes) has moved on. */
typedef struct receive_answers {
    uint32_t built;   /* 0 until the first walk */
    uint32_t changes; /* the change count they were built at */
    uint32_t listed;  /* disks in `disks` */
    char disks[26][8];
    receive_partition_map maps[26];
} receive_answers;

/* What the request server works with: copies of the daemon's pointers, and its answers. */
typedef struct receive_thread_args {
    int *running;
    const hotplugd_settings *settings;
    ktipc *ipc;
    mntmg *queue;
    sddb *devices;
    receive_answers answers;
} receive_thread_args;

/* Waits for one datagram on args->ipc and handles it as the loop below does (reaping one ended
 * child first): 1 when it was a stop request, which cleared *args->running; 0 for any other
 * datagram, handled or dropped, and for a failed receive; -1 for a null `args`, run flag or
 * channel. The fuzz target of the request server calls it datagram by datagram. */
int receive_request(receive_thread_args *args);

/* Receives datagrams on args->ipc until a stop request (kind 999) clears *args->running: kinds
 * 1 to 4 are stamped with their due time and queued, client mounts and unmounts with the
 * sender's address for the reply; the queries 101 to 104 are answered at once from the
 * database. Other datagrams are dropped. 0 when stopped, -1 for a null `args` or run flag. */
int receive_thread_run(receive_thread_args *args);

#ifdef __cplusplus
}
#endif

#endif
