/* fsmount: mounting and unmounting one partition, and taking a plugged-in partition into service.
 */
#ifndef MOUNT_FSMOUNT_H
#define MOUNT_FSMOUNT_H

#include <stdint.h>

#include "config/sysconf.h"
#include "mount/mount_thread.h"
#include "registry/records.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Mount flags of a re-mount after a failed unmount: read-only (MS_RDONLY) plus remount
 * (MS_REMOUNT). 0 is a plain read-write mount. */
#define MOUNT_FLAGS_READ_ONLY_REMOUNT 33

/* 1 when `node` is a block device, `mount_point` a directory, and the file system holding
 * `mount_point` is that device's; else 0 (also for null). */
int is_mounted_at(const char *node, const char *mount_point);

/*
 * The mounters, each one mount(2) of `node` on `mount_point` with its file-system type and
 * options, retried once read-only when the medium refuses writing (EACCES, EROFS). 0 when
 * mounted; -1, logged at LOG_ERR, otherwise. mount_ext2 and mount_ext3 always mount with flags
 * 0. mount_ntfs sets *reserved_handle to -1 once mounted.
 */
int mount_fat(const char *node, const char *mount_point, const hotplugd_settings *settings,
              unsigned long flags);
int mount_ext2(const char *node, const char *mount_point);
int mount_ext3(const char *node, const char *mount_point);
int mount_ntfs(const char *node, const char *mount_point, const hotplugd_settings *settings,
               unsigned long flags, int32_t *reserved_handle);

/* Mounts the record's node on its mount point (made with mode 0700) by its fs_type; an unknown
 * type is tried as FAT, NTFS, ext2, ext3 in turn (fs_type becomes the one that worked) unless
 * ctx->no_force_select. A record already mounted there is only marked so. 0 with `mounted` set
 * and the sizes read; -1 with fs_type 0 and the mount point removed. Mount thread only. */
int mount_partition(mount_thread_ctx *ctx, sddb_record *record, unsigned long flags);

/* Unmounts the record's mount point, detaching it lazily when it is busy, and removes the
 * directory. Without `force`, a mount point that is gone counts as unmounted. 0 with `mounted`
 * cleared (logged at LOG_NOTICE unless the mount point was gone); -1 with `mounted` set and the
 * directory kept (logged at LOG_ERR). */
int umount_partition(sddb_record *record, int force);

/* Takes the partition of a hotplug add request (kind 1) into service: probes it, mounts it
 * read-write, enters it in the database and runs the add script for a known file system. A
 * partition that cannot be mounted still enters the database, unmounted with fs_type 0. 0, or
 * -1 (null argument, no such sd name, preparation failed, not entered). Mount thread only. */
int hotplug_mount(mount_thread_ctx *ctx, const mntmg_record *request);

#ifdef __cplusplus
}
#endif

#endif
