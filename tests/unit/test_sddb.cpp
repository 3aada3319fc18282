// Tests of the device database: its order, removal by name, kernel names and real sizes.
#include "registry/sddb.h"

#include "loop_device.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using Names = std::vector<std::string>;

sddb_record device(const std::string &name, uint32_t slot = 0) {
    sddb_record r;
    std::memset(&r, 0, sizeof r);
    std::snprintf(r.node_name, sizeof r.node_name, "%s", name.c_str());
    r.drive_slot = slot;
    return r;
}

// The tests run on one thread and use the list without its lock.
struct DatabaseTest : ::testing::Test {
    sddb *db = sddb_initialize();
    ~DatabaseTest() override { sddb_free(db); }

    // Appends records in the given order, bypassing the insertion rule; slots count from 1.
    void fill(const Names &names, bool numbered = false) {
        uint32_t slot = 1;
        for (const std::string &name : names) {
            sddb_record r = device(name, numbered ? slot++ : 0);
            ktmnglist_insert(db->list, db->list->list, &r, sizeof r);
        }
    }

    // "name", or "name#slot" for a record with a slot, head first.
    Names order() const {
        Names names;
        for (ktmngiterator it = db->list->list->next; it != db->list->list; it = it->next) {
            const auto *r = static_cast<const sddb_record *>(ktmngiterator_get_ptr(it));
            names.push_back(r->node_name +
                            (r->drive_slot ? "#" + std::to_string(r->drive_slot) : ""));
        }
        return names;
    }
};

TEST_F(DatabaseTest, InsertionKeepsTheOneOffOrder) {
    // `before` is put in place as it stands, then `inserted` goes in by the rule (slot 1).
    struct Case {
        Names before, inserted, after;
    } cases[] = {
        {{"sda1", "sdb1"}, {"sdc1"}, {"sda1", "sdc1#1", "sdb1"}},
        {{"sdb1", "sdc1"}, {"sda1"}, {"sda1#1", "sdb1", "sdc1"}},
        {{"sda1", "sdb1", "sdd1"}, {"sdc1"}, {"sda1", "sdc1#1", "sdb1", "sdd1"}},
        {{"sda1", "sdb1", "sdc1"}, {"sdb1"}, {"sda1", "sdb1#1", "sdb1", "sdc1"}},
        {{"sda1", "sdb1", "sdc1"}, {"sdb"}, {"sdb#1", "sda1", "sdb1", "sdc1"}},
        // Disks plugged one after another into an empty list, as clients then list them.
        {{},
         {"sda1", "sdb1", "sdc1", "sdc2", "sdd1"},
         {"sdb1#1", "sdc1#1", "sdc2#1", "sdd1#1", "sda1#1"}},
    };
    for (const Case &c : cases) {
        ktmnglist_clear(db->list);
        fill(c.before);
        for (const std::string &name : c.inserted) {
            sddb_record r = device(name, 1);
            ASSERT_EQ(sddb_insert(db->list, &r), 0);
        }
        EXPECT_EQ(order(), c.after) << c.inserted.back();
    }
}

void note_removed(sddb_record *record, void *context) {
    static_cast<Names *>(context)->push_back(record->node_name +
                                             ("#" + std::to_string(record->drive_slot)));
}

TEST_F(DatabaseTest, RemoveTakesEveryExactMatch) {
    fill({"sdb1", "sdb", "sdb1", "sdc1", "sdb10"}, true);
    Names removed;
    EXPECT_EQ(sddb_remove(db->list, "sdb1", note_removed, &removed), 2);
    EXPECT_EQ(removed, (Names{"sdb1#1", "sdb1#3"}));
    EXPECT_EQ(sddb_remove(db->list, "sdx", note_removed, &removed), 0);
    EXPECT_EQ(sddb_remove(db->list, "sdb", nullptr, nullptr), 1) << "no callback needed";
    EXPECT_EQ(order(), (Names{"sdc1#4", "sdb10#5"}));

    // A short element put in by another holder of the lock is never read as a record.
    const char stray[4] = {'s', 'd', 'c', '1'};
    ASSERT_NE(ktmnglist_insert(db->list, db->list->list, stray, sizeof stray), nullptr);
    EXPECT_EQ(sddb_remove(db->list, "sdc1", nullptr, nullptr), 1);
    sddb_record record{};
    std::snprintf(record.node_name, sizeof record.node_name, "sdd1");
    EXPECT_EQ(sddb_insert(db->list, &record), 0);
    EXPECT_EQ(ktmnglist_length(db->list), 3u);
}

TEST_F(DatabaseTest, NullArgumentsAndUnusableRecordsFail) {
    sddb_record r = device("sdb1");
    r.part_info.size_mib = 11;
    r.part_info.used_mib = 22;
    EXPECT_EQ(sddb_insert(nullptr, &r), -1);
    EXPECT_EQ(sddb_insert(db->list, nullptr), -1);
    EXPECT_EQ(sddb_remove(nullptr, "sdb", nullptr, nullptr), -1);
    EXPECT_EQ(sddb_remove(db->list, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(get_sdname(17, nullptr, 8), -1);
    EXPECT_EQ(sddb_lock(nullptr), nullptr);
    sddb_unlock(nullptr);
    sddb_free(nullptr);

    EXPECT_EQ(get_sdsize(nullptr), -1);
    std::snprintf(r.mount_point, sizeof r.mount_point, "/");
    EXPECT_EQ(get_sdsize(&r), -1) << "not mounted";
    r.part_info.mounted = 1;
    std::snprintf(r.mount_point, sizeof r.mount_point, "/nonexistent/share/A");
    EXPECT_EQ(get_sdsize(&r), -1);
    std::memset(r.mount_point, '/', sizeof r.mount_point);
    EXPECT_EQ(get_sdsize(&r), -1) << "unterminated";
    EXPECT_EQ(r.part_info.size_mib, 11u);
    EXPECT_EQ(r.part_info.used_mib, 22u);
}

TEST(SdName, FromMinor) {
    struct Case {
        uint32_t minor;
        size_t size;
        const char *name; // null: fails
    } cases[] = {
        {17, 8, "sdb1"},   {16, 8, "sdb"},    {0, 8, "sda"},   {15, 8, "sda15"}, {400, 8, "sdz"},
        {415, 6, "sdz15"}, {416, 8, nullptr}, {17, 6, "sdb1"}, {17, 5, nullptr},
    };
    for (const Case &c : cases) {
        char out[8] = "";
        EXPECT_EQ(get_sdname(c.minor, out, c.size), c.name ? 0 : -1) << c.minor << " " << c.size;
        if (c.name != nullptr) {
            EXPECT_STREQ(out, c.name);
        }
    }
}

TEST(SdSize, MountedExt2Image) {
    if (!kt_test::in_sandbox())
        GTEST_SKIP() << "needs tests/sandbox/run: it mounts a file system";
    kt_test::scratch_dir dir;
    const std::string image = dir / "disk.img", mnt = dir / "mnt";
    ASSERT_TRUE(kt_test::run("truncate -s 64M " + kt_test::shell_quoted(image) +
                             " && mkfs.ext2 -q -F " + kt_test::shell_quoted(image) + " && mkdir " +
                             kt_test::shell_quoted(mnt)));
    kt_test::LoopDevice loop(image);
    KT_REQUIRE(!loop.device().empty(), "no loop device could be attached");
    kt_test::Mounted mounted(loop.device(), mnt, "ext2");
    KT_REQUIRE(mounted.ok(), "ext2 could not be mounted");

    sddb_record r = device("sdb1");
    r.part_info.mounted = 1;
    std::snprintf(r.mount_point, sizeof r.mount_point, "%s", mnt.c_str());
    ASSERT_EQ(get_sdsize(&r), 0);
    // What the host's stat(1) reports: total and free blocks, block size.
    std::string out;
    ASSERT_TRUE(kt_test::run("stat -f -c '%b %f %s' " + kt_test::shell_quoted(mnt), &out));
    uint64_t blocks = 0, free_blocks = 0, block_size = 0;
    ASSERT_TRUE(std::istringstream(out) >> blocks >> free_blocks >> block_size);
    EXPECT_EQ(r.part_info.size_mib, blocks * block_size >> 20);
    EXPECT_EQ(r.part_info.used_mib, (blocks - free_blocks) * block_size >> 20);
    EXPECT_GT(r.part_info.size_mib, 50u);
    EXPECT_LE(r.part_info.size_mib, 64u);
}

} // namespace
