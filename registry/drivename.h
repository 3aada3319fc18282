/* drivename: drive identifiers and names of partitions, and the drive letters disks keep. */
#ifndef REGISTRY_DRIVENAME_H
#define REGISTRY_DRIVENAME_H

#include <stdint.h>

#include "config/sysconf.h"
#include "registry/records.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    /* A slot number is group * DRIVE_SLOT_GROUP + letter index (0 = 'A' ... 25 = 'Z'). */
    DRIVE_SLOT_GROUP = 65536,
    DRIVE_LETTER_COUNT = 26,
    /* Group 0: the letters remembered in the configuration file ("A" ... "Z"); group 1: a
     * remembered letter that another disk holds at the moment ("YA" ... "YZ"); group 2: disks
     * without a serial number ("ZA" ... "ZZ"). */
    DRIVE_GROUP_COUNT = 3
};

/* The letters handed out to the disks present. Lives in memory only and is used by the mount
 * thread alone after start-up, so it has no lock; the assignments that outlast a restart are
 * the DRIVE_LETTERA ... DRIVE_LETTERZ keys of the file at `config_path`. */
typedef struct drive_letter_table {
    /* Per slot: 0 when free, else the owning disk's disk_index + 1. */
    uint32_t owner[DRIVE_GROUP_COUNT][DRIVE_LETTER_COUNT];
    /* Per slot: bit (partition & 31) for every partition of the owner that uses it. */
    uint32_t partition_mask[DRIVE_GROUP_COUNT][DRIVE_LETTER_COUNT];
    /* The INI file (no sections) with the DRIVE_LETTER keys; the daemon uses
     * "/etc/sysconfig/system.conf". */
    char config_path[1024];
} drive_letter_table;

/* Frees every slot and copies at most 1024 bytes of `path` into config_path (`path` may be the
 * table's own config_path, which then ends up empty). 0, or -1 for a null argument. */
int initialize_lock_dletter(drive_letter_table *table, const char *path);

/*
 * Fills the record's drive_id ("A1", "YC2", "ZA1", or the serial's tail and the partition with
 * letters off) and drive_name (at most 126 characters, from the settings' name patterns), and,
 * with `fixed_drive`, its drive_slot. With `fixed_drive` a disk with a serial keeps the letter
 * remembered for that serial in config_path; a new serial takes the first free key there,
 * under the configuration lock, and with `write_rom` the file's directory is then stored to
 * settings->rom_device and flushed. Failed configuration writes are logged at LOG_CRIT, a
 * successful ROM write at LOG_NOTICE. 0, or -1 (null argument, no slot left, the file or
 * the lock unusable, a write failed: a key already written stays). Mount thread only.
 */
int get_drivename(drive_letter_table *table, const hotplugd_settings *settings, sddb_record *record,
                  int write_rom, int fixed_drive);

/* Frees the record's drive_slot for every partition of its disk at once when that disk owns
 * it; the file is not touched. 0, or -1 for a null argument or a slot beyond the table. */
int release_drivename(drive_letter_table *table, const sddb_record *record);

#ifdef __cplusplus
}
#endif

#endif
