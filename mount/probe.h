/* probe: preparing a new partition's device record: node, file system, label, attributes, names. */
#ifndef MOUNT_PROBE_H
#define MOUNT_PROBE_H

#include "mount/mount_thread.h"
#include "mount/probe_text.h"
#include "registry/records.h"

#ifdef __cplusplus
extern "C" {
#endif

/* How long each probing tool (disktype, mlabel, ntfsvlabel) may run. */
#define PROBE_TOOL_LIMIT_MS 8000u

/*
 * Fills a new record (zeroed, with node_name, disk_index and partition set) for the hotplug
 * request `request`: makes the block node "<tmp_dir>/<node_name>" from the request's major and
 * minor (an existing block device there is used as it is), has disktype tell the file system
 * and mlabel or ntfsvlabel the label (a tool that fails or outlives PROBE_TOOL_LIMIT_MS leaves
 * the kind 0 or the label empty), reads the USB, SCSI and block attributes from the request's
 * sysfs paths, names the drive (the drive name serves as label when there is none) and sets the
 * mount point "<share_dir>/<drive_name>". 0, or -1 (null argument, node path empty or taken by
 * something else, no drive name, a name that would lead out of the share directory). Mount
 * thread only.
 */
int prepare_partition(mount_thread_ctx *ctx, sddb_record *record, const mntmg_record *request);

#ifdef __cplusplus
}
#endif

#endif
