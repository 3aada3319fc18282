/* probe_text: what the probing tools print, read from memory: disktype's lines and label text. */
#ifndef MOUNT_PROBE_TEXT_H
#define MOUNT_PROBE_TEXT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* File-system kinds of a device record's fs_type. */
enum {
    FSTYPE_UNKNOWN = 0,
    FSTYPE_PARTITION_MAP = 1, /* a partition table or an extended partition: never mounted */
    FSTYPE_FAT = 17,          /* FAT12, FAT16 or another FAT */
    FSTYPE_FAT32 = 20,
    FSTYPE_NTFS = 21,
    FSTYPE_LINUX = 32, /* partition type 0x83 and no file system named: ext2, else ext3 */
    FSTYPE_EXT2 = 33,
    FSTYPE_EXT3 = 34,
    FSTYPE_SWAP = 37 /* never mounted */
};

/* The kind found so far in disktype's output, fed one line at a time from a zeroed start. */
typedef struct probe_scan {
    int32_t kind;
    int partition_map_seen; /* nothing after a partition map counts */
    int file_system_seen;   /* only a partition map still counts */
} probe_scan;

/* Takes one line of disktype's output (without its line feed) into `scan`. Null is ignored. */
void probe_scan_line(probe_scan *scan, const char *line);

/* The volume label a label tool printed (`raw`, terminated), made fit for a share name into
 * `out`: empty unless `raw` is UTF-8; control bytes dropped; / " ' ` * \ | : ? and blank made
 * "_", [ < made "(" and ] > made ")"; cut to at most 121 bytes on a character boundary (and to
 * `out_size`). The length written, or -1 for a null argument or an `out_size` of 0. */
int probe_clean_label(const char *raw, char *out, size_t out_size);

#ifdef __cplusplus
}
#endif

#endif
