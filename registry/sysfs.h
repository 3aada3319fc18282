/* sysfs: reading a disk's USB, SCSI and block attributes into the stretches of its device record.
 */
#ifndef REGISTRY_SYSFS_H
#define REGISTRY_SYSFS_H

#include <stddef.h>

#include "registry/records.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define SYSFS_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define SYSFS_PRINTF(fmt, args)
#endif

/*
 * The readers fill the stretches of the record being built that clients receive: `record_part`
 * is &record->disk_info (USB and SCSI attributes, `removable`) and `label_part` is
 * &record->part_info (`size_mib`). Each returns 0, or -1 when an argument is null or the path is
 * not an existing directory, in which case nothing is read. An attribute that is missing or
 * unreadable leaves its field as it was; an attribute is read as at most 255 bytes with its
 * final newline dropped.
 */

/* "serial", "manufacturer", "product" as text; "idVendor" and "idProduct" as hexadecimal, each
 * kept only when it converts; "speed" as decimal Mbit/s ("1.5" gives 1), 0 when it does not
 * convert, unchanged when the file is empty. */
int get_sysusbdata(const char *usb_path, sddb_disk_info *record_part);

/* "vendor" and "model" as text. */
int get_sysscsidata(const char *scsi_path, sddb_disk_info *record_part);

/* "removable": sets `removable` to 1 when above 0 (never clears it); "size" in 512-byte
 * sectors: `size_mib` (low 32 bits of sectors / 2048). */
int get_sysblockdata(const char *block_path, sddb_disk_info *record_part,
                     sddb_part_info *label_part);

/* Reads the file whose path is formatted from `path_format` into `buffer` with one read of at
 * most size - 1 bytes, NUL-terminates it and turns a final newline into NUL; the number of bytes
 * read (the newline counted), 0 with "" for an empty file. -1, with `buffer` untouched, for a
 * null argument, a size of 0, no memory, a failed format or a file that cannot be opened or
 * read. */
int ktread_filef(char *buffer, size_t size, const char *path_format, ...) SYSFS_PRINTF(3, 4);

#ifdef __cplusplus
}
#endif

#endif
