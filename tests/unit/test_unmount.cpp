// Tests of the dirty-page guard's readings and the unmount walks, on loop devices in the sandbox.
#include "lib/kt_internal.h"
#include "mount/fsmount.h"
#include "mount/unmount.h"
#include "tests/helpers/scratch.h"

#include <linux/loop.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>

using namespace kt_test;

struct Unmount : ::testing::Test {
    scratch_dir dir;
    hotplugd_settings settings{};
    drive_letter_table letters{};
    mount_thread_ctx ctx{};
    ktipc *client = nullptr;
    std::string meminfo = dir / "meminfo";
    std::vector<int> loops; // attached here, detached and removed again
    double settle = 0;      // seconds between the last two calls of the platform script

    void SetUp() override {
        KT_NEEDS_SANDBOX("it binds /proc/meminfo and mounts");
        std::tie(ctx.settings, ctx.devices, ctx.drive_letter_table, ctx.ipc) =
            std::make_tuple(&settings, sddb_initialize(), &letters, ktipc_create(nullptr, 0));
        client = ktipc_create_clientipc(getpid(), KTIPC_REMOVE_STALE);
        ASSERT_TRUE(write_file("/var/etc/kelto/hotplug_kill.sh",
                               "#!/bin/sh\necho \"$* $(date +%s.%N)\" >>/tmp/kill.log\n") &&
                    chmod("/var/etc/kelto/hotplug_kill.sh", 0755) == 0);
        ASSERT_TRUE(write_file(meminfo, "Dirty: 0 kB\n") &&
                    mount(meminfo.c_str(), "/proc/meminfo", nullptr, MS_BIND, nullptr) == 0 &&
                    (mkdir("/tmp/dev", 0755) == 0 || errno == EEXIST));
    }

    void TearDown() override {
        umount("/proc/meminfo");
        run("umount -q /tmp/share/* 2>/dev/null; rm -f /tmp/dev/*");
        kt::unique_fd control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
        for (int n : loops)
            if (run("losetup -d /dev/loop" + std::to_string(n)))
                ioctl(control.get(), LOOP_CTL_REMOVE, n);
        ktipc_close(client);
        ktipc_close(ctx.ipc);
        sddb_free(ctx.devices);
    }

    // An ext2 image as partition p of sdc (/dev/loop(32 + p)), in the database, at /tmp/share/C<p>.
    void plug(int partition) {
        const std::string p = std::to_string(partition), image = dir / ("p" + p);
        ASSERT_TRUE(run("truncate -s 8M " + image + " && mke2fs -q -F -I 128 " + image +
                        " && losetup /dev/loop" + std::to_string(32 + partition) + " " + image))
            << "no loop device (root is needed)";
        loops.push_back(32 + partition);
        sddb_record r{};
        put(r.node_name, "sdc" + p);
        put(r.node_path, "/tmp/dev/sdc" + p);
        put(r.mount_point, "/tmp/share/C" + p);
        r.part_info.fs_type = 33;
        ASSERT_TRUE(mknod(r.node_path, S_IFBLK, makedev(7, 32 + partition)) == 0 &&
                    mount_partition(&ctx, &r, 0) == 0 && sddb_insert(ctx.devices->list, &r) == 0);
    }

    mntmg_record unmount_request(uint16_t minor) {
        mntmg_record r{};
        std::tie(r.kind, r.minor, r.reply_addr, r.reply_addr_len) =
            std::make_tuple(MNTMG_KIND_UNMOUNT, minor, client->addr, sizeof client->addr);
        return r;
    }

    // The reply waiting for the client: its first word (the rest is zero), or -1 when none came.
    int reply() {
        int32_t buf[64] = {};
        int n = ktipc_receive(client, buf, sizeof buf, 0, nullptr, nullptr);
        EXPECT_TRUE(n == 0 || (n == REPLY_SIZE && std::count(buf + 1, buf + 64, 0) == 63)) << n;
        return n == 0 ? -1 : buf[0];
    }

    // The script's calls since the last look (sscanf: libstdc++'s streams need glibc, not musl).
    std::string kill_calls() {
        std::string log = read_file("/tmp/kill.log"), calls;
        unlink("/tmp/kill.log");
        char verb[16], arg[16];
        double at = 0, last = 0;
        for (const char *line = log.c_str();
             std::sscanf(line, "%15s %15s %lf\n", verb, arg, &at) == 3 && std::strchr(line, '\n');
             line = std::strchr(line, '\n') + 1, settle = at - last, last = at)
            calls += std::string(verb) + " " + arg + "; ";
        return calls;
    }
};

TEST_F(Unmount, DirtyPagesAsMeminfoSaysThem) {
    const std::pair<std::string, int> cases[] = {
        {"MemTotal:  61440 kB\nDirty: 99999999999\n", 1}, // the unit is not looked at
        {"Dirty: -3 kB\n", 0},
        {"MemTotal:  61440 kB\nDirty:", 0},
        {std::string(1020, ' ') + "\nDirty: 4 kB\n", 0}}; // beyond the one read
    for (const auto &[text, dirty] : cases) {
        ASSERT_TRUE(write_file(meminfo, text));
        EXPECT_EQ(dirty_pages_exist(), dirty) << text;
    }
    ASSERT_NO_FATAL_FAILURE(plug(1));
    const std::string stat = read_file("/sys/block/loop33/stat");
    EXPECT_EQ(capture_stdout([] { EXPECT_EQ(disk_has_requests_in_flight("loop33"), 0); }),
              stat + "data[8] 0\n");
    for (const char *disk : {"nosuchdisk", "../loop33", static_cast<const char *>(nullptr)})
        EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(disk_has_requests_in_flight(disk), 0); }), "");
}

// sdc3 (second of sdc2, sdc3, sdc1 in the database) is held in another namespace, so umount(2)
// and a lazy detach fail (EINVAL): sdc2 goes, the walk stops before sdc1, settles 0.49 s, and
// mounts sdc2 again (the others are only marked).
TEST_F(Unmount, WalkStopsAtAPartitionThatStaysMounted) {
    for (int partition : {1, 2, 3})
        ASSERT_NO_FATAL_FAILURE(plug(partition));
    sddb_record *first = sddb_record_at(ctx.devices->list->list->next->next);
    ASSERT_TRUE(std::strcmp(first->node_name, "sdc3") == 0 && umount_partition(first, 1) == 0);
    const std::string node = first->node_path;
    pid_t holder = start_holder([&] {
        return unshare(CLONE_NEWNS) == 0 &&
               mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
               mkdir("/tmp/held", 0700) == 0 && mount_ext2(node.c_str(), "/tmp/held") == 0;
    });
    ASSERT_GT(holder, 0);
    put(first->mount_point, "/proc/" + std::to_string(holder) + "/root/tmp/held");
    first->part_info.mounted = 1;

    const mntmg_record request = unmount_request(32);
    std::string out = capture_stdout([&] { EXPECT_EQ(umount_disk(&ctx, &request, 1), 0); });
    EXPECT_EQ(out, "dirty page cleared\numount sdc2\nmount sdc2\nmount sdc3\nmount sdc1\n");
    EXPECT_EQ(kill_calls(), "stop 0; start 0; ");
    EXPECT_NEAR(settle, 0.49 + 0.15, 0.15);
    EXPECT_EQ(reply(), REPLY_REFUSED);
    EXPECT_TRUE(first->part_info.mounted == 1 && is_mounted_at("/tmp/dev/sdc2", "/tmp/share/C2"));

    // At stop there is no reply switch: no re-mount and no reply after the failure.
    out = capture_stdout([&] { EXPECT_EQ(umount_disk(&ctx, &request, 0), 0); });
    EXPECT_EQ(out, "dirty page cleared\numount sdc2\n");
    EXPECT_EQ(kill_calls(), "stop 0; start 0; ");
    EXPECT_TRUE(reply() == -1 && !is_mounted_at("/tmp/dev/sdc2", "/tmp/share/C2") &&
                is_mounted_at("/tmp/dev/sdc1", "/tmp/share/C1"));
    stop_holder(holder);
}

// Bad selections, a database that cannot be locked, garbage reply addresses: nothing done amiss.
TEST_F(Unmount, NothingIsDoneOrAnsweredAmiss) {
    const mntmg_record bad = unmount_request(27 * 16);
    EXPECT_TRUE(umount_disk(&ctx, &bad, 1) == -1 && mount_disk(&ctx, &bad, 1) == -1);
    sddb *devices = std::exchange(ctx.devices, nullptr);
    const mntmg_record all = unmount_request(MNTMG_ALL_DEVICES);
    capture_stdout([&] { EXPECT_EQ(umount_disk(&ctx, &all, 1), -1); });
    EXPECT_TRUE(mount_disk(&ctx, &all, 1) == -1 && hotplug_remove(&ctx, &all) == -1);
    ctx.devices = devices;
    EXPECT_EQ(kill_calls(), "stop 0; ") << "bad selections call nothing";
    EXPECT_EQ(reply(), -1);
    mntmg_record absent = unmount_request(3 * 16);
    EXPECT_TRUE(mount_disk(&ctx, &absent, 1) == 0 && reply() == REPLY_REFUSED); // nothing mounted
    absent.reply_addr_len = 5000; // neither this nor a dead address gets a reply
    EXPECT_EQ(mount_disk(&ctx, &absent, 1), 0);
    put(absent.reply_addr.sun_path, "/tmp/ktipc/nobody.sock");
    absent.reply_addr_len = sizeof absent.reply_addr;
    EXPECT_TRUE(mount_disk(&ctx, &absent, 1) == 0 && reply() == -1);
    EXPECT_EQ(mark_devices_valid(nullptr), -1);
}
