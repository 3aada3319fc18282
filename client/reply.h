/* reply: hotplugd's replies to queries, checked and shown from their raw bytes (any length). */
#ifndef CLIENT_REPLY_H
#define CLIENT_REPLY_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* How the shown replies look: table rows, or JSON objects. */
enum { REPLY_TABLE = 0, REPLY_JSON = 1 };

/* A partition map (query 103): how many partitions, and which are present and mounted. */
typedef struct reply_map {
    uint32_t count;
    uint8_t present[16];
    uint8_t mounted[16];
} reply_map;

/* The disk names ("sdb") of a disk list (query 101) into `names`, each terminated; how many,
 * or -1 for a reply that is no list (not whole 8-byte entries, or more than 26) or null. */
int reply_disks(const void *reply, size_t length, char names[26][4]);

/* Shows a disk's information (query 102) for `disk`: a table row, or a JSON object whose
 * closing brace the caller writes (it may add members). 0, or -1 for a reply that is not the
 * 1,304 bytes of a disk, or a null argument. */
int reply_show_disk(FILE *out, const char *disk, const void *reply, size_t length, int how);

/* Reads a partition map (query 103): 0, or -1 for a reply that is not 36 bytes. */
int reply_read_map(const void *reply, size_t length, reply_map *map);

/* Shows partition `number`'s details (query 104): a table row, or a whole JSON object. 0, or
 * -1 for a reply that is not the 284 bytes of a partition, or a null argument. */
int reply_show_partition(FILE *out, int number, const void *reply, size_t length, int how);

/* The result of a mount or unmount command (0 done, anything else refused), or -1 for a reply
 * that is not 128 bytes. */
int reply_result(const void *reply, size_t length);

/* The tables' header lines. */
void reply_disk_header(FILE *out);
void reply_partition_header(FILE *out);

/* `length` bytes of `text` as a JSON string: quotes, backslashes and control bytes escaped,
 * and every byte of 0x80 and above too unless the whole text is UTF-8. */
void reply_json_string(FILE *out, const char *text, size_t length);

#ifdef __cplusplus
}
#endif

#endif
