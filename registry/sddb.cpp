// sddb: the device database's lock, its insertion order, removal by name, and names and sizes.
#include "registry/sddb.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/statfs.h>

namespace {

// strcmp of node names, bounded by the field so an unterminated name cannot run past it; an
// element that is no record sorts first and matches nothing.
int compare_name(ktmngiterator node, const char *name) {
    const sddb_record *record = sddb_record_at(node);
    if (record == nullptr)
        return -1;
    return std::strncmp(record->node_name, name, sizeof record->node_name);
}

// Where a record named `name` goes. Clients list disks and partitions in the database's order,
// and that order has always been one place off a sorted one: a new name goes before the entry
// that precedes the first greater one (before the first entry when that one is greater), and
// before the last entry when no entry is greater or equal. An equal name goes just before its
// twin. Keep it so: the lists clients show must not change.
ktmngiterator insert_position(ktlist *head, const char *name) {
    for (ktmngiterator node = head->next; node != head; node = node->next) {
        int order = compare_name(node, name);
        if (order >= 0)
            return order == 0 || node == head->next ? node : node->prev;
    }
    return head->prev; // the head itself when the list is empty
}

} // namespace

extern "C" {

sddb *sddb_initialize(void) {
    auto *db = static_cast<sddb *>(std::calloc(1, sizeof(sddb)));
    if (db == nullptr)
        return nullptr;
    if (pthread_mutex_init(&db->mutex, nullptr) == 0) {
        db->list = ktmnglist_create(nullptr);
        if (db->list != nullptr)
            return db;
        pthread_mutex_destroy(&db->mutex);
    }
    std::free(db);
    return nullptr;
}

void sddb_free(sddb *db) {
    if (db == nullptr)
        return;
    ktmnglist_free(db->list);
    pthread_mutex_destroy(&db->mutex);
    std::free(db);
}

ktmnglist *sddb_lock(sddb *db) {
    if (db == nullptr || pthread_mutex_lock(&db->mutex) != 0)
        return nullptr;
    return db->list;
}

void sddb_unlock(sddb *db) {
    if (db == nullptr)
        return;
    // Wraps after 2^32 changes; a reader would be misled only by a wrap exactly between two of
    // its looks.
    ++db->changes;
    pthread_mutex_unlock(&db->mutex);
}

void sddb_unlock_unchanged(sddb *db) {
    if (db != nullptr)
        pthread_mutex_unlock(&db->mutex);
}

sddb_record *sddb_record_at(ktmngiterator node) {
    const auto *elem = node != nullptr ? static_cast<const ktmnglist_elem *>(node->data) : nullptr;
    if (elem == nullptr || elem->size != sizeof(sddb_record))
        return nullptr;
    return static_cast<sddb_record *>(elem->buffer);
}

int sddb_insert(ktmnglist *list, const sddb_record *record) {
    if (list == nullptr || record == nullptr)
        return -1;
    ktmngiterator pos = insert_position(list->list, record->node_name);
    return ktmnglist_insert(list, pos, record, sizeof *record) == nullptr ? -1 : 0;
}

int sddb_remove(ktmnglist *list, const char *node_name, sddb_remove_fn before_erase,
                void *context) {
    if (list == nullptr || node_name == nullptr)
        return -1;
    ktlist *head = list->list;
    int erased = 0;
    ktmngiterator node = head->next;
    while (node != head) {
        if (compare_name(node, node_name) != 0) {
            node = node->next;
            continue;
        }
        if (before_erase != nullptr)
            before_erase(sddb_record_at(node), context);
        ktmnglist_erase(list, node);
        ++erased;
        // Every twin of the name goes too; each search starts again from the head.
        node = head->next;
    }
    return erased;
}

int get_sdname(uint32_t minor, char *out, size_t out_size) {
    if (out == nullptr || out_size < 6)
        return -1;
    unsigned disk = (minor & 0xFFFFu) / 16;
    unsigned partition = minor & 15u;
    if (disk >= 26)
        return -1;
    int len = std::snprintf(out, out_size, "sd%c%u", static_cast<int>('a' + disk), partition);
    if (len < 3)
        return -1;
    if (partition == 0)
        out[3] = '\0';
    return 0;
}

int get_sdsize(sddb_record *record) {
    if (record == nullptr || record->part_info.mounted == 0 ||
        std::memchr(record->mount_point, '\0', sizeof record->mount_point) == nullptr)
        return -1;
    struct statfs fs;
    if (statfs(record->mount_point, &fs) != 0)
        return -1;
    const uint64_t block_size = static_cast<uint64_t>(fs.f_bsize);
    const uint64_t blocks = fs.f_blocks;
    const uint64_t used = blocks - fs.f_bfree;
    // Sizes past 4 PiB wrap: the field clients read is 32 bits wide.
    record->part_info.size_mib = static_cast<uint32_t>(blocks * block_size >> 20);
    record->part_info.used_mib = static_cast<uint32_t>(used * block_size >> 20);
    return 0;
}

} // extern "C"
