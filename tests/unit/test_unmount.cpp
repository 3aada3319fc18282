// Tests of the dirty-page guard's reading, and of the unmount walk failing on a partition that
// can be neither unmounted nor detached, on real loop devices in the sandbox, with real replies.
#include "mount/fsmount.h"
#include "mount/unmount.h"

#include "tests/helpers/holder.h"
#include "tests/helpers/scratch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <vector>

namespace {

using kt_test::read_file;
using kt_test::write_file;

constexpr char kill_log[] = "/tmp/kill.log";

template <size_t N> void put(char (&field)[N], const std::string &text) {
    std::snprintf(field, N, "%s", text.c_str());
}

struct Unmount : ::testing::Test {
    kt_test::scratch_dir dir;
    hotplugd_settings settings{};
    drive_letter_table letters{};
    mount_thread_ctx ctx{};
    ktipc *client = nullptr;
    std::string meminfo = dir / "meminfo";
    std::vector<int> loops; // attached here, detached and removed again

    void SetUp() override {
        if (!kt_test::in_sandbox())
            GTEST_SKIP() << "needs scripts/sandbox/run: it binds /proc/meminfo and mounts";
        ctx.settings = &settings;
        ctx.devices = sddb_initialize();
        ctx.drive_letter_table = &letters;
        ctx.ipc = ktipc_create(nullptr, 0);
        client = ktipc_create_clientipc(getpid(), KTIPC_REMOVE_STALE);
        // The platform script records its calls and when they came.
        ASSERT_TRUE(write_file("/var/etc/kelto/hotplug_kill.sh",
                               "#!/bin/sh\necho \"$* $(date +%s.%N)\" >> " + std::string(kill_log) +
                                   "\n") &&
                    chmod("/var/etc/kelto/hotplug_kill.sh", 0755) == 0);
        // /proc/meminfo as the test writes it, in this namespace only.
        ASSERT_TRUE(write_file(meminfo, "Dirty: 0 kB\n"));
        ASSERT_EQ(mount(meminfo.c_str(), "/proc/meminfo", nullptr, MS_BIND, nullptr), 0);
        ASSERT_TRUE(mkdir("/tmp/dev", 0755) == 0 || errno == EEXIST);
    }

    void TearDown() override {
        umount("/proc/meminfo");
        kt_test::run("umount -q /tmp/share/* 2>/dev/null; rm -f /tmp/dev/*");
        for (int n : loops)
            kt_test::run("losetup -d /dev/loop" + std::to_string(n) +
                         "; python3 -c 'import fcntl, "
                         "os; fcntl.ioctl(os.open(\"/dev/loop-control\", os.O_RDWR), 0x4C81, " +
                         std::to_string(n) + ")'");
        ktipc_close(client);
        ktipc_close(ctx.ipc);
        sddb_free(ctx.devices);
    }

    // An ext2 image as partition p of 'sdc' (minor 32 + p: /dev/loop(32 + p)), in the database
    // and mounted at /tmp/share/C<p>.
    void plug(int partition) {
        const std::string image = dir / ("p" + std::to_string(partition));
        ASSERT_TRUE(kt_test::run("truncate -s 8M " + image + " && mke2fs -q -F -I 128 " + image));
        const int minor = 32 + partition;
        ASSERT_TRUE(kt_test::run("losetup /dev/loop" + std::to_string(minor) + " " + image))
            << "no loop device (root is needed)";
        loops.push_back(minor);
        sddb_record r{};
        put(r.node_name, "sdc" + std::to_string(partition));
        put(r.node_path, "/tmp/dev/sdc" + std::to_string(partition));
        put(r.mount_point, "/tmp/share/C" + std::to_string(partition));
        r.part_info.fs_type = 33;
        ASSERT_EQ(mknod(r.node_path, S_IFBLK, makedev(7, minor)), 0);
        ASSERT_EQ(mount_partition(&ctx, &r, 0), 0);
        ASSERT_EQ(sddb_insert(ctx.devices->list, &r), 0);
    }

    mntmg_record unmount_request(uint16_t minor) {
        mntmg_record request{};
        request.kind = MNTMG_KIND_UNMOUNT;
        request.minor = minor;
        request.reply_addr = client->addr;
        request.reply_addr_len = sizeof client->addr;
        return request;
    }

    // The reply waiting for the client: its first word, or -1 when none came.
    int reply() {
        char buf[256] = {};
        int n = ktipc_receive(client, buf, sizeof buf, 0, nullptr, nullptr);
        if (n == 0)
            return -1;
        EXPECT_EQ(n, REPLY_SIZE);
        EXPECT_EQ(std::string(buf + 4, REPLY_SIZE - 4), std::string(REPLY_SIZE - 4, '\0'));
        int32_t result;
        std::memcpy(&result, buf, sizeof result);
        return result;
    }

    // The script's calls since the last look, and the seconds from "stop 0" to "start 0".
    std::string kill_calls(double *settle = nullptr) {
        // sscanf, not a stream: libstdc++'s stream parsing needs glibc (the musl builds run this).
        const std::string log = read_file(kill_log);
        unlink(kill_log);
        std::string calls;
        double stopped = 0;
        for (const char *line = log.c_str(); *line != '\0'; line = std::strchr(line, '\n') + 1) {
            char verb[16], arg[16];
            double at = 0;
            if (std::sscanf(line, "%15s %15s %lf", verb, arg, &at) != 3 || !std::strchr(line, '\n'))
                break;
            calls += std::string(verb) + " " + arg + "; ";
            stopped = std::string(verb) + arg == "stop0" ? at : stopped;
            if (std::string(verb) == "start" && settle != nullptr)
                *settle = at - stopped;
        }
        return calls;
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
        {"MemTotal:  61440 kB\nDirty:", 0},
        {"", 0},
        {std::string(1020, ' ') + "\nDirty: 4 kB\n", 0}, // beyond the one read
    };
    for (const auto &c : cases) {
        ASSERT_TRUE(write_file(meminfo, c.text));
        EXPECT_EQ(dirty_pages_exist(), c.dirty) << c.text;
    }
    // The per-disk test, on a real block device's statistics.
    ASSERT_NO_FATAL_FAILURE(plug(1));
    const std::string stat = read_file("/sys/block/loop33/stat");
    std::string out =
        kt_test::capture_stdout([] { EXPECT_EQ(disk_has_requests_in_flight("loop33"), 0); });
    EXPECT_EQ(out, stat + "data[8] 0\n");
    out = kt_test::capture_stdout([] {
        EXPECT_EQ(disk_has_requests_in_flight("nosuchdisk"), 0);
        EXPECT_EQ(disk_has_requests_in_flight("../loop33"), 0);
        EXPECT_EQ(disk_has_requests_in_flight(nullptr), 0);
    });
    EXPECT_EQ(out, "");
}

// Partition 1 (second in the database's order) held by another mount namespace, its mount
// point reached through that namespace's root: from here umount(2) and a lazy detach both fail
// (EINVAL), as for a file system the kernel cannot let go of. Partition 2 is unmounted, the
// walk stops, the disk settles 0.49 s, and is mounted again, where 1 is only marked.
TEST_F(Unmount, WalkStopsAtAPartitionThatStaysMounted) {
    ASSERT_NO_FATAL_FAILURE(plug(1));
    ASSERT_NO_FATAL_FAILURE(plug(2));
    ktmnglist *list = ctx.devices->list;
    sddb_record *first = sddb_record_at(list->list->next->next);
    ASSERT_STREQ(first->node_name, "sdc1");
    ASSERT_EQ(umount_partition(first, 1), 0);
    const std::string node = first->node_path;
    pid_t holder = kt_test::start_holder([&] {
        return unshare(CLONE_NEWNS) == 0 &&
               mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
               mkdir("/tmp/held", 0700) == 0 && mount_ext2(node.c_str(), "/tmp/held") == 0;
    });
    ASSERT_GT(holder, 0);
    put(first->mount_point, "/proc/" + std::to_string(holder) + "/root/tmp/held");
    first->part_info.mounted = 1;

    const mntmg_record request = unmount_request(32);
    double settle = 0;
    std::string out =
        kt_test::capture_stdout([&] { EXPECT_EQ(umount_disk(&ctx, &request, 1), 0); });
    EXPECT_EQ(out, "dirty page cleared\numount sdc2\nmount sdc2\nmount sdc1\n");
    EXPECT_EQ(kill_calls(&settle), "stop 0; start 0; ");
    EXPECT_GE(settle, 0.49);
    EXPECT_LT(settle, 0.49 + 0.3);
    EXPECT_EQ(reply(), REPLY_REFUSED);
    EXPECT_EQ(first->part_info.mounted, 1u);
    EXPECT_TRUE(is_mounted_at("/tmp/dev/sdc2", "/tmp/share/C2"));

    // At stop there is no reply switch: no re-mount and no reply after the failure.
    out = kt_test::capture_stdout([&] { EXPECT_EQ(umount_disk(&ctx, &request, 0), 0); });
    EXPECT_EQ(out, "dirty page cleared\numount sdc2\n");
    EXPECT_EQ(kill_calls(), "stop 0; start 0; ");
    EXPECT_EQ(reply(), -1);
    EXPECT_FALSE(is_mounted_at("/tmp/dev/sdc2", "/tmp/share/C2"));
    kt_test::stop_holder(holder);
}

// What makes the walks give up before doing anything: bad selections, a database that cannot
// be locked (after "stop 0", nothing follows), reply addresses that are garbage.
TEST_F(Unmount, NothingIsDoneOrAnsweredAmiss) {
    for (uint16_t beyond : {27 * 16, 0xffff}) {
        const mntmg_record bad = unmount_request(beyond);
        EXPECT_EQ(umount_disk(&ctx, &bad, 1), -1);
        EXPECT_EQ(mount_disk(&ctx, &bad, 1), -1);
    }
    EXPECT_EQ(kill_calls(), "");
    sddb *devices = ctx.devices;
    ctx.devices = nullptr;
    const mntmg_record all = unmount_request(MNTMG_ALL_DEVICES);
    kt_test::capture_stdout([&] { EXPECT_EQ(umount_disk(&ctx, &all, 1), -1); });
    EXPECT_EQ(mount_disk(&ctx, &all, 1), -1);
    EXPECT_EQ(hotplug_remove(&ctx, &all), -1);
    ctx.devices = devices;
    EXPECT_EQ(kill_calls(), "stop 0; ");
    EXPECT_EQ(reply(), -1);
    // A disk without records cannot be mounted: refused.
    mntmg_record absent = unmount_request(3 * 16);
    EXPECT_EQ(mount_disk(&ctx, &absent, 1), 0);
    EXPECT_EQ(reply(), REPLY_REFUSED);
    absent.reply_addr_len = 5000;
    EXPECT_EQ(mount_disk(&ctx, &absent, 1), 0);
    put(absent.reply_addr.sun_path, "/tmp/ktipc/nobody.sock");
    absent.reply_addr_len = sizeof absent.reply_addr;
    EXPECT_EQ(mount_disk(&ctx, &absent, 1), 0);
    EXPECT_EQ(reply(), -1);
    EXPECT_EQ(umount_disk(nullptr, &all, 1), -1);
    EXPECT_EQ(mark_devices_valid(nullptr), -1);
}

} // namespace
