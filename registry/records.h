/* records: the fixed layouts of the mount request and of the device record, shared with clients. */
#ifndef REGISTRY_RECORDS_H
#define REGISTRY_RECORDS_H

#include <stddef.h>
#include <stdint.h>
#include <sys/un.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    /* Request kinds: hotplug events, then client commands. */
    MNTMG_KIND_ADD = 1,
    MNTMG_KIND_REMOVE = 2,
    MNTMG_KIND_MOUNT = 3,
    MNTMG_KIND_UNMOUNT = 4,
    /* A `minor` naming every disk at once (disk index 26, one beyond 'sdz'). */
    MNTMG_ALL_DEVICES = 416,
    MNTMG_RECORD_SIZE = 416,

    SDDB_RECORD_SIZE = 3660,
    /* The two stretches of a device record that clients receive byte for byte. */
    SDDB_DISK_INFO_OFFSET = 24,
    SDDB_DISK_INFO_SIZE = 1304,
    SDDB_PART_INFO_OFFSET = 1328,
    SDDB_PART_INFO_SIZE = 284
};

/*
 * A mount request: the datagram of kinds 1 to 4 and the queued element alike, integers in host
 * byte order. For client commands (kinds 3 and 4) the sender's address overlays the USB path
 * and its length shares its word with extra2; `major` then holds the bytes "sd" (or "al").
 */
typedef struct mntmg_record {
    int32_t kind;
    uint16_t major;
    uint16_t minor; /* disk index * 16 + partition, or MNTMG_ALL_DEVICES */
    uint8_t reserved[4];
    union {
        char usb_path[128];
        struct sockaddr_un reply_addr;
    };
    char scsi_path[128];
    char block_path[128];
    /* Words of the hotplug sender, stored unchanged in the device record. */
    uint32_t extra0;
    uint32_t extra1;
    union {
        uint32_t extra2;
        uint32_t reply_addr_len;
    };
    /* Not before this gettimeofday() time is the request carried out. */
    uint32_t due_sec;
    uint32_t due_usec;
} mntmg_record;

/* Disk information sent to clients: the USB and SCSI attributes of the disk. */
typedef struct sddb_disk_info {
    char serial[256];
    uint16_t id_vendor;
    uint16_t id_product;
    char manufacturer[256];
    char product[256];
    int32_t speed; /* Mbit/s */
    uint32_t extra0;
    uint32_t extra1;
    uint32_t extra2;
    uint32_t removable;
    char vendor[256];
    char model[256];
} sddb_disk_info;

/* Partition details sent to clients: names, sizes and state of one partition. */
typedef struct sddb_part_info {
    char volume_label[128];
    char drive_name[128];
    char drive_id[8];
    uint32_t reserved;
    uint32_t size_mib;
    uint32_t used_mib;
    int32_t fs_type;
    uint32_t mounted;
} sddb_part_info;

/* One entry of the storage device database: a partition, or a whole disk, in service. */
typedef struct sddb_record {
    uint32_t valid; /* clients see the entry only once this is set */
    int32_t reserved_handle;
    int16_t disk_index; /* 0 = sda */
    int16_t partition;  /* 0 = the whole disk */
    uint32_t drive_slot;
    char node_name[8]; /* "sdb1": the database's key */
    sddb_disk_info disk_info;
    sddb_part_info part_info;
    char node_path[1024];
    char mount_point[1024];
} sddb_record;

/* Clients and the hotplug sender know these layouts by offset: each one is pinned here, for the
 * 64-bit build machine and the 32-bit appliance alike. */
#ifdef __cplusplus
#define RECORDS_ASSERT(cond) static_assert(cond, #cond)
#else
#define RECORDS_ASSERT(cond) _Static_assert(cond, #cond)
#endif

RECORDS_ASSERT(offsetof(mntmg_record, kind) == 0);
RECORDS_ASSERT(offsetof(mntmg_record, major) == 4);
RECORDS_ASSERT(offsetof(mntmg_record, minor) == 6);
RECORDS_ASSERT(offsetof(mntmg_record, reserved) == 8);
RECORDS_ASSERT(offsetof(mntmg_record, usb_path) == 12);
RECORDS_ASSERT(offsetof(mntmg_record, reply_addr) == 12);
RECORDS_ASSERT(sizeof(struct sockaddr_un) == 110);
RECORDS_ASSERT(offsetof(mntmg_record, scsi_path) == 140);
RECORDS_ASSERT(offsetof(mntmg_record, block_path) == 268);
RECORDS_ASSERT(offsetof(mntmg_record, extra0) == 396);
RECORDS_ASSERT(offsetof(mntmg_record, extra1) == 400);
RECORDS_ASSERT(offsetof(mntmg_record, extra2) == 404);
RECORDS_ASSERT(offsetof(mntmg_record, reply_addr_len) == 404);
RECORDS_ASSERT(offsetof(mntmg_record, due_sec) == 408);
RECORDS_ASSERT(offsetof(mntmg_record, due_usec) == 412);
RECORDS_ASSERT(sizeof(mntmg_record) == MNTMG_RECORD_SIZE);

RECORDS_ASSERT(offsetof(sddb_record, valid) == 0);
RECORDS_ASSERT(offsetof(sddb_record, reserved_handle) == 4);
RECORDS_ASSERT(offsetof(sddb_record, disk_index) == 8);
RECORDS_ASSERT(offsetof(sddb_record, partition) == 10);
RECORDS_ASSERT(offsetof(sddb_record, drive_slot) == 12);
RECORDS_ASSERT(offsetof(sddb_record, node_name) == 16);
RECORDS_ASSERT(offsetof(sddb_record, disk_info) == SDDB_DISK_INFO_OFFSET);
RECORDS_ASSERT(sizeof(sddb_disk_info) == SDDB_DISK_INFO_SIZE);
RECORDS_ASSERT(offsetof(sddb_record, disk_info.serial) == 24);
RECORDS_ASSERT(offsetof(sddb_record, disk_info.id_vendor) == 280);
RECORDS_ASSERT(offsetof(sddb_record, disk_info.id_product) == 282);
RECORDS_ASSERT(offsetof(sddb_record, disk_info.manufacturer) == 284);
RECORDS_ASSERT(offsetof(sddb_record, disk_info.product) == 540);
RECORDS_ASSERT(offsetof(sddb_record, disk_info.speed) == 796);
RECORDS_ASSERT(offsetof(sddb_record, disk_info.extra0) == 800);
RECORDS_ASSERT(offsetof(sddb_record, disk_info.extra1) == 804);
RECORDS_ASSERT(offsetof(sddb_record, disk_info.extra2) == 808);
RECORDS_ASSERT(offsetof(sddb_record, disk_info.removable) == 812);
RECORDS_ASSERT(offsetof(sddb_record, disk_info.vendor) == 816);
RECORDS_ASSERT(offsetof(sddb_record, disk_info.model) == 1072);
RECORDS_ASSERT(offsetof(sddb_record, part_info) == SDDB_PART_INFO_OFFSET);
RECORDS_ASSERT(SDDB_DISK_INFO_OFFSET + SDDB_DISK_INFO_SIZE == SDDB_PART_INFO_OFFSET);
RECORDS_ASSERT(sizeof(sddb_part_info) == SDDB_PART_INFO_SIZE);
RECORDS_ASSERT(offsetof(sddb_record, part_info.volume_label) == 1328);
RECORDS_ASSERT(offsetof(sddb_record, part_info.drive_name) == 1456);
RECORDS_ASSERT(offsetof(sddb_record, part_info.drive_id) == 1584);
RECORDS_ASSERT(offsetof(sddb_record, part_info.reserved) == 1592);
RECORDS_ASSERT(offsetof(sddb_record, part_info.size_mib) == 1596);
RECORDS_ASSERT(offsetof(sddb_record, part_info.used_mib) == 1600);
RECORDS_ASSERT(offsetof(sddb_record, part_info.fs_type) == 1604);
RECORDS_ASSERT(offsetof(sddb_record, part_info.mounted) == 1608);
RECORDS_ASSERT(offsetof(sddb_record, node_path) == 1612);
RECORDS_ASSERT(offsetof(sddb_record, mount_point) == 2636);
RECORDS_ASSERT(sizeof(sddb_record) == SDDB_RECORD_SIZE);

#undef RECORDS_ASSERT

#ifdef __cplusplus
}
#endif

#endif
