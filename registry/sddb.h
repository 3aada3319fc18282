/* sddb: the storage device database, one record per partition or disk in service, and its names. */
#ifndef REGISTRY_SDDB_H
#define REGISTRY_SDDB_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "lib/ktmnglist.h"
#include "registry/records.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Copies of sddb_record in the order clients are shown them; `mutex` guards the list, every
 * record in it and `changes`, which each sddb_unlock counts up so that readers may keep what they
 * built from the list until it moves on. */
typedef struct sddb {
    pthread_mutex_t mutex;
    ktmnglist *list;
    uint32_t changes;
} sddb;

/* New empty database, or 0 when its lock or list cannot be made. */
sddb *sddb_initialize(void);

/* Frees every record, the list and the database. Null is ignored. No thread may use it any more. */
void sddb_free(sddb *db);

/* Takes the lock and returns the list, whose records (ktmngiterator_get_ptr) may then be read and
 * changed in place until sddb_unlock; 0 for null or a lock failure (nothing is held then). */
ktmnglist *sddb_lock(sddb *db);

/* Releases the lock taken by sddb_lock, counting a change; no record pointer may be used
 * afterwards. Null is ignored. */
void sddb_unlock(sddb *db);

/* As sddb_unlock, for a holder that changed nothing but the sizes of records: counts no change. */
void sddb_unlock_unchanged(sddb *db);

/* With the lock held: the record at `node`, to read or change in place, or 0 when the node
 * holds no whole record (the list is open to every holder of the lock). */
sddb_record *sddb_record_at(ktmngiterator node);

/* With the lock held: inserts a copy of `record` by its node_name in the order clients see:
 * just before the first entry of the same name; otherwise one place before where sorting would
 * put it (before the first entry when that one is greater, second to last when none is greater
 * or equal, first into an empty list). 0, or -1 for a null argument or no memory. */
int sddb_insert(ktmnglist *list, const sddb_record *record);

/* Called on each removed record just before it is erased, with the context given to sddb_remove. */
typedef void (*sddb_remove_fn)(sddb_record *record, void *context);

/* With the lock held: erases every record whose node_name is exactly `node_name` ("sdb" does not
 * match "sdb1"), calling `before_erase` (may be 0) on each first, so the caller can unmount it
 * and run its hooks; the callback must not change the list. The number erased, or -1 for a null
 * list or name. */
int sddb_remove(ktmnglist *list, const char *node_name, sddb_remove_fn before_erase, void *context);

/* Kernel name of `minor` (disk index * 16 + partition): "sdb1", or "sdb" for partition 0. 0, or
 * -1 when `out` is null or shorter than 6 bytes or the disk lies beyond 'sdz' (416 included). */
int get_sdname(uint32_t minor, char *out, size_t out_size);

/* Refreshes size_mib and used_mib of a mounted record from statfs of its mount point; 0, or -1
 * (record null or not mounted, statfs failed) leaving both as they were. */
int get_sdsize(sddb_record *record);

#ifdef __cplusplus
}
#endif

#endif
