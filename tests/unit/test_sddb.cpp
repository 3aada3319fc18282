// Tests of the device database: its insertion order, removal by name, kernel names and sizes.
#include "registry/sddb.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>

namespace {

// Disks by letter: the records of `before` ("ab": sda1, sdb1) appended as they stand, then those
// of `inserted` by the rule; the order, inserted ones in capitals. Single-threaded: no lock.
std::string order_after(const std::string &before, const std::string &inserted) {
    sddb *db = sddb_initialize();
    ktmnglist *l = db->list;
    std::string all = before + inserted, order;
    for (size_t i = 0; i < all.size(); ++i) {
        sddb_record r{};
        r.valid = i >= before.size();
        std::snprintf(r.node_name, sizeof r.node_name, "sd%c1", all[i]);
        EXPECT_EQ(r.valid ? sddb_insert(l, &r) : !ktmnglist_insert(l, l->list, &r, sizeof r), 0);
    }
    for (ktmngiterator it = l->list->next; it != l->list; it = it->next)
        order += sddb_record_at(it)->node_name[2] ^ (sddb_record_at(it)->valid << 5);
    sddb_free(db);
    return order;
}

TEST(Database, InsertionIsOnePlaceOffSorted) {
    EXPECT_EQ(order_after("ab", "c"), "aCb");
    EXPECT_EQ(order_after("bc", "a"), "Abc");
    EXPECT_EQ(order_after("abd", "c"), "aCbd");
    EXPECT_EQ(order_after("abc", "b"), "aBbc");
    EXPECT_EQ(order_after("", "abcd"), "BCDA");
}

TEST(Database, RemoveTakesEveryExactMatchAndNullsFail) {
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
    EXPECT_EQ(sddb_remove(list, "sdb1", note, &seen), 2);
    EXPECT_EQ(seen, 2) << "called on each before it goes";
    EXPECT_EQ(sddb_remove(list, "sdb", nullptr, nullptr), 1);
    EXPECT_EQ(sddb_remove(list, "sdb10", nullptr, nullptr), 1);
    EXPECT_EQ(ktmnglist_length(list), 2u);
    sddb_unlock(db);
    EXPECT_TRUE(sddb_insert(nullptr, &r) == -1 && sddb_insert(list, nullptr) == -1 &&
                sddb_remove(nullptr, "sdb", nullptr, nullptr) == -1 &&
                sddb_remove(list, nullptr, nullptr, nullptr) == -1 && !sddb_lock(nullptr) &&
                get_sdsize(nullptr) == -1 && get_sdname(17, nullptr, 8) == -1);
    sddb_free(db);
    sddb_free(nullptr);
    sddb_unlock(nullptr);
}

TEST(Database, KernelNamesAndSizes) {
    const std::tuple<uint32_t, size_t, const char *> cases[] = {
        {17, 8, "sdb1"},   {16, 8, "sdb"}, {0x10011, 8, "sdb1"},
        {415, 6, "sdz15"}, {416, 8, ""},   {17, 5, ""}};
    for (auto [minor, size, name] : cases) {
        char out[8] = "";
        EXPECT_EQ(get_sdname(minor, out, size), *name != '\0' ? 0 : -1) << minor;
        EXPECT_STREQ(out, name);
    }
    // Only a mounted record whose mount point is a terminated path is measured.
    sddb_record r{};
    std::memset(r.mount_point, '/', sizeof r.mount_point);
    EXPECT_EQ(get_sdsize(&r), -1) << "not mounted";
    r.part_info.mounted = 1;
    EXPECT_EQ(get_sdsize(&r), -1) << "unterminated";
}

} // namespace
