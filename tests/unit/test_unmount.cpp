// Tests of safe removal with the dirty-page guard, re-mounting, hotplug removal and the mark, on
// real loop devices in the sandbox, with replies received on a real client channel.
#include "mount/unmount.h"

#include "engine_fixture.h"
#include "tests/helpers/holder.h"

#include <gtest/gtest.h>

#include <chrono>
#include <sched.h>
#include <sys/mount.h>

namespace {

using kt_test::put;
using kt_test::read_file;
using kt_test::write_file;

constexpr char kill_log[] = "/tmp/kill.log";

// Disk 'sdc', so that it can run beside the mount tests (on 'sdb').
struct Unmount : kt_test::Engine {
    Unmount() : Engine(2) {}

    ktipc *client = nullptr;
    std::string meminfo;

    void SetUp() override {
        Engine::SetUp();
        if (IsSkipped())
            return;
        // The platform script records its calls with the time they came.
        ASSERT_TRUE(write_file("/var/etc/kelto/hotplug_kill.sh",
                               "#!/bin/sh\necho \"$* $(date +%s.%N)\" >> " + std::string(kill_log) +
                                   "\n") &&
                    chmod("/var/etc/kelto/hotplug_kill.sh", 0755) == 0);
        // /proc/meminfo as the test writes it, in this namespace only.
        meminfo = dir / "meminfo";
        ASSERT_TRUE(write_file(meminfo, "Dirty:               0 kB\n"));
        ASSERT_EQ(mount(meminfo.c_str(), "/proc/meminfo", nullptr, MS_BIND, nullptr), 0);
        ctx.ipc = ktipc_create(nullptr, 0);
        client = ktipc_create_clientipc(getpid(), KTIPC_REMOVE_STALE);
        ASSERT_NE(client, nullptr);
    }

    void TearDown() override {
        umount("/proc/meminfo");
        ktipc_close(client);
        ktipc_close(ctx.ipc);
        Engine::TearDown();
    }

    void dirty(const std::string &kb) {
        ASSERT_TRUE(write_file(meminfo, "Dirty: " + kb + " kB\n"));
    }

    // A client request of `kind` for `minor`, answered on the test's channel.
    mntmg_record client_request(int kind, uint16_t minor) {
        mntmg_record request{};
        request.kind = kind;
        request.minor = minor;
        request.reply_addr = client->addr;
        request.reply_addr_len = sizeof client->addr;
        return request;
    }

    // The reply waiting on the client channel: its first word, or -1 when none came.
    int reply() {
        char buf[256] = {};
        int n = ktipc_receive(client, buf, sizeof buf, 0, nullptr, nullptr);
        if (n == 0)
            return -1;
        EXPECT_EQ(n, REPLY_SIZE);
        for (int i = 4; i < n; ++i)
            EXPECT_EQ(buf[i], 0) << "byte " << i;
        int32_t result;
        std::memcpy(&result, buf, sizeof result);
        return result;
    }

    // The script's calls since the last look, and the seconds from "stop 0" to "start 0".
    std::string kill_calls(double *stop_to_start = nullptr) {
        std::istringstream log(read_file(kill_log));
        unlink(kill_log);
        std::string calls, verb, arg;
        double at = 0, stopped = 0;
        while (log >> verb >> arg >> at) {
            calls += verb + " " + arg + "; ";
            if (verb + arg == "stop0")
                stopped = at;
            if (verb == "start" && stop_to_start != nullptr)
                *stop_to_start = at - stopped;
        }
        return calls;
    }

    // Partitions 1 (ext2) and 2 (ext3) of the disk plugged in and mounted by hotplug mount.
    void plug_two() {
        KT_REQUIRE(!plug_ext2(1).empty() &&
                       !plug(2, "truncate -s 8M IMG && mke2fs -q -F -I 128 -t ext3 IMG").empty(),
                   "no loop devices");
        for (int p : {1, 2}) {
            const mntmg_record request = add_request(p);
            kt_test::capture_stdout([&] { ASSERT_EQ(hotplug_mount(&ctx, &request), 0); });
        }
        unlink(kt_test::hook_log);
    }

    bool mounted(int partition) {
        sddb_record r = find(disk() + std::to_string(partition));
        return r.part_info.mounted != 0 && is_mounted_at(r.node_path, r.mount_point);
    }
};

TEST_F(Unmount, DirtyPagesAsMeminfoSaysThem) {
    const struct {
        std::string text;
        int dirty;
    } cases[] = {
        {"MemTotal:  61440 kB\nDirty:               4 kB\nWriteback: 0 kB\n", 1},
        {"Dirty:               0 kB\n", 0},
        {"Dirty: 7\n", 1}, // the unit is not looked at
        {"Dirty: 99999999999 kB\n", 1},
        {"Dirty: -3 kB\n", 0},
        {"MemTotal:  61440 kB\n", 0},
        {"MemTotal:  61440 kB\nDirty:", 0}, // cut short
        {"", 0},
        {std::string(1020, ' ') + "\nDirty: 4 kB\n", 0}, // beyond the one read
    };
    for (const auto &c : cases) {
        ASSERT_TRUE(write_file(meminfo, c.text));
        EXPECT_EQ(dirty_pages_exist(), c.dirty) << c.text;
    }
    // The real file, after a real sync: the answer is what it says (unless it changes meanwhile).
    ASSERT_EQ(umount("/proc/meminfo"), 0);
    auto says_dirty = [] {
        const std::string text = read_file("/proc/meminfo");
        return std::stoll(text.substr(text.find("Dirty:") + 6)) > 0;
    };
    sync();
    bool before = says_dirty();
    int answer = dirty_pages_exist();
    if (says_dirty() == before) {
        EXPECT_EQ(answer, before ? 1 : 0);
    }
    ASSERT_EQ(mount(meminfo.c_str(), "/proc/meminfo", nullptr, MS_BIND, nullptr), 0);

    // The per-disk test, on a real block device's statistics.
    KT_REQUIRE(!plug_ext2(3).empty(), "no loop device");
    const std::string loop = "loop" + std::to_string(disk_minor + 3);
    std::string out =
        kt_test::capture_stdout([&] { EXPECT_EQ(disk_has_requests_in_flight(loop.c_str()), 0); });
    EXPECT_EQ(out, read_file("/sys/block/" + loop + "/stat") + "data[8] 0\n");
    out = kt_test::capture_stdout([&] {
        EXPECT_EQ(disk_has_requests_in_flight("nosuchdisk"), 0);
        EXPECT_EQ(disk_has_requests_in_flight("../loop0"), 0);
        EXPECT_EQ(disk_has_requests_in_flight(nullptr), 0);
    });
    EXPECT_EQ(out, "");
}

// A client's safe removal and mount of a disk with two mounted partitions, through every path:
// refused while dirty, done, the walk failing on a partition that can be neither unmounted nor
// detached, a database that cannot be locked, bad selections and bad reply addresses.
TEST_F(Unmount, SafeRemovalAndRemount) {
    plug_two();
    const uint16_t whole = static_cast<uint16_t>(disk_minor);
    const std::string d = disk();
    mntmg_record unmount = client_request(MNTMG_KIND_UNMOUNT, whole);
    std::string out;

    // Dirty pages: refused, and answered even without the reply switch (as at stop).
    dirty("4");
    out = kt_test::capture_stdout([&] { EXPECT_EQ(umount_disk(&ctx, &unmount, 0), -1); });
    EXPECT_EQ(out, "dirty page exists\ndirty page exists, unmount denied\n");
    EXPECT_EQ(kill_calls(), "stop 1; ");
    EXPECT_EQ(reply(), REPLY_REFUSED);
    EXPECT_TRUE(mounted(1) && mounted(2));

    dirty("0");
    double settle = -1;
    out = kt_test::capture_stdout([&] { EXPECT_EQ(umount_disk(&ctx, &unmount, 1), 0); });
    // In database order, which has 2 first (one place off a sorted insert, as clients see it).
    EXPECT_EQ(out, "dirty page cleared\numount " + d + "2\numount " + d + "1\n");
    EXPECT_EQ(kill_calls(&settle), "stop 0; start 0; ");
    EXPECT_LT(settle, 0.3);
    EXPECT_EQ(reply(), REPLY_DONE);
    EXPECT_FALSE(mounted(1) || mounted(2));
    EXPECT_EQ(ktmnglist_length(ctx.devices->list), 2u) << "the records stay";

    mntmg_record mount_request = client_request(MNTMG_KIND_MOUNT, whole);
    out = kt_test::capture_stdout([&] { EXPECT_EQ(mount_disk(&ctx, &mount_request, 1), 0); });
    EXPECT_EQ(out, "mount " + d + "2\nmount " + d + "1\n");
    EXPECT_EQ(reply(), REPLY_DONE);
    EXPECT_TRUE(mounted(1) && mounted(2));
    EXPECT_EQ(kt_test::mount_options(find(d + "1").mount_point), "rw");

    // Partition 1, the second in the walk, held by another mount namespace, its mount point
    // reached through that namespace's root: from here umount(2) and a lazy detach both fail
    // (EINVAL), as they would for a file system the kernel cannot let go of.
    sddb_record first = find(d + "1");
    ASSERT_EQ(umount_partition(&first, 1), 0);
    const std::string node = first.node_path;
    pid_t holder = kt_test::start_holder([&] {
        return unshare(CLONE_NEWNS) == 0 &&
               mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
               mkdir("/tmp/held", 0700) == 0 && mount_ext2(node.c_str(), "/tmp/held") == 0;
    });
    ASSERT_GT(holder, 0);
    const std::string held = "/proc/" + std::to_string(holder) + "/root/tmp/held";
    ktmnglist *list = sddb_lock(ctx.devices);
    for (ktmngiterator it = list->list->next; it != list->list; it = it->next)
        if (sddb_record *r = sddb_record_at(it); d + "1" == r->node_name)
            put(r->mount_point, held), r->part_info.mounted = 1;
    sddb_unlock(ctx.devices);
    out = kt_test::capture_stdout([&] { EXPECT_EQ(umount_disk(&ctx, &unmount, 1), 0); });
    // Partition 2 unmounted, the walk stopped at 1; the disk mounted again "read-only by
    // remount", where ext3 mounts read-write as ever and 1, still mounted, is only marked.
    EXPECT_EQ(out, "dirty page cleared\numount " + d + "2\nmount " + d + "2\nmount " + d + "1\n");
    EXPECT_EQ(kill_calls(&settle), "stop 0; start 0; ");
    EXPECT_GE(settle, 0.49);
    EXPECT_LT(settle, 0.49 + 0.3);
    EXPECT_EQ(reply(), REPLY_REFUSED);
    EXPECT_TRUE(mounted(2));
    EXPECT_EQ(find(d + "1").part_info.mounted, 1u);
    kt_test::stop_holder(holder);

    // "all" selects every record, whatever its disk; a record whose mount point is gone counts
    // as unmounted.
    sddb_record other{};
    put(other.node_name, "sdq1");
    put(other.mount_point, "/tmp/share/gone");
    other.part_info.mounted = 1;
    list = sddb_lock(ctx.devices);
    sddb_insert(list, &other);
    sddb_unlock(ctx.devices);
    mntmg_record all = client_request(MNTMG_KIND_UNMOUNT, MNTMG_ALL_DEVICES);
    out = kt_test::capture_stdout([&] { EXPECT_EQ(umount_disk(&ctx, &all, 1), 0); });
    EXPECT_EQ(out, "dirty page cleared\numount " + d + "2\numount sdq1\numount " + d + "1\n");
    EXPECT_EQ(kill_calls(), "stop 0; start 0; ");
    EXPECT_EQ(reply(), REPLY_DONE);

    // A disk without records cannot be mounted; a disk beyond the table is not even looked at.
    mntmg_record absent = client_request(MNTMG_KIND_MOUNT, 3 * 16);
    EXPECT_EQ(mount_disk(&ctx, &absent, 1), 0);
    EXPECT_EQ(reply(), REPLY_REFUSED);
    for (uint16_t beyond : {27 * 16, 0xffff}) {
        mntmg_record bad = client_request(MNTMG_KIND_UNMOUNT, beyond);
        EXPECT_EQ(umount_disk(&ctx, &bad, 1), -1);
        EXPECT_EQ(mount_disk(&ctx, &bad, 1), -1);
    }
    EXPECT_EQ(kill_calls(), "");
    EXPECT_EQ(reply(), -1);

    // Reply addresses that are garbage or name no socket: nothing is sent, nothing breaks.
    mntmg_record garbage = absent;
    garbage.reply_addr_len = 5000;
    EXPECT_EQ(mount_disk(&ctx, &garbage, 1), 0);
    put(garbage.reply_addr.sun_path, "/tmp/ktipc/nobody.sock");
    garbage.reply_addr_len = sizeof garbage.reply_addr;
    EXPECT_EQ(mount_disk(&ctx, &garbage, 1), 0);
    EXPECT_EQ(reply(), -1);

    // A database that cannot be locked: "stop 0" has run, nothing follows, no reply.
    sddb *devices = ctx.devices;
    ctx.devices = nullptr;
    kt_test::capture_stdout([&] { EXPECT_EQ(umount_disk(&ctx, &unmount, 1), -1); });
    ctx.devices = devices;
    EXPECT_EQ(kill_calls(), "stop 0; ");
    EXPECT_EQ(reply(), -1);
    EXPECT_EQ(umount_disk(nullptr, &unmount, 1), -1);
    EXPECT_EQ(umount_disk(&ctx, nullptr, 1), -1);
}

// The stick pulled while a file on partition 1 is open: the record (and its twin) goes, the busy
// mount point is detached, the node deleted, the letter freed; partition 2 stays. No guard.
TEST_F(Unmount, HotplugRemovalOfABusyPartition) {
    plug_two();
    const std::string d = disk(), first = d + "1";
    sddb_record twin = find(first);
    ktmnglist *list = sddb_lock(ctx.devices);
    sddb_insert(list, &twin);
    sddb_unlock(ctx.devices);
    const sddb_record before = find(first);
    int open_file =
        open((std::string(before.mount_point) + "/open").c_str(), O_CREAT | O_WRONLY, 0600);
    ASSERT_GE(open_file, 0);
    ctx.fixed_drive = 1;
    letters.owner[0][0] = static_cast<uint32_t>(before.disk_index + 1);
    letters.partition_mask[0][0] = 1u << 1;
    dirty("4"); // a removal is never refused

    mntmg_record removed = add_request(1);
    removed.kind = MNTMG_KIND_REMOVE;
    std::string out =
        kt_test::capture_stdout([&] { EXPECT_EQ(hotplug_remove(&ctx, &removed), 0); });
    const std::string script = "cmd sh /etc/scripts/usbmount_helper.sh remove " + d + " 1\n";
    EXPECT_EQ(out, script + "hotplug umount " + first + "\n" + script + "hotplug umount " + first +
                       "\n");
    EXPECT_EQ(find(first).node_name[0], '\0');
    EXPECT_EQ(ktmnglist_length(ctx.devices->list), 1u);
    EXPECT_TRUE(mounted(2));
    EXPECT_EQ(kt_test::mount_options(before.mount_point), "");
    EXPECT_NE(access(before.node_path, F_OK), 0);
    EXPECT_EQ(letters.owner[0][0], 0u);
    EXPECT_EQ(letters.partition_mask[0][0], 0u);
    EXPECT_EQ(read_file(kill_log), "");
    EXPECT_EQ(read_file(kt_test::hook_log),
              "remove " + d + " 1||en_US.UTF-8|C|/tmp/share|/tmp/dev\n" + "remove " + d +
                  " 1||en_US.UTF-8|C|/tmp/share|/tmp/dev\n");
    close(open_file);

    mntmg_record unnamed = removed;
    unnamed.minor = MNTMG_ALL_DEVICES;
    EXPECT_EQ(hotplug_remove(&ctx, &unnamed), -1);
    EXPECT_EQ(hotplug_remove(nullptr, &removed), -1);

    // The post-batch mark: a second, then every record is shown to clients.
    ASSERT_EQ(find(d + "2").valid, 0u);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(mark_devices_valid(ctx.devices), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(find(d + "2").valid, 1u);
    EXPECT_EQ(mark_devices_valid(nullptr), -1);
}

} // namespace
