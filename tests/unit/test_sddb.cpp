// Tests of the device database: its order, removal by name, kernel names and real sizes.
#include "registry/sddb.h"

#include "loop_device.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

sddb_record device(const char *name, uint32_t tag = 0) {
    sddb_record r;
    std::memset(&r, 0, sizeof r);
    std::snprintf(r.node_name, sizeof r.node_name, "%s", name);
    r.drive_slot = tag;
    return r;
}

struct DatabaseTest : ::testing::Test {
    sddb *db = sddb_initialize();
    ~DatabaseTest() override { sddb_free(db); }

    // Fills the list in the given order, bypassing the insertion rule.
    void fill(const std::vector<std::string> &names) {
        ktmnglist *list = sddb_lock(db);
        for (const std::string &name : names) {
            sddb_record r = device(name.c_str());
            ktmnglist_insert(list, list->list, &r, sizeof r);
        }
        sddb_unlock(db);
    }

    // "name" or "name#tag" for each record, head first.
    std::vector<std::string> order() {
        std::vector<std::string> names;
        ktmnglist *list = sddb_lock(db);
        for (ktmngiterator it = list->list->next; it != list->list; it = it->next) {
            const auto *r = static_cast<const sddb_record *>(ktmngiterator_get_ptr(it));
            names.push_back(r->node_name +
                            (r->drive_slot ? "#" + std::to_string(r->drive_slot) : ""));
        }
        sddb_unlock(db);
        return names;
    }
};

TEST_F(DatabaseTest, InsertionKeepsTheOneOffOrder) {
    using Names = std::vector<std::string>;
    struct Case {
        Names before;
        const char *name;
        Names after;
    } cases[] = {
        {{}, "sdb1", {"sdb1#1"}},
        {{"sda1", "sdb1"}, "sdc1", {"sda1", "sdc1#1", "sdb1"}},
        {{"sdb1", "sdc1"}, "sda1", {"sda1#1", "sdb1", "sdc1"}},
        {{"sdb1"}, "sdc1", {"sdc1#1", "sdb1"}},
        {{"sdb1"}, "sda1", {"sda1#1", "sdb1"}},
        {{"sda1", "sdb1", "sdd1"}, "sdc1", {"sda1", "sdc1#1", "sdb1", "sdd1"}},
        {{"sda1", "sdb1", "sdc1"}, "sdb1", {"sda1", "sdb1#1", "sdb1", "sdc1"}},
        {{"sda", "sda1"}, "sda2", {"sda", "sda2#1", "sda1"}},
        {{"sda1", "sdb1", "sdc1"}, "sdb", {"sdb#1", "sda1", "sdb1", "sdc1"}},
    };
    for (const Case &c : cases) {
        fill(c.before);
        sddb_record r = device(c.name, 1);
        ktmnglist *list = sddb_lock(db);
        EXPECT_EQ(sddb_insert(list, &r), 0);
        sddb_unlock(db);
        EXPECT_EQ(order(), c.after) << c.name;
        ktmnglist_clear(sddb_lock(db));
        sddb_unlock(db);
    }
}

TEST_F(DatabaseTest, PlugOrderShowsInTheList) {
    // Disks plugged one after another, as clients then list them.
    ktmnglist *list = sddb_lock(db);
    for (const char *name : {"sda1", "sdb1", "sdc1", "sdc2", "sdd1"}) {
        sddb_record r = device(name);
        ASSERT_EQ(sddb_insert(list, &r), 0);
    }
    sddb_unlock(db);
    EXPECT_EQ(order(), (std::vector<std::string>{"sdb1", "sdc1", "sdc2", "sdd1", "sda1"}));
}

TEST_F(DatabaseTest, InsertKeepsACopy) {
    sddb_record r = device("sdb1");
    std::snprintf(r.mount_point, sizeof r.mount_point, "/tmp/share/A");
    ktmnglist *list = sddb_lock(db);
    ASSERT_EQ(sddb_insert(list, &r), 0);
    r.mount_point[0] = 'X';
    const auto *stored = static_cast<const sddb_record *>(ktmngiterator_get_ptr(list->list->next));
    EXPECT_STREQ(stored->mount_point, "/tmp/share/A");
    EXPECT_EQ(sddb_insert(nullptr, &r), -1);
    EXPECT_EQ(sddb_insert(list, nullptr), -1);
    sddb_unlock(db);
}

struct Removed {
    std::vector<std::string> names;
};

void note_removed(sddb_record *record, void *context) {
    static_cast<Removed *>(context)->names.push_back(record->node_name +
                                                     ("#" + std::to_string(record->drive_slot)));
}

TEST_F(DatabaseTest, RemoveTakesEveryExactMatch) {
    ktmnglist *list = sddb_lock(db);
    uint32_t tag = 1;
    for (const char *name : {"sdb1", "sdb", "sdb1", "sdc1", "sdb10"}) {
        sddb_record r = device(name, tag++);
        ktmnglist_insert(list, list->list, &r, sizeof r);
    }
    Removed removed;
    EXPECT_EQ(sddb_remove(list, "sdb1", note_removed, &removed), 2);
    EXPECT_EQ(removed.names, (std::vector<std::string>{"sdb1#1", "sdb1#3"}));
    EXPECT_EQ(sddb_remove(list, "sdx", note_removed, &removed), 0);
    EXPECT_EQ(sddb_remove(list, "sdb", nullptr, nullptr), 1) << "no callback needed";
    EXPECT_EQ(sddb_remove(nullptr, "sdb", nullptr, nullptr), -1);
    EXPECT_EQ(sddb_remove(list, nullptr, nullptr, nullptr), -1);
    sddb_unlock(db);
    EXPECT_EQ(order(), (std::vector<std::string>{"sdc1#4", "sdb10#5"}));
}

TEST_F(DatabaseTest, LockExcludesTheOtherThread) {
    ASSERT_EQ(sddb_lock(db), db->list);
    std::atomic<bool> entered{false};
    std::thread other([&] {
        if (sddb_lock(db) != nullptr) {
            entered = true;
            sddb_unlock(db);
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(entered);
    sddb_unlock(db);
    other.join();
    EXPECT_TRUE(entered);
    EXPECT_EQ(sddb_lock(nullptr), nullptr);
    sddb_unlock(nullptr);
    sddb_free(nullptr);
}

TEST(SdName, FromMinor) {
    struct Case {
        uint32_t minor;
        size_t size;
        const char *name; // null: fails
    } cases[] = {
        {17, 8, "sdb1"},   {16, 8, "sdb"},       {0, 8, "sda"},
        {15, 8, "sda15"},  {400, 8, "sdz"},      {415, 6, "sdz15"},
        {416, 8, nullptr}, {0xFFFF, 8, nullptr}, {0x10011, 8, "sdb1"}, // only the low 16 bits count
        {17, 5, nullptr},  {16, 5, nullptr},     {17, 6, "sdb1"},
    };
    for (const Case &c : cases) {
        char out[8] = "";
        int rc = get_sdname(c.minor, out, c.size);
        if (c.name == nullptr) {
            EXPECT_EQ(rc, -1) << c.minor << " into " << c.size;
        } else {
            EXPECT_EQ(rc, 0) << c.minor;
            EXPECT_STREQ(out, c.name);
        }
    }
    EXPECT_EQ(get_sdname(17, nullptr, 8), -1);
}

TEST(SdSize, NeedsAMountedRecordAndItsMountPoint) {
    sddb_record r = device("sdb1");
    r.part_info.size_mib = 11;
    r.part_info.used_mib = 22;
    std::snprintf(r.mount_point, sizeof r.mount_point, "/");
    EXPECT_EQ(get_sdsize(&r), -1) << "not mounted";
    r.part_info.mounted = 1;
    std::snprintf(r.mount_point, sizeof r.mount_point, "/nonexistent/share/A");
    EXPECT_EQ(get_sdsize(&r), -1);
    std::memset(r.mount_point, '/', sizeof r.mount_point);
    EXPECT_EQ(get_sdsize(&r), -1) << "unterminated";
    EXPECT_EQ(r.part_info.size_mib, 11u);
    EXPECT_EQ(r.part_info.used_mib, 22u);
    EXPECT_EQ(get_sdsize(nullptr), -1);
}

// statfs of `dir` as the host's stat(1) reports it: total and used MiB.
bool host_sizes(const std::string &dir, uint64_t *total_mib, uint64_t *used_mib) {
    std::string out;
    if (!testutil::run("stat -f -c '%b %f %s' " + testutil::shell_quoted(dir), &out))
        return false;
    std::istringstream fields(out);
    uint64_t blocks = 0, free_blocks = 0, block_size = 0;
    if (!(fields >> blocks >> free_blocks >> block_size))
        return false;
    *total_mib = blocks * block_size >> 20;
    *used_mib = (blocks - free_blocks) * block_size >> 20;
    return true;
}

TEST(SdSize, MountedExt2Image) {
    if (std::getenv("HOTPLUGD_SANDBOX") == nullptr)
        GTEST_SKIP() << "needs tests/sandbox/run: it mounts a file system";
    testutil::TempDir dir;
    const std::string image = dir / "disk.img", mnt = dir / "mnt";
    ASSERT_TRUE(testutil::run("truncate -s 64M " + testutil::shell_quoted(image) +
                              " && mkfs.ext2 -q -F " + testutil::shell_quoted(image) + " && mkdir " +
                              testutil::shell_quoted(mnt)));
    testutil::LoopDevice loop(image);
    KT_REQUIRE(!loop.device().empty(), "no loop device could be attached");
    testutil::Mounted mounted(loop.device(), mnt, "ext2");
    KT_REQUIRE(mounted.ok(), "ext2 could not be mounted");

    sddb_record r = device("sdb1");
    r.part_info.mounted = 1;
    std::snprintf(r.mount_point, sizeof r.mount_point, "%s", mnt.c_str());
    uint64_t total = 0, used = 0;
    ASSERT_EQ(get_sdsize(&r), 0);
    ASSERT_TRUE(host_sizes(mnt, &total, &used));
    EXPECT_EQ(r.part_info.size_mib, total);
    EXPECT_EQ(r.part_info.used_mib, used);
    EXPECT_GT(total, 50u);
    EXPECT_LE(total, 64u);
    const uint32_t used_before = r.part_info.used_mib;

    // Ten MiB more in use, once they have reached the disk.
    ASSERT_TRUE(testutil::run("dd if=/dev/zero of=" + testutil::shell_quoted(mnt + "/fill") +
                              " bs=1M count=10 conv=fsync status=none"));
    ASSERT_EQ(get_sdsize(&r), 0);
    ASSERT_TRUE(host_sizes(mnt, &total, &used));
    EXPECT_EQ(r.part_info.used_mib, used);
    EXPECT_GE(r.part_info.used_mib, used_before + 10);
    EXPECT_LE(r.part_info.used_mib, used_before + 11);
}

} // namespace
