// Test fixture of the mount engine: a disk of loop devices, the settings, the recording scripts.
#ifndef TESTS_UNIT_ENGINE_FIXTURE_H
#define TESTS_UNIT_ENGINE_FIXTURE_H

#include "mount/fsmount.h"
#include "mount/hooks.h"
#include "mount/probe.h"

#include "loop_device.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace kt_test {

constexpr char hook_log[] = "/tmp/hooks.log";

inline bool kernel_has(const std::string &fs) {
    return read_file("/proc/filesystems").find("\t" + fs + "\n") != std::string::npos;
}

// The options of the mount at `dir` ("rw"), or "" when nothing is mounted there.
inline std::string mount_options(const std::string &dir) {
    std::ifstream mounts("/proc/self/mountinfo");
    std::string line, id, parent, devno, root, point, options;
    while (std::getline(mounts, line))
        if (std::istringstream(line) >> id >> parent >> devno >> root >> point >> options &&
            point == dir)
            return options.substr(0, options.find(','));
    return "";
}

template <size_t N> void put(char (&field)[N], const std::string &text) {
    std::snprintf(field, N, "%s", text.c_str());
}

// The disk under test is "sd" + letter of `disk_index`: its partition p is /dev/loop(16 * index
// + p), so test programs with different disks can run at once. Settings as an appliance has
// them (DRVNAME "%V_%D"), the database, the hook program and the usbmount helper recording
// their calls and environment in hook_log, and ntfsvlabel on the PATH.
struct Engine : ::testing::Test {
    explicit Engine(int disk_index = 1) : disk_minor(16 * disk_index) {}

    const int disk_minor;
    scratch_dir dir;
    hotplugd_settings settings{};
    drive_letter_table letters{};
    mount_thread_ctx ctx{};
    std::vector<std::unique_ptr<LoopDevice>> loops;

    void SetUp() override {
        if (!in_sandbox())
            GTEST_SKIP() << "needs tests/sandbox/run: it makes nodes, mounts and hook scripts";
        put(settings.share_dir, "/tmp/share");
        put(settings.tmp_dir, "/tmp/dev");
        put(settings.drive_name_format, "%V_%D");
        put(settings.fallback_name_format, "Drive-%D");
        settings.use_volume_label = 1;
        settings.mount_gid = 100;
        ctx.settings = &settings;
        ctx.devices = sddb_initialize();
        ctx.drive_letter_table = &letters;
        // The appliance's scripts record how they were called and what they inherited, as
        // the daemon's start-up leaves the environment.
        const std::string record = "#!/bin/sh\necho \"$*|$ACTION|$LANG|$LC_COLLATE|$SHAREPATH|"
                                   "$DEVPATH\" >> " +
                                   std::string(hook_log) + "\n";
        ASSERT_TRUE(write_file("/etc/scripts/usbmount_helper.sh", record));
        ASSERT_TRUE(write_file(dir / "hook", record) && chmod((dir / "hook").c_str(), 0755) == 0);
        // ntfs-3g's ntfslabel under the name of the appliance's NTFS label tool.
        ASSERT_TRUE(write_file(dir / "ntfsvlabel", "#!/bin/sh\nexec ntfslabel \"$@\"\n") &&
                    chmod((dir / "ntfsvlabel").c_str(), 0755) == 0);
        setenv("PATH", (dir.path() + ":" + std::getenv("PATH")).c_str(), 1);
        setenv("LANG", "en_US.UTF-8", 1);
        setenv("LC_COLLATE", "C", 1);
        setenv("SHAREPATH", "/tmp/share", 1);
        setenv("DEVPATH", "/tmp/dev", 1);
        ASSERT_TRUE(mkdir("/tmp/dev", 0755) == 0 || errno == EEXIST);
        // The disk's USB and SCSI attribute directories.
        ASSERT_TRUE(run("cd " + dir.path() +
                        " && mkdir usb scsi && cd usb && echo 0123456789AB > serial && echo "
                        "0781 > idVendor && echo 5567 > idProduct && echo 480 > speed && cd "
                        "../scsi && echo 'Acme    ' > vendor && echo Stick > model"));
    }

    void TearDown() override {
        run("umount -q -l /tmp/share/* /tmp/mnt/* 2>/dev/null; rm -f /tmp/dev/* " +
            std::string(hook_log));
        sddb_free(ctx.devices);
    }

    std::string disk() const {
        return std::string("sd") + static_cast<char>('a' + disk_minor / 16);
    }

    // An image made by `make` (IMG standing for its path) attached as partition `partition`;
    // the loop device, or "" when that failed.
    std::string plug(int partition, const std::string &make, bool read_only = false) {
        const std::string image = dir / ("p" + std::to_string(partition) + ".img");
        std::string command = make;
        for (size_t at; (at = command.find("IMG")) != std::string::npos;)
            command.replace(at, 3, shell_quoted(image));
        if (!run("(" + command + ") >/dev/null 2>&1"))
            return "";
        loops.push_back(std::make_unique<LoopDevice>(image, disk_minor + partition, read_only));
        return loops.back()->device();
    }

    // A small ext2 file system disktype names, attached as `partition`.
    std::string plug_ext2(int partition, bool read_only = false) {
        return plug(partition, "truncate -s 8M IMG && mke2fs -q -F -I 128 -t ext2 IMG", read_only);
    }

    mntmg_record add_request(int partition) {
        mntmg_record request{};
        request.kind = MNTMG_KIND_ADD;
        request.major = 7;
        request.minor = static_cast<uint16_t>(disk_minor + partition);
        put(request.usb_path, dir / "usb");
        put(request.scsi_path, dir / "scsi");
        put(request.block_path, "/sys/block/loop" + std::to_string(disk_minor + partition));
        return request;
    }

    // A copy of the database's record named `name` (zeroed when there is none).
    sddb_record find(const std::string &name) {
        sddb_record found{};
        ktmnglist *list = sddb_lock(ctx.devices);
        for (ktmngiterator it = list->list->next; it != list->list; it = it->next)
            if (const sddb_record *r = sddb_record_at(it); r != nullptr && name == r->node_name)
                found = *r;
        sddb_unlock(ctx.devices);
        return found;
    }
};

} // namespace kt_test

#endif
