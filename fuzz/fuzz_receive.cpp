// fuzz_receive: one datagram from a local user (up to 2,000 bytes) through the request server,
// over real sockets, against a database holding records.
#include "daemon/receive.h"
#include "fuzz/fuzz.h"

#include <sys/socket.h>

namespace {

sddb_record record(const char *name, int16_t partition, uint32_t valid, uint32_t mounted) {
    sddb_record r{};
    std::memcpy(r.node_name, name, strnlen(name, sizeof r.node_name));
    r.valid = valid;
    r.disk_index = static_cast<int16_t>(name[2] - 'a');
    r.partition = partition;
    r.part_info.mounted = mounted;
    std::snprintf(r.disk_info.vendor, sizeof r.disk_info.vendor, "Kingston");
    std::snprintf(r.part_info.drive_name, sizeof r.part_info.drive_name, "Kingston_DT-%s", name);
    // A mounted partition's sizes are refreshed from statfs of its mount point.
    std::snprintf(r.mount_point, sizeof r.mount_point, "%s", fuzz::scratch_dir());
    return r;
}

struct request_server {
    int running = 1;
    hotplugd_settings settings{};
    char server_path[108], client_path[108];
    receive_thread_args args{};
    ktipc *client;

    request_server() {
        settings.mount_delay = 3;
        args = {&running,
                &settings,
                ktipc_create(fuzz::scratch_path(server_path, "ipc-hotplugd.sock"), 1),
                mntmg_initialize(),
                sddb_initialize(),
                {}};
        client = ktipc_create(fuzz::scratch_path(client_path, "ipc-client.sock"), 1);
        // A disk with two partitions and its whole-disk entry, a partition not shown to clients
        // yet, and one whose every text field is full, without a terminator.
        sddb_record full = record("sdz15", 15, 1, 1);
        std::memset(full.node_name, 'z', sizeof full.node_name);
        std::memset(&full.disk_info.serial, 'S', sizeof full.disk_info.serial);
        std::memset(&full.part_info.volume_label, 'L', sizeof full.part_info.volume_label);
        std::memset(&full.part_info.drive_name, 'N', sizeof full.part_info.drive_name);
        std::memset(&full.part_info.drive_id, 'I', sizeof full.part_info.drive_id);
        const sddb_record records[] = {record("sdb", 0, 1, 0), record("sdb1", 1, 1, 1),
                                       record("sdb2", 2, 1, 0), record("sdc1", 1, 0, 0), full};
        ktmnglist *list = sddb_lock(args.devices);
        for (const sddb_record &r : records)
            if (sddb_insert(list, &r) != 0)
                std::abort();
        sddb_unlock(args.devices);
        if (args.ipc == nullptr || client == nullptr || args.queue == nullptr)
            std::abort();
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static request_server server;
    static const uint8_t empty = 0;
    if (size > 2000)
        return 0;
    // Sent for real, so the server's receive cuts what is too long as it always does.
    if (ktipc_send_path(server.client, size > 0 ? data : &empty, size, server.server_path) !=
        static_cast<int>(size))
        std::abort();
    receive_request(&server.args);
    server.running = 1;
    char reply[2048];
    while (recv(server.client->fd, reply, sizeof reply, MSG_DONTWAIT) >= 0) {
    }
    mntmg_record request;
    while (mntmg_getlen(server.args.queue) > 0)
        mntmg_getdata(server.args.queue, &request);
    return 0;
}
