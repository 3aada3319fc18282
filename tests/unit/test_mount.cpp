// Tests of probing, mounting and the hooks on real loop devices with the real tools, in the
// sandbox.
#include "engine_fixture.h"
#include "tests/helpers/syslog_catcher.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <vector>

namespace {

using kt_test::Engine;
using kt_test::hook_log;
using kt_test::kernel_has;
using kt_test::mount_options;
using kt_test::put;
using kt_test::read_file;
using kt_test::run;
using kt_test::write_file;

// Each kind of medium plugged in: what disktype and the label tools make of it, the name, the
// mount and its options, the progress lines and the add script.
TEST_F(Engine, HotplugMountOfEachMedium) {
    const bool vfat = kernel_has("vfat");
    struct Case {
        int partition;
        std::string make;
        bool read_only;
        int32_t fs_type; // after mounting; the add script's word follows from it
        std::string label, name, options;
    } cases[] = {
        {1, "truncate -s 8M IMG && mke2fs -q -F -I 128 -t ext2 -L lab2 IMG", false, 33,
         "Acme_Stick_89AB1", "Acme_Stick_89AB1", "rw"},
        {2, "truncate -s 8M IMG && mke2fs -q -F -I 128 -t ext3 IMG", false, 34, "Acme_Stick_89AB2",
         "Acme_Stick_89AB2", "rw"},
        // Today's defaults: disktype calls it Ext4, so it is tried FAT, NTFS, then ext2.
        {3, "truncate -s 8M IMG && mke2fs -q -F IMG", false, 33, "Acme_Stick_89AB3",
         "Acme_Stick_89AB3", "rw"},
        // mlabel's whole output is the label, and its first word goes into the name.
        {4, "truncate -s 40M IMG && mkfs.vfat -F 32 -n MYLABEL IMG", false, vfat ? 20 : 0,
         "_Volume_label_is_MYLABEL____", "Acme_Volume_89AB4", vfat ? "rw" : ""},
        {5, "truncate -s 16M IMG && mkfs.vfat -F 16 IMG", false, vfat ? 17 : 0,
         "_Volume_has_no_label", "Acme_Volume_89AB5", vfat ? "rw" : ""},
        {6, "truncate -s 2M IMG && mkfs.vfat -F 12 -n SMALL IMG", false, vfat ? 17 : 0,
         "_Volume_label_is_SMALL______", "Acme_Volume_89AB6", vfat ? "rw" : ""},
        // No ufsd driver anywhere but on the appliance.
        {7, "truncate -s 8M IMG && mkntfs -q -F -L 'My:Disk [1]' IMG", false, 0, "My_Disk_(1)",
         "Acme_My_89AB7", ""},
        {8, "truncate -s 8M IMG && mkswap IMG", false, 0, "Acme_Stick_89AB8", "Acme_Stick_89AB8",
         ""},
        {9, "truncate -s 8M IMG", false, 0, "Acme_Stick_89AB9", "Acme_Stick_89AB9", ""},
        {10, "truncate -s 40M IMG && printf 'label: dos\\n,20M,c\\n,,83\\n' | sfdisk -q IMG", false,
         0, "Acme_Stick_89AB10", "Acme_Stick_89AB10", ""},
        // A read-only device refuses a read-write mount (EACCES): mounted read-only instead.
        {11, "truncate -s 8M IMG && mke2fs -q -F -I 128 -t ext2 IMG", true, 33, "Acme_Stick_89AB11",
         "Acme_Stick_89AB11", "ro"},
    };
    const char *words[35] = {};
    words[17] = "vfat", words[20] = "vfat32", words[33] = "ext2", words[34] = "ext3";
    std::string hooks;
    for (const Case &c : cases) {
        const std::string name = "sdb" + std::to_string(c.partition);
        SCOPED_TRACE(name);
        KT_REQUIRE(!plug(c.partition, c.make, c.read_only).empty(), "no loop device for " + name);
        const mntmg_record request = add_request(c.partition);
        int result = -2;
        std::string out = kt_test::capture_stdout([&] { result = hotplug_mount(&ctx, &request); });
        ASSERT_EQ(result, 0);

        const sddb_record r = find(name);
        const std::string mount_point = "/tmp/share/" + c.name;
        EXPECT_EQ(r.node_path, "/tmp/dev/" + name);
        EXPECT_EQ(r.part_info.fs_type, c.fs_type);
        EXPECT_EQ(r.part_info.volume_label, c.label);
        EXPECT_EQ(r.part_info.drive_name, c.name);
        EXPECT_EQ(r.mount_point, mount_point);
        EXPECT_EQ(r.part_info.mounted, c.options.empty() ? 0u : 1u);
        EXPECT_EQ(r.reserved_handle, -1);
        EXPECT_EQ(r.disk_info.id_vendor, 0x0781);
        EXPECT_EQ(r.part_info.size_mib != 0, true);
        EXPECT_EQ(mount_options(mount_point), c.options);
        EXPECT_EQ(access(mount_point.c_str(), F_OK) == 0, !c.options.empty());
        std::string expected_out = "hotplug mount " + name + "\n";
        if (words[c.fs_type] != nullptr) {
            const std::string args =
                "add sdb " + std::to_string(c.partition) + " " + words[c.fs_type] + " ";
            expected_out +=
                "cmd sh /etc/scripts/usbmount_helper.sh " + args + "\"" + mount_point + "\"\n";
            hooks += args + mount_point + "||en_US.UTF-8|C|/tmp/share|/tmp/dev\n";
        }
        // The NTFS mounter's "ret=-1" and the mount errors' lines belong to another test.
        if (out.rfind("ret=-1\n", 0) == 0)
            out.erase(0, 7);
        EXPECT_EQ(out, expected_out);
    }
    EXPECT_EQ(read_file(hook_log), hooks);
    EXPECT_EQ(ktmnglist_length(ctx.devices->list), 11u);

    // The event program, and ACTION left set for the scripts run after it.
    EXPECT_EQ(callprog((dir / "hook").c_str(), HOOK_AFTERMNT), 0);
    EXPECT_EQ(callprog((dir / "hook").c_str(), HOOK_MOUNT), -1);
    EXPECT_EQ(callprog("", HOOK_BEFOREMNT), -1);
    sddb_record second = find("sdb2");
    std::string out = kt_test::capture_stdout([&] { hook_remove_script(&second, 18); });
    EXPECT_EQ(out, "cmd sh /etc/scripts/usbmount_helper.sh remove sdb 2\n");
    EXPECT_EQ(read_file(hook_log), hooks + "|AFTERMNT|en_US.UTF-8|C|/tmp/share|/tmp/dev\n" +
                                       "remove sdb 2|AFTERMNT|en_US.UTF-8|C|/tmp/share|/tmp/dev\n");

    // Unplugged: every mount point goes, mounted or not; a busy one is detached.
    int held = open("/tmp/share/Acme_Stick_89AB3", O_RDONLY | O_DIRECTORY);
    for (const Case &c : cases) {
        sddb_record r = find("sdb" + std::to_string(c.partition));
        EXPECT_EQ(umount_partition(&r, 1), 0) << r.node_name;
        EXPECT_EQ(r.part_info.mounted, 0u);
        EXPECT_NE(access(r.mount_point, F_OK), 0) << r.mount_point;
    }
    close(held);
}

// A node path already taken: only a block device may be there.
TEST_F(Engine, NodePathMustBeFreeOrABlockDevice) {
    KT_REQUIRE(!plug_ext2(12).empty(), "no loop device");
    const mntmg_record request = add_request(12);
    const struct {
        std::string make; // puts something at /tmp/dev/sdb12 first
        int result;
    } cases[] = {
        {"touch /tmp/dev/sdb12", -1},       {"mkdir /tmp/dev/sdb12", -1},
        {"mkfifo /tmp/dev/sdb12", -1},      {"ln -s /dev/loop28 /tmp/dev/sdb12", -1},
        {"mknod /tmp/dev/sdb12 b 7 28", 0}, {"true", 0},
    };
    for (const auto &c : cases) {
        ASSERT_TRUE(run("rm -rf /tmp/dev/sdb12 && " + c.make)) << c.make;
        sddb_record r{};
        put(r.node_name, "sdb12");
        r.partition = 12;
        EXPECT_EQ(prepare_partition(&ctx, &r, &request), c.result) << c.make;
        if (c.result == 0) {
            EXPECT_EQ(r.part_info.fs_type, 33) << c.make;
        }
    }
    sddb_record r{};
    EXPECT_EQ(prepare_partition(nullptr, &r, &request), -1);
    EXPECT_EQ(prepare_partition(&ctx, nullptr, &request), -1);
    EXPECT_EQ(prepare_partition(&ctx, &r, nullptr), -1);
    EXPECT_EQ(hotplug_mount(&ctx, nullptr), -1);
    mntmg_record beyond = request;
    beyond.minor = MNTMG_ALL_DEVICES;
    EXPECT_EQ(hotplug_mount(&ctx, &beyond), -1);
}

// Mount errors with their place, the NTFS driver's line, unmounts and the event program's line,
// as syslog receives them (a child with a /dev/log of its own).
TEST_F(Engine, WhatIsLogged) {
    const std::string held_dev = plug_ext2(12);
    KT_REQUIRE(!held_dev.empty() && !plug_ext2(13, true).empty() &&
                   !plug(14, "truncate -s 8M IMG").empty(),
               "no loop devices");
    ASSERT_TRUE(run("mkdir -p /tmp/mnt/held /tmp/mnt/ro && mknod /tmp/dev/sdb12 b 7 28 && mknod "
                    "/tmp/dev/sdb13 b 7 29 && mknod /tmp/dev/sdb14 b 7 30 && mount " +
                    held_dev + " /tmp/mnt/held"));
    const std::string report = dir / "report";
    const pid_t parent = getpid();
    kt_test::caught_syslog caught = kt_test::catch_syslog([&] {
        std::ostringstream results;
        std::string out = kt_test::capture_stdout([&] {
            sddb_record blank{};
            put(blank.node_path, "/tmp/dev/sdb14");
            put(blank.mount_point, "/tmp/mnt/blank");
            results << mount_partition(&ctx, &blank, 0) << access("/tmp/mnt/blank", F_OK) << " ";
            ctx.no_force_select = 1;
            results << mount_partition(&ctx, &blank, 0) << " ";
            sddb_record ro{};
            put(ro.node_path, "/tmp/dev/sdb13");
            put(ro.mount_point, "/tmp/mnt/ro");
            results << mount_ext2(ro.node_path, ro.mount_point) << mount_options("/tmp/mnt/ro");
            results << umount_partition(&ro, 0) << " ";
            // The file system of another mount namespace, reached through its root: this
            // namespace can neither unmount it nor detach it.
            sddb_record held{};
            put(held.node_path, "/tmp/dev/sdb12");
            put(held.mount_point, "/proc/" + std::to_string(parent) + "/root/tmp/mnt/held");
            results << umount_partition(&held, 1) << held.part_info.mounted << " ";
            results << umount_partition(&blank, 0) << callprog((dir / "hook").c_str(), 5);
        });
        write_file(report, results.str() + "|" + out);
        return 0;
    });
    ASSERT_EQ(caught.error, "");
    EXPECT_EQ(read_file(report), "-1-1 -1 0ro0 -11 00|ret=-1\n");
    const std::string fat_error = kernel_has("vfat") ? "Invalid argument" : "No such device";
    const std::vector<std::string> expected = {
        "<27>mount_thread:mount_fat(",
        "<27>Error:mount -t vfat /tmp/dev/sdb14 /tmp/mnt/blank (" + fat_error + ")",
        "<27>mount_thread:mount_ntfs(",
        "<27>mount -t ntfs-3g /tmp/dev/sdb14 /tmp/mnt/blank (0)",
        "<27>mount_thread:mount_ntfs(",
        "<27>Error:mount -t ufsd /tmp/dev/sdb14 /tmp/mnt/blank (No such device)",
        "<27>mount_thread:mount_ext2(",
        "<27>Error:mount -t ext2 /tmp/dev/sdb14 /tmp/mnt/blank (Invalid argument)",
        "<27>mount_thread:mount_ext3(",
        "<27>Error:mount -t ext3 /tmp/dev/sdb14 /tmp/mnt/blank (Invalid argument)",
        "<29>umount (/tmp/dev/sdb13 : /tmp/mnt/ro) success\n",
        "<27>umount (/tmp/dev/sdb12 : /proc/" + std::to_string(parent) +
            "/root/tmp/mnt/held) failed\n",
        "<31>callprog(success) prog=" + dir.path() + "/hook act=BEFOREMNT, retval=(timeout,0)",
    };
    ASSERT_EQ(caught.messages.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        const std::string &m = caught.messages[i];
        const std::string text = m.substr(0, 4) + kt_test::syslog_text(m);
        if (expected[i].back() == '(') // the place: "mount_thread:<function>(<line>)"
            EXPECT_TRUE(text.rfind(expected[i], 0) == 0 && text.back() == ')') << text;
        else
            EXPECT_EQ(text, expected[i]);
    }
}

// disktype and the event program never ending: each is waited for up to its limit, then left.
TEST_F(Engine, ToolsAndHooksThatNeverEnd) {
    KT_REQUIRE(!plug_ext2(15).empty(), "no loop device");
    const std::string pids = dir / "pids", stuck = dir / "stuck";
    ASSERT_TRUE(write_file(stuck, "#!/bin/sh\necho $$ >> " + pids + "\nexec sleep 60\n") &&
                chmod(stuck.c_str(), 0755) == 0 &&
                symlink(stuck.c_str(), (dir / "disktype").c_str()) == 0);
    using clock = std::chrono::steady_clock;
    auto seconds = [](clock::time_point since) {
        return std::chrono::duration<double>(clock::now() - since).count();
    };
    // The event program's wait, in a child process meanwhile.
    int timing[2];
    ASSERT_EQ(pipe(timing), 0);
    pid_t child = fork();
    if (child == 0) {
        clock::time_point start = clock::now();
        double spent = callprog(stuck.c_str(), HOOK_AFTERMNT) == 0 ? seconds(start) : -1;
        (void)!write(timing[1], &spent, sizeof spent);
        _exit(0);
    }
    const mntmg_record request = add_request(15);
    sddb_record r{};
    put(r.node_name, "sdb15");
    r.partition = 15;
    clock::time_point start = clock::now();
    EXPECT_EQ(prepare_partition(&ctx, &r, &request), 0);
    double probe_spent = seconds(start);
    double hook_spent = 0;
    EXPECT_EQ(read(timing[0], &hook_spent, sizeof hook_spent),
              static_cast<ssize_t>(sizeof hook_spent));
    waitpid(child, nullptr, 0);
    run("kill $(cat " + pids + ")");
    EXPECT_EQ(r.part_info.fs_type, 0);
    EXPECT_EQ(r.part_info.drive_name, std::string("Acme_Stick_89AB15"));
    EXPECT_GE(probe_spent, 8.0);
    EXPECT_LT(probe_spent, 9.5);
    EXPECT_GE(hook_spent, 15.0);
    EXPECT_LT(hook_spent, 16.5);
}

} // namespace
