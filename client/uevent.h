/* uevent: turning the kernel's block device events into hotplugd's add and remove requests. */
#ifndef CLIENT_UEVENT_H
#define CLIENT_UEVENT_H

#include <stddef.h>
#include <stdint.h>

#include "registry/records.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The identifier hotplugd knows a disk or partition by, from its kernel name: disk index * 16 +
 * partition ("sda" 0, "sdb1" 17, "sdz15" 415). 0, or -1 for a name of another form: not "sd",
 * a letter and an optional partition 1 to 15 without leading zero ("sdaa", "hda", "sdb16"). */
int uevent_disk_id(const char *name, uint16_t *id);

/* Looks a variable of an event up: `vars` holds "KEY=value" strings, NUL-separated, `size`
 * bytes in all (the environment's strings, or a netlink message after its header). The value,
 * or null. */
const char *uevent_get(const char *vars, size_t size, const char *key);

/* How an event turned out. */
enum {
    UEVENT_SEND = 0,    /* `out` holds the request to send */
    UEVENT_IGNORED = 1, /* not a device for hotplugd (another subsystem, action or name) */
    UEVENT_BAD = -1     /* for hotplugd, but unusable: `error` says why */
};

/*
 * Builds the request of an event: kind 1 for ACTION "add", 2 for "remove" (`action`, when not
 * null, stands in for the variable ACTION). Only block devices named "sd" + letter + optional
 * partition count. MAJOR is the kernel's; the request's minor is the identifier of the name
 * (uevent_disk_id), which for disks past "sdp" differs from the kernel's minor. For an add, the
 * paths are found under `sysfs` ("/sys"; the device directory "<sysfs><DEVPATH>" must lie
 * inside it): the USB device is the nearest ancestor holding "idVendor", the SCSI device the
 * nearest holding "vendor" and "model", the block directory the device's own (so a partition's
 * size is its own, and its removable flag, which only disks carry, reads as not removable). A
 * removal needs no paths: the directories are gone by then.
 */
int uevent_request(const char *vars, size_t size, const char *action, const char *sysfs,
                   mntmg_record *out, char *error, size_t error_size);

/* Called by uevent_scan with each request and the device's kernel name. */
typedef void (*uevent_each_fn)(const mntmg_record *request, const char *name, void *context);

/*
 * The add requests for what is present, as the kernel announced it when it came: every sd disk
 * under "<sysfs>/block" in the order of the names, each followed by its partitions (1 to 15)
 * in order, each request built from what uevent_request takes from a kernel event. `each` is
 * called with every one; devices whose attributes do not make a request are passed over. The
 * number of requests, or -1 for a null argument or a `sysfs` that does not exist.
 */
int uevent_scan(const char *sysfs, uevent_each_fn each, void *context);

#ifdef __cplusplus
}
#endif

#endif
