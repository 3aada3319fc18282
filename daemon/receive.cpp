// receive: the receive loop, the checks and stamps of mount requests, and the four queries.
#include "daemon/receive.h"

#include "lib/kt_internal.h"
#include "mount/mount_thread.h"
#include "registry/sysfs.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sys/time.h>

namespace {

// Where a request carries its disk name ("sdb", "all"); a partition query has its partition
// number there and the name one byte later. Only the first three characters of a name count.
constexpr size_t name_offset = 4;
constexpr size_t partition_name_offset = 5;
constexpr size_t disk_name_length = 3;
constexpr size_t disk_count = 26;
constexpr int partition_count = 16;

// Hardened: the longest the queue may grow; beyond it requests are dropped. Every partition of
// all 26 disks added and removed again is 832 requests, so 1024 leaves room for clients' mount
// and unmount requests, and caps the queue near half a megabyte.
constexpr int queue_bound = 1024;

// Hardened: who may change what is mounted or stop the daemon (queries are open to all): root,
// and the members of the group the integrator named at build time (a web interface's, say).
bool may_command(uid_t uid, gid_t gid) {
    constexpr long command_gid = HOTPLUGD_COMMAND_GID;
    return !kt::hardened || uid == 0 ||
           (command_gid >= 0 && gid == static_cast<gid_t>(command_gid));
}

// Hardened: an add must be for a disk major, and the block device directory it names must say
// ("dev") that the device is the node the daemon is about to make. This refuses adds whose
// numbers name another device than their sysfs paths (the identifier of a disk past "sdp"
// cannot carry the kernel's numbers). Only root and the command group may send adds at all,
// and root could mount anything anyway, so the directory is not required to lie in /sys:
// sysfs trees made for testing pass.
bool names_its_device(const mntmg_record &request) {
    if constexpr (!kt::hardened)
        return true;
    constexpr unsigned disk_majors[] = {HOTPLUGD_DISK_MAJORS};
    if (std::find(std::begin(disk_majors), std::end(disk_majors), request.major) ==
        std::end(disk_majors))
        return false;
    kt::field_text block(request.block_path);
    char dev[32];
    unsigned major = 0, minor = 0;
    char end = '\0';
    return !block.empty() && ktread_filef(dev, sizeof dev, "%s/dev", block.c_str()) >= 0 &&
           std::sscanf(dev, "%u:%u%c", &major, &minor, &end) >= 2 && (end == '\0' || end == '\n') &&
           major == request.major && minor == request.minor;
}

static_assert(offsetof(receive_partition_map, present) == 4 &&
              offsetof(receive_partition_map, mounted) == 20 &&
              sizeof(receive_partition_map) == 36);

// The identifier of a client's disk name: every disk for "all", letter * 16 for "sd" and a
// letter (only the third character is looked at: "sda1" is "sda"); false for anything else.
bool client_disk(const char *name, uint16_t *minor) {
    if (std::strcmp(name, "all") == 0) {
        *minor = MNTMG_ALL_DEVICES;
        return true;
    }
    const auto letter = static_cast<uint16_t>(name[2] - 'a');
    if (name[0] != 's' || name[1] != 'd' || letter >= disk_count)
        return false;
    *minor = static_cast<uint16_t>(letter * 16);
    return true;
}

// The record at `node` if clients may see it yet.
sddb_record *visible(ktmngiterator node) {
    sddb_record *record = sddb_record_at(node);
    return record != nullptr && record->valid != 0 ? record : nullptr;
}

bool same_disk(const char *node_name, const char *disk) {
    return std::strncmp(node_name, disk, disk_name_length) == 0;
}

// The disk index of a name that starts as a kernel disk name ("sdb", "sdb1"), else -1.
int kernel_disk(const char *name) {
    return name[0] == 's' && name[1] == 'd' && name[2] >= 'a' && name[2] <= 'z' ? name[2] - 'a'
                                                                                : -1;
}

// A partition's first record counts in its disk's map; twins after it do not.
void add_to_map(receive_partition_map &map, const sddb_record &r) {
    if (r.partition < 0 || r.partition >= partition_count || map.present[r.partition] != 0)
        return;
    map.present[r.partition] = 1;
    map.mounted[r.partition] = static_cast<uint8_t>(r.part_info.mounted);
    ++map.count;
}

// Walks the database (locked) once for the disk list and every kernel disk's map, unless nothing
// changed since the last walk. Clients ask these far more often than disks come and go.
void refresh_answers(receive_answers &answers, const sddb &db) {
    if (answers.built != 0 && answers.changes == db.changes)
        return;
    std::memset(&answers, 0, sizeof answers);
    answers.built = 1;
    answers.changes = db.changes;
    ktlist *head = db.list->list;
    bool listed[disk_count] = {};
    for (ktmngiterator node = head->next; node != head; node = node->next) {
        // Records take the kernel's names ("sdb", "sdb1"), whose third character tells the
        // disk. Each disk is listed once, in the order of its first record.
        const sddb_record *r = visible(node);
        const int index = r != nullptr ? kernel_disk(r->node_name) : -1;
        if (index < 0)
            continue;
        add_to_map(answers.maps[index], *r);
        if (!listed[index]) {
            listed[index] = true;
            std::memcpy(answers.disks[answers.listed++], r->node_name, disk_name_length);
        }
    }
}

// Answers a query with the database locked. Record stretches are sent from the record itself,
// so before unlocking; the rest after. Only this thread touches args.answers.
void answer(receive_thread_args &args, int32_t kind, const char *request, const sockaddr *to,
            socklen_t to_length) {
    ktmnglist *list = sddb_lock(args.devices);
    if (list == nullptr)
        return;
    auto send = [&](const void *data, size_t size) {
        ktipc_send_addr(args.ipc, data, size, to, to_length);
    };
    ktlist *head = list->list;
    const char *disk = request + name_offset;
    receive_answers &answers = args.answers;

    if (kind == RECEIVE_LIST_DISKS) {
        refresh_answers(answers, *args.devices);
        sddb_unlock_unchanged(args.devices);
        send(answers.disks, answers.listed * sizeof answers.disks[0]);
    } else if (kind == RECEIVE_PARTITION_MAP) {
        // No record has a name other than a kernel disk's: any other name has an empty map.
        refresh_answers(answers, *args.devices);
        sddb_unlock_unchanged(args.devices);
        const receive_partition_map none{};
        const int index = kernel_disk(disk);
        send(index >= 0 ? &answers.maps[index] : &none, sizeof none);
    } else {
        const auto partition = static_cast<uint8_t>(request[name_offset]);
        if (kind == RECEIVE_PARTITION_INFO)
            disk = request + partition_name_offset;
        sddb_record *found = nullptr;
        for (ktmngiterator node = head->next; found == nullptr && node != head; node = node->next)
            if (sddb_record *r = visible(node);
                r != nullptr && same_disk(r->node_name, disk) &&
                (kind == RECEIVE_DISK_INFO || r->partition == partition))
                found = r;
        if (found != nullptr && kind == RECEIVE_DISK_INFO) {
            send(&found->disk_info, sizeof found->disk_info);
        } else if (found != nullptr) {
            // An unmounted partition keeps the size it was probed with.
            get_sdsize(found);
            send(&found->part_info, sizeof found->part_info);
        }
        sddb_unlock_unchanged(args.devices);
        if (found == nullptr)
            send(request, 0);
    }
}

// A hotplug event or client command, stamped with the time it may be carried out and queued.
void queue_request(const receive_thread_args &args, const char *buffer, int32_t kind,
                   uint16_t minor, const sockaddr_un &sender, socklen_t sender_length) {
    mntmg_record request;
    std::memcpy(&request, buffer, sizeof request);
    if ((kind == MNTMG_KIND_ADD && !names_its_device(request)) ||
        (kt::hardened && mntmg_getlen(args.queue) >= queue_bound))
        return;
    timeval now{};
    if (gettimeofday(&now, nullptr) == 0) {
        request.due_sec = static_cast<uint32_t>(now.tv_sec);
        request.due_usec = static_cast<uint32_t>(now.tv_usec);
    }
    // Only a new device waits: it may still be settling when the hotplug event comes.
    if (kind == MNTMG_KIND_ADD && args.settings != nullptr)
        request.due_sec += args.settings->mount_delay;
    if (kind == MNTMG_KIND_MOUNT || kind == MNTMG_KIND_UNMOUNT) {
        std::memcpy(&request.reply_addr, &sender,
                    std::min<size_t>(sender_length, sizeof request.reply_addr));
        request.minor = minor;
        request.reply_addr_len = sender_length;
    }
    mntmg_setdata(args.queue, &request);
}

} // namespace

extern "C" {

int receive_request(receive_thread_args *args) {
    if (args == nullptr || args->running == nullptr || args->ipc == nullptr)
        return -1;
    // Children the engine left running past their time limits end up here, one a pass, but
    // not while the engine waits for one of its own: reaping it here would take its exit
    // status from the engine, which then thinks it failed (a burst of datagrams during probing
    // made disks unrecognised).
    mount_reap_child();
    // What a sender leaves out reads as zero.
    char buffer[RECEIVE_REQUEST_SIZE];
    std::memset(buffer, 0, sizeof buffer);
    sockaddr_un sender{};
    socklen_t sender_length = sizeof sender;
    uid_t uid = 0;
    gid_t gid = 0;
    if (ktipc_receive_cred(args->ipc, buffer, sizeof buffer, -1,
                           reinterpret_cast<sockaddr *>(&sender), &sender_length,
                           kt::hardened ? &uid : nullptr, kt::hardened ? &gid : nullptr) <= 0)
        return 0;
    int32_t kind;
    std::memcpy(&kind, buffer, sizeof kind);
    uint16_t minor = 0;
    if (kind != RECEIVE_LIST_DISKS && kind != RECEIVE_DISK_INFO && kind != RECEIVE_PARTITION_MAP &&
        kind != RECEIVE_PARTITION_INFO && !may_command(uid, gid))
        return 0;
    switch (kind) {
    case RECEIVE_LIST_DISKS:
    case RECEIVE_DISK_INFO:
    case RECEIVE_PARTITION_MAP:
    case RECEIVE_PARTITION_INFO:
        answer(*args, kind, buffer, reinterpret_cast<const sockaddr *>(&sender), sender_length);
        return 0;
    case RECEIVE_STOP:
        kt::store_flag(args->running, 0);
        return 1;
    case MNTMG_KIND_MOUNT:
    case MNTMG_KIND_UNMOUNT:
        if (!client_disk(buffer + name_offset, &minor))
            return 0;
        [[fallthrough]];
    case MNTMG_KIND_ADD:
    case MNTMG_KIND_REMOVE:
        queue_request(*args, buffer, kind, minor, sender, sender_length);
        return 0;
    default:
        return 0;
    }
}

int receive_thread_run(receive_thread_args *args) {
    // Without a channel nothing could ever arrive, and the loop would only spin.
    if (args == nullptr || args->running == nullptr || args->ipc == nullptr)
        return -1;
    while (kt::load_flag(args->running) != 0)
        if (receive_request(args) == 1)
            return 0;
    return 0;
}

} // extern "C"
