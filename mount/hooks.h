/* hooks: the event program around client requests and the appliance's add and remove script. */
#ifndef MOUNT_HOOKS_H
#define MOUNT_HOOKS_H

#include <stddef.h>
#include <stdint.h>

#include "registry/records.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Events of the event program, by number; it is run for HOOK_BEFOREMNT and HOOK_AFTERMNT only. */
enum {
    HOOK_UNKNOWN = 0,
    HOOK_ADD = 1,
    HOOK_MOUNT = 2,
    HOOK_REMOVE = 3,
    HOOK_UMOUNT = 4,
    HOOK_BEFOREMNT = 5,
    HOOK_AFTERMNT = 6
};

/* How long the event program may run before the mount thread goes on without it. */
#define HOOK_PROGRAM_LIMIT_MS 15000u

/* Runs the event program `prog` (split into words, no shell) with ACTION set to the event's
 * word in the daemon's own environment, where it stays, and waits up to HOOK_PROGRAM_LIMIT_MS
 * for it; logs its start at LOG_DEBUG. 0 when started, -1 for another action, a null or empty
 * `prog`, or a failed start. Mount thread only. */
int callprog(const char *prog, int action);

/* "sh /etc/scripts/usbmount_helper.sh add <disk> <partition> <fs> "<mount point>"" through the
 * shell, for a record just entered in the database with a file system the script knows (FAT,
 * FAT32, NTFS, Linux, ext2, ext3); `minor` is the request's. 0 when run, -1 when the file
 * system has no script word or `record` is null. */
int hook_add_script(const sddb_record *record, uint16_t minor);

/* "sh /etc/scripts/usbmount_helper.sh remove <disk> <partition>" through the shell, for a
 * record leaving the database. 0, or -1 for null. */
int hook_remove_script(const sddb_record *record, uint16_t minor);

/* Writes the disk's name, "sd" and the letter of minor >> 4, into `out` (at least 6 bytes);
 * 0, or -1 for null, a short buffer or a disk beyond 'sdz'. */
int disk_name_of(uint32_t minor, char *out, size_t out_size);

#ifdef __cplusplus
}
#endif

#endif
