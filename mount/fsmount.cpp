// fsmount: the four mounters, mounting and unmounting a record, and the hotplug add handler.
#include "mount/fsmount.h"

#include "lib/kt_internal.h"
#include "mount/hooks.h"
#include "mount/mount_internal.h"
#include "mount/probe.h"
#include "registry/sddb.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

static_assert(MOUNT_FLAGS_READ_ONLY_REMOUNT == (MS_RDONLY | MS_REMOUNT));

namespace {

using kt::field_text;

// A mounter's mount(2), once more read-only when the medium refuses writing (a write-protected
// stick, a read-only device). A failure is logged as raised by the mounter `function` at
// `line`; the NTFS mounter prints the last result before that.
struct mounter {
    const char *function;
    int line;
    bool print_result = false;
};

int mount_retrying(const mounter &who, const char *type, const char *node, const char *mount_point,
                   unsigned long flags, const char *options) {
    int result = mount(node, mount_point, type, flags, options);
    if (result != 0 && (errno == EACCES || errno == EROFS))
        result = mount(node, mount_point, type, flags | MS_RDONLY, options);
    if (result == 0)
        return 0;
    int error = errno;
    if (who.print_result)
        std::printf("ret=%d\n", result);
    mount_engine::log_place(who.function, who.line);
    syslog(LOG_ERR, "Error:mount -t %s %s %s (%s)", type, node, mount_point, std::strerror(error));
    return -1;
}

// A mount point is a directory of its own: made, or an empty one found there. Anything else
// (a file, a symbolic link that could lead the mount elsewhere) is refused.
bool make_mount_point(const char *path) {
    struct stat st;
    return mkdir(path, 0700) == 0 ||
           (errno == EEXIST && lstat(path, &st) == 0 && S_ISDIR(st.st_mode));
}

int mount_by_kind(mount_thread_ctx *ctx, sddb_record *record, const char *node,
                  const char *mount_point, unsigned long flags) {
    switch (record->part_info.fs_type) {
    case FSTYPE_FAT:
    case FSTYPE_FAT32:
        return mount_fat(node, mount_point, ctx->settings, flags);
    case FSTYPE_NTFS:
        return mount_ntfs(node, mount_point, ctx->settings, flags, &record->reserved_handle);
    case FSTYPE_EXT2:
        return mount_ext2(node, mount_point);
    case FSTYPE_EXT3:
        return mount_ext3(node, mount_point);
    case FSTYPE_LINUX:
        return mount_ext2(node, mount_point) == 0 ? 0 : mount_ext3(node, mount_point);
    default:
        return -1;
    }
}

// An unknown file system is tried as each kind in turn; the first that mounts is its kind.
constexpr int32_t trial_order[] = {FSTYPE_FAT, FSTYPE_NTFS, FSTYPE_EXT2, FSTYPE_EXT3};

int mount_any(mount_thread_ctx *ctx, sddb_record *record, const char *node, const char *mount_point,
              unsigned long flags) {
    if (record->part_info.fs_type != FSTYPE_UNKNOWN)
        return mount_by_kind(ctx, record, node, mount_point, flags);
    if (ctx->no_force_select != 0)
        return -1;
    for (int32_t kind : trial_order) {
        record->part_info.fs_type = kind;
        if (mount_by_kind(ctx, record, node, mount_point, flags) == 0)
            return 0;
    }
    return -1;
}

} // namespace

extern "C" {

int is_mounted_at(const char *node, const char *mount_point) {
    struct stat device, dir;
    return node != nullptr && mount_point != nullptr && stat(node, &device) == 0 &&
           S_ISBLK(device.st_mode) && stat(mount_point, &dir) == 0 && S_ISDIR(dir.st_mode) &&
           device.st_rdev == dir.st_dev;
}

int mount_fat(const char *node, const char *mount_point, const hotplugd_settings *settings,
              unsigned long flags) {
    if (node == nullptr || mount_point == nullptr || settings == nullptr)
        return -1;
    char options[128];
    if (std::snprintf(options, sizeof options,
                      "uid=0,gid=%u,fmask=111,dmask=000,shortname=mixed,iocharset=utf8",
                      settings->mount_gid) < 0)
        return -1;
    return mount_retrying({__func__, __LINE__}, "vfat", node, mount_point, flags, options);
}

int mount_ext2(const char *node, const char *mount_point) {
    if (node == nullptr || mount_point == nullptr)
        return -1;
    return mount_retrying({__func__, __LINE__}, "ext2", node, mount_point, 0, "");
}

int mount_ext3(const char *node, const char *mount_point) {
    if (node == nullptr || mount_point == nullptr)
        return -1;
    return mount_retrying({__func__, __LINE__}, "ext3", node, mount_point, 0, "");
}

int mount_ntfs(const char *node, const char *mount_point, const hotplugd_settings *settings,
               unsigned long flags, int32_t *reserved_handle) {
    if (node == nullptr || mount_point == nullptr || settings == nullptr ||
        reserved_handle == nullptr)
        return -1;
    // The options and the FUSE path of the appliance's former ntfs-3g driver are still made,
    // and a failure to make them still fails the mount, but the ufsd driver that replaced it
    // gets fixed options: no uid, gid or ",ro" may reach it, whatever the flags. Kept so:
    // NTFS shares on appliances in the field must keep the permissions they have.
    char options[128], fuse_path[sizeof settings->tmp_dir];
    field_text tmp_dir(settings->tmp_dir);
    if (std::snprintf(options, sizeof options,
                      "force,uid=0,gid=%u,fmask=113,dmask=002,streams_interface=xattr%s",
                      settings->mount_gid, (flags & MS_RDONLY) != 0 ? ",ro" : "") < 0 ||
        std::snprintf(fuse_path, sizeof fuse_path, "%s/fuse", tmp_dir.c_str()) < 0)
        return -1;
    std::snprintf(options, sizeof options, "%s", "force,fmask=111,dmask=00");
    // Logged at error priority whatever comes of it: the appliance's log readers look for it
    // there.
    mount_engine::log_place(__func__, __LINE__);
    syslog(LOG_ERR, "mount -t ntfs-3g %s %s (%d)", node, mount_point, 0);
    if (mount_retrying({__func__, __LINE__, true}, "ufsd", node, mount_point, flags, options) != 0)
        return -1;
    *reserved_handle = -1;
    return 0;
}

int mount_partition(mount_thread_ctx *ctx, sddb_record *record, unsigned long flags) {
    if (ctx == nullptr || ctx->settings == nullptr || record == nullptr)
        return -1;
    field_text node(record->node_path), mount_point(record->mount_point);
    sddb_part_info &part = record->part_info;
    if (is_mounted_at(node.c_str(), mount_point.c_str())) {
        part.mounted = 1;
        return 0;
    }
    if (make_mount_point(mount_point.c_str()) &&
        mount_any(ctx, record, node.c_str(), mount_point.c_str(), flags) == 0) {
        part.mounted = 1;
        get_sdsize(record);
        return 0;
    }
    // Partition maps and swap end here too, as unknown: nothing to mount, nothing to share.
    part.fs_type = FSTYPE_UNKNOWN;
    rmdir(mount_point.c_str());
    return -1;
}

int umount_partition(sddb_record *record, int force) {
    if (record == nullptr)
        return -1;
    field_text node(record->node_path), mount_point(record->mount_point);
    sddb_part_info &part = record->part_info;
    struct stat st;
    if (force == 0 && stat(mount_point.c_str(), &st) != 0 && errno == ENOENT) {
        part.mounted = 0;
        return 0;
    }
    if (umount(mount_point.c_str()) != 0 && is_mounted_at(node.c_str(), mount_point.c_str())) {
        // Busy: detached now, the file system goes once its last user lets go.
        bool detached = umount2(mount_point.c_str(), MNT_DETACH) == 0;
        if (!detached)
            part.mounted = 1;
        sync();
        if (part.fs_type == FSTYPE_NTFS && record->reserved_handle != -1) {
            sigqueue(record->reserved_handle, SIGINT, sigval{0});
            record->reserved_handle = -1;
        }
        if (!detached) {
            syslog(LOG_ERR, "umount (%s : %s) %s\n", node.c_str(), mount_point.c_str(), "failed");
            return -1;
        }
    }
    rmdir(mount_point.c_str());
    part.mounted = 0;
    syslog(LOG_NOTICE, "umount (%s : %s) %s\n", node.c_str(), mount_point.c_str(), "success");
    return 0;
}

int hotplug_mount(mount_thread_ctx *ctx, const mntmg_record *request) {
    if (ctx == nullptr || request == nullptr)
        return -1;
    sddb_record record{};
    record.reserved_handle = -1;
    record.disk_index = static_cast<int16_t>(request->minor >> 4);
    record.partition = static_cast<int16_t>(request->minor & 15);
    if (record.disk_index >= 27 ||
        get_sdname(request->minor, record.node_name, sizeof record.node_name) != 0)
        return -1;
    record.disk_info.extra0 = request->extra0;
    record.disk_info.extra1 = request->extra1;
    record.disk_info.extra2 = request->extra2;
    if (prepare_partition(ctx, &record, request) != 0)
        return -1;
    // A partition that cannot be mounted is still listed, so clients see the disk and its
    // partition map.
    mount_partition(ctx, &record, 0);
    std::printf("hotplug mount %s\n", record.node_name);

    ktmnglist *list = sddb_lock(ctx->devices);
    int added = list != nullptr ? sddb_insert(list, &record) : -1;
    if (list != nullptr)
        sddb_unlock(ctx->devices);
    if (added != 0) {
        umount_partition(&record, 1);
        return -1;
    }
    hook_add_script(&record, request->minor);
    return 0;
}

} // extern "C"
