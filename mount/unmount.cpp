// unmount: the dirty-page guard, the unmount and mount walks over a disk, hotplug removal, marking.
#include "mount/unmount.h"

#include "lib/kt_internal.h"
#include "mount/fsmount.h"
#include "mount/hooks.h"
#include "mount/mount_internal.h"
#include "registry/sysfs.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

// How long an unmount walk that failed lets the disk settle before the platform restarts what
// it stopped.
constexpr useconds_t failed_walk_settle_us = 490000;
// The guard reads this much of /proc/meminfo; "Dirty:" comes well before its end.
constexpr size_t meminfo_size = 1024;
constexpr int stat_fields = 11;

// The records a request's minor selects: all of them, or those of one disk ("sdb" of 16 ... 31).
struct selection {
    bool all;
    char disk[4];

    bool holds(const sddb_record *record) const {
        return all || std::strncmp(record->node_name, disk, 3) == 0;
    }
};

// False for a disk index of 27 or more. Index 26 passes as the disk "sd{", which selects nothing.
bool select_disk(uint16_t minor, selection *out) {
    out->all = minor == MNTMG_ALL_DEVICES;
    unsigned index = minor >> 4;
    if (!out->all && index >= 27)
        return false;
    std::snprintf(out->disk, sizeof out->disk, "sd%c", static_cast<char>('a' + index));
    return true;
}

// Calls `visit` on each record of the selection in database order, with the database locked,
// until it returns false; false when the database cannot be locked.
template <typename Visit> bool walk(sddb *db, const selection &chosen, Visit visit) {
    ktmnglist *list = sddb_lock(db);
    if (list == nullptr)
        return false;
    for (ktmngiterator node = list->list->next; node != list->list; node = node->next) {
        sddb_record *record = sddb_record_at(node);
        if (record != nullptr && chosen.holds(record) && !visit(record))
            break;
    }
    sddb_unlock(db);
    return true;
}

void send_reply(mount_thread_ctx *ctx, const mntmg_record *request, int32_t result) {
    // A length beyond a Unix address is one the kernel refuses: it is not handed a pointer that
    // long into the request.
    if (request->reply_addr_len > sizeof request->reply_addr)
        return;
    char reply[REPLY_SIZE] = {};
    std::memcpy(reply, &result, sizeof result);
    ktipc_send_addr(ctx->ipc, reply, sizeof reply,
                    reinterpret_cast<const sockaddr *>(&request->reply_addr),
                    static_cast<socklen_t>(request->reply_addr_len));
}

constexpr char kill_script[] = "/var/etc/kelto/hotplug_kill.sh";

// The platform's script that stops what keeps disks busy (file sharing and the like) and starts
// it again.
void hotplug_kill(const char *action, const char *status) {
    char command[64];
    std::snprintf(command, sizeof command, "%s %s %s", kill_script, action, status);
    const char *argv[] = {kill_script, action, status, nullptr};
    mount_engine::run_script(command, argv);
}

// Hardened: whether a write to the mounted file system at `mount_point`, on the device `node`,
// is still to be done: the file system is synced, then its device must have no write in flight.
bool partition_writes_pending(const char *mount_point, const char *node) {
    kt::unique_fd dir(open(mount_point, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat st;
    char inflight[64];
    unsigned reads = 0, writes = 0;
    return dir.get() < 0 || syncfs(dir.get()) != 0 || stat(node, &st) != 0 ||
           ktread_filef(inflight, sizeof inflight, "/sys/dev/block/%u:%u/inflight",
                        major(st.st_rdev), minor(st.st_rdev)) < 0 ||
           std::sscanf(inflight, "%u %u", &reads, &writes) != 2 || writes > 0;
}

// Whether a removal must be refused for unwritten data. The appliance's rule looks at the
// whole system's dirty pages, so any busy disk refuses every removal; hardened, only the disks
// being removed count. Their file systems are synced without the database locked, so that
// queries are answered meanwhile.
bool writes_pending(sddb *db, const selection &chosen) {
    if constexpr (!kt::hardened)
        return dirty_pages_exist() != 0;
    struct mounted_partition {
        char mount_point[sizeof sddb_record{}.mount_point + 1];
        char node[sizeof sddb_record{}.node_path + 1];
    };
    size_t count = 0;
    walk(db, chosen, [&](sddb_record *) { return ++count, true; });
    kt::heap_ptr<mounted_partition> found(
        static_cast<mounted_partition *>(std::calloc(count + 1, sizeof(mounted_partition))));
    size_t taken = 0;
    if (found == nullptr || !walk(db, chosen, [&](sddb_record *record) {
            // Zero-filled and a byte longer than the fields: the copies are always terminated.
            if (record->part_info.mounted != 0 && taken < count) {
                mounted_partition &copy = found.get()[taken++];
                std::memcpy(copy.mount_point, record->mount_point, sizeof record->mount_point);
                std::memcpy(copy.node, record->node_path, sizeof record->node_path);
            }
            return true;
        }))
        return true;
    for (size_t i = 0; i < taken; ++i)
        if (partition_writes_pending(found.get()[i].mount_point, found.get()[i].node))
            return true;
    return false;
}

struct removal {
    mount_thread_ctx *ctx;
    uint16_t minor;
    const char *name;
};

void remove_record(sddb_record *record, void *context) {
    const auto *gone = static_cast<const removal *>(context);
    umount_partition(record, 1);
    hook_remove_script(record, gone->minor);
    if (gone->ctx->fixed_drive != 0)
        release_drivename(gone->ctx->drive_letter_table, record);
    kt::field_text node(record->node_path);
    if (access(node.c_str(), F_OK) == 0)
        unlink(node.c_str());
    std::printf("hotplug umount %s\n", gone->name);
}

} // namespace

extern "C" {

int dirty_pages_exist(void) {
    kt::unique_fd fd(open("/proc/meminfo", O_RDONLY | O_CLOEXEC));
    char text[meminfo_size + 1];
    ssize_t n = fd.get() < 0 ? -1 : read(fd.get(), text, meminfo_size);
    if (n <= 0)
        return 0;
    text[n] = '\0';
    // " %d kB": one number is what counts, the unit is not checked.
    const char *dirty = std::strstr(text, "Dirty:");
    int32_t kb = 0;
    return dirty != nullptr && kt::to_int(dirty + std::strlen("Dirty:"), &kb) && kb > 0;
}

int disk_has_requests_in_flight(const char *disk) {
    // The name ends up in a shell command line: only names the kernel gives disks pass.
    if (disk == nullptr || disk[0] == '\0' ||
        std::strspn(disk, "abcdefghijklmnopqrstuvwxyz0123456789") != std::strlen(disk))
        return 0;
    char text[meminfo_size + 1];
    if (ktread_filef(text, sizeof text, "/sys/block/%s/stat", disk) < 0)
        return 0;
    int32_t data[stat_fields];
    const char *at = text;
    for (int32_t &field : data)
        if (!kt::to_int(at, &field, &at))
            return 0;
    char command[64];
    std::snprintf(command, sizeof command, "cat /sys/block/%s/stat", disk);
    const char *argv[] = {"cat", command + 4, nullptr};
    mount_engine::run_script(command, argv);
    std::printf("data[8] %d\n", data[8]);
    return data[8] > 0;
}

int umount_disk(mount_thread_ctx *ctx, const mntmg_record *request, int reply) {
    selection chosen{};
    if (ctx == nullptr || request == nullptr || !select_disk(request->minor, &chosen))
        return -1;
    sync();
    sleep(1);
    if (writes_pending(ctx->devices, chosen)) {
        std::printf("dirty page %s\n", "exists");
        hotplug_kill("stop", "1");
        // A line of its own, like every progress line, so a reader of the output sees it whole.
        std::puts("dirty page exists, unmount denied");
        // Answered even without `reply` (at stop), to whatever address the request holds: the
        // appliance's clients wait for this answer and ask again.
        send_reply(ctx, request, REPLY_REFUSED);
        return -1;
    }
    std::printf("dirty page %s\n", "cleared");
    hotplug_kill("stop", "0");
    useconds_t settle = 0;
    bool walked = walk(ctx->devices, chosen, [&](sddb_record *record) {
        if (umount_partition(record, 0) != 0) {
            settle = failed_walk_settle_us;
            return false;
        }
        std::printf("umount %s\n", record->node_name);
        return true;
    });
    if (!walked)
        return -1;
    sync();
    sleep(0);
    usleep(settle);
    hotplug_kill("start", "0");
    if (reply == 0)
        return 0;
    if (settle != 0)
        mount_disk(ctx, request, 0);
    send_reply(ctx, request, settle == 0 ? REPLY_DONE : REPLY_REFUSED);
    return 0;
}

int mount_disk(mount_thread_ctx *ctx, const mntmg_record *request, int reply) {
    selection chosen{};
    if (ctx == nullptr || request == nullptr || !select_disk(request->minor, &chosen))
        return -1;
    bool mounted = false;
    unsigned long flags = reply != 0 ? 0 : MOUNT_FLAGS_READ_ONLY_REMOUNT;
    bool walked = walk(ctx->devices, chosen, [&](sddb_record *record) {
        if (mount_partition(ctx, record, flags) == 0) {
            std::printf("mount %s\n", record->node_name);
            mounted = true;
        }
        return true;
    });
    if (!walked)
        return -1;
    if (reply != 0)
        send_reply(ctx, request, mounted ? REPLY_DONE : REPLY_REFUSED);
    return 0;
}

int hotplug_remove(mount_thread_ctx *ctx, const mntmg_record *request) {
    char name[8];
    if (ctx == nullptr || request == nullptr || get_sdname(request->minor, name, sizeof name) != 0)
        return -1;
    ktmnglist *list = sddb_lock(ctx->devices);
    if (list == nullptr)
        return -1;
    removal gone{ctx, request->minor, name};
    sddb_remove(list, name, remove_record, &gone);
    sddb_unlock(ctx->devices);
    return 0;
}

int mark_devices_valid(sddb *db) {
    sleep(1);
    if (db == nullptr)
        return -1;
    ktmnglist *list = sddb_lock(db);
    if (list == nullptr)
        return -1;
    for (ktmngiterator node = list->list->next; node != list->list; node = node->next)
        if (sddb_record *record = sddb_record_at(node); record != nullptr)
            record->valid = 1;
    sddb_unlock(db);
    return 0;
}

} // extern "C"
