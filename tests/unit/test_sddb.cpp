// Tests of the device database: its insertion order, removal by name, kernel names and sizes.
#include "registry/sddb.h"
#include "tests/helpers/scratch.h"

// Disks by letter ("ab": sda1, sdb1) appended as they stand, capitals inserted; the order after.
std::string order_after(const std::string &plugs) {
    sddb *db = sddb_initialize();
    ktmnglist *l = db->list;
    std::string order;
    for (char disk : plugs) {
        sddb_record r{};
        r.valid = disk < 'a';
        std::snprintf(r.node_name, sizeof r.node_name, "sd%c1", disk | 32);
        EXPECT_EQ(r.valid ? sddb_insert(l, &r) : !ktmnglist_insert(l, l->list, &r, sizeof r), 0);
    }
    for (ktmngiterator it = l->list->next; it != l->list; it = it->next)
        order += sddb_record_at(it)->node_name[2] ^ (sddb_record_at(it)->valid << 5);
    sddb_free(db);
    return order;
}

TEST(Database, InsertionOnePlaceOffSortedRemovalNamesAndNulls) {
    const std::pair<const char *, const char *> cases[] = {
        {"abC", "aCb"}, {"bcA", "Abc"}, {"abdC", "aCbd"}, {"abbcB", "aBbbc"}, {"ABCD", "BCDA"}};
    for (auto [plugs, order] : cases)
        EXPECT_EQ(order_after(plugs), order) << plugs;
    sddb *db = sddb_initialize();
    ktmnglist *list = sddb_lock(db);
    ASSERT_EQ(list, db->list);
    ktmnglist_insert(list, list->list, "sdb1", 5); // no whole record: never matched
    sddb_record r{};
    for (const char *name : {"sdb1", "sdb", "sdb1", "sdc1", "sdb10"}) {
        std::snprintf(r.node_name, sizeof r.node_name, "%s", name);
        ktmnglist_insert(list, list->list, &r, sizeof r);
    }
    int seen = 0;
    auto note = [](sddb_record *, void *n) { ++*static_cast<int *>(n); };
    EXPECT_TRUE(sddb_remove(list, "sdb1", note, &seen) == 2 && seen == 2) << "called on each";
    EXPECT_TRUE(sddb_remove(list, "sdb10", nullptr, nullptr) == 1 && ktmnglist_length(list) == 3);
    sddb_unlock(db);
    EXPECT_TRUE(sddb_remove(list, nullptr, nullptr, nullptr) == -1 && !sddb_lock(nullptr) &&
                get_sdsize(nullptr) == -1 && get_sdname(17, nullptr, 8) == -1);
    sddb_free(db);
    sddb_free(nullptr);
    sddb_unlock(nullptr);
    // Kernel names of identifiers (only their low 16 bits count), cut to fit or refused.
    const std::tuple<uint32_t, size_t, const char *> names[] = {
        {16, 8, "sdb"}, {0x10011, 8, "sdb1"}, {415, 6, "sdz15"}, {416, 8, ""}, {17, 5, ""}};
    for (auto [minor, size, name] : names) {
        char out[8] = "";
        EXPECT_EQ(get_sdname(minor, out, size), *name != '\0' ? 0 : -1) << minor;
        EXPECT_STREQ(out, name);
    }
    std::memset(r.mount_point, '/', sizeof r.mount_point);
    EXPECT_EQ(get_sdsize(&r), -1) << "not mounted";
    r.part_info.mounted = 1;
    EXPECT_EQ(get_sdsize(&r), -1) << "unterminated";
    kt_test::put(r.mount_point, "/nonexistent");
    EXPECT_EQ(get_sdsize(&r), -1);
    kt_test::put(r.mount_point, "/");
    EXPECT_TRUE(get_sdsize(&r) == 0 && r.part_info.size_mib > 0);
}
