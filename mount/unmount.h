/* unmount: safe removal with the dirty-page guard, re-mounting a disk, hotplug removal, the
 * post-batch mark that shows new records to clients. */
#ifndef MOUNT_UNMOUNT_H
#define MOUNT_UNMOUNT_H

#include "mount/mount_thread.h"
#include "registry/records.h"
#include "registry/sddb.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A reply to a client's mount or unmount request: 128 bytes, all zero but the first 32-bit
 * integer, REPLY_DONE or REPLY_REFUSED. */
enum { REPLY_SIZE = 128, REPLY_DONE = 0, REPLY_REFUSED = 1 };

/* 1 when "/proc/meminfo" says the kernel holds dirty pages (of any device), else 0. */
int dirty_pages_exist(void);

/* 1 when the disk `disk` ("sdb") has requests in flight by the ninth number of its
 * "/sys/block/<disk>/stat", which is printed with the file; 0 otherwise (also for a name that is
 * not a plain kernel name). The guard itself looks at dirty pages only. */
int disk_has_requests_in_flight(const char *disk);

/*
 * Client unmount (kind 4), and every disk at stop: the request's disk, or all for
 * MNTMG_ALL_DEVICES. After sync and a second, refused while dirty pages exist
 * ("/var/etc/kelto/hotplug_kill.sh stop 1", reply REPLY_REFUSED even without `reply`, -1).
 * Otherwise runs "stop 0", unmounts the disk's records (they stay, marked unmounted) up to the
 * first that fails, then "start 0"; with `reply` answers REPLY_DONE, or mounts the disk again
 * and answers REPLY_REFUSED. 0, or -1 for a null argument, a disk beyond the table or a
 * database that cannot be locked (no reply then). Mount thread only.
 */
int umount_disk(mount_thread_ctx *ctx, const mntmg_record *request, int reply);

/* Client mount (kind 3): mounts the disk's records read-write with `reply`, or read-only by
 * remount without it (after a failed unmount); records still mounted are only marked so. With
 * `reply` answers REPLY_DONE when one was mounted, else REPLY_REFUSED. 0, or -1 as
 * umount_disk. Mount thread only. */
int mount_disk(mount_thread_ctx *ctx, const mntmg_record *request, int reply);

/* Hotplug removal (kind 2): every record named after the request's minor is unmounted by force
 * (the medium is gone: no guard, nothing refused), its remove script run, its drive letter
 * released (fixed_drive), its node deleted and the record dropped. 0, or -1 for a null argument,
 * a minor with no sd name or a database that cannot be locked. Mount thread only. */
int hotplug_remove(mount_thread_ctx *ctx, const mntmg_record *request);

/* After a second, marks every record valid, so clients see it. 0, or -1 for a null or
 * unlockable database. */
int mark_devices_valid(sddb *db);

#ifdef __cplusplus
}
#endif

#endif
