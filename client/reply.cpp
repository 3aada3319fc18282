// reply: the checks on each reply's size, and its rendering as a table row or JSON.
#include "client/reply.h"

#include "lib/kt_internal.h"
#include "lib/ktutf8.h"
#include "mount/probe_text.h"
#include "mount/unmount.h"
#include "registry/records.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr size_t list_entry = 8;
constexpr size_t max_disks = 26;

static_assert(sizeof(reply_map) == 36);

// The tables' columns: headers and rows go through the same formats.
constexpr char disk_columns[] = "%-5s %-25s %-20s %-10s %s\n";
constexpr char part_columns[] = "%-5s %-20s %-20s %-13s %8s %8s  %s\n";

// A fixed field's text, without the blanks that SCSI attributes are padded with.
template <size_t N> struct shown : kt::field_text<N> {
    explicit shown(const char (&field)[N]) : kt::field_text<N>(field) {
        char *text = this->get();
        size_t n = std::strlen(text);
        while (n > 0 && text[n - 1] == ' ')
            text[--n] = '\0';
    }
};

template <size_t N> void json_field(FILE *out, const char *name, const char (&field)[N]) {
    shown text(field);
    std::fprintf(out, ", \"%s\": ", name);
    reply_json_string(out, text.c_str(), std::strlen(text.c_str()));
}

const char *fs_name(int32_t kind) {
    switch (kind) {
    case FSTYPE_PARTITION_MAP:
        return "partition map";
    case FSTYPE_FAT:
        return "FAT";
    case FSTYPE_FAT32:
        return "FAT32";
    case FSTYPE_NTFS:
        return "NTFS";
    case FSTYPE_LINUX:
        return "Linux";
    case FSTYPE_EXT2:
        return "ext2";
    case FSTYPE_EXT3:
        return "ext3";
    case FSTYPE_SWAP:
        return "swap";
    default:
        return "unknown";
    }
}

// The reply as a T when it is exactly one.
template <typename T> bool take(const void *reply, size_t length, T *out) {
    if (reply == nullptr || length != sizeof *out)
        return false;
    std::memcpy(out, reply, sizeof *out);
    return true;
}

} // namespace

extern "C" {

int reply_disks(const void *reply, size_t length, char names[26][4]) {
    if (reply == nullptr || names == nullptr || length % list_entry != 0 ||
        length > max_disks * list_entry)
        return -1;
    const auto *entries = static_cast<const char *>(reply);
    for (size_t i = 0; i < length / list_entry; ++i) {
        const char *entry = entries + i * list_entry;
        size_t n = strnlen(entry, 3);
        std::memcpy(names[i], entry, n);
        names[i][n] = '\0';
    }
    return static_cast<int>(length / list_entry);
}

int reply_show_disk(FILE *out, const char *disk, const void *reply, size_t length, int how) {
    sddb_disk_info d;
    if (out == nullptr || disk == nullptr || !take(reply, length, &d))
        return -1;
    if (how == REPLY_JSON) {
        std::fputs("{\"disk\": ", out);
        reply_json_string(out, disk, std::strlen(disk));
        json_field(out, "vendor", d.vendor);
        json_field(out, "model", d.model);
        json_field(out, "serial", d.serial);
        json_field(out, "manufacturer", d.manufacturer);
        json_field(out, "product", d.product);
        std::fprintf(out,
                     ", \"id_vendor\": \"%04x\", \"id_product\": \"%04x\", \"speed\": %d, "
                     "\"removable\": %s, \"extra\": [%u, %u, %u]",
                     d.id_vendor, d.id_product, d.speed, d.removable ? "true" : "false", d.extra0,
                     d.extra1, d.extra2);
        return 0;
    }
    shown vendor(d.vendor), model(d.model), serial(d.serial);
    char name[sizeof d.vendor + sizeof d.model + 2], ids[16], speed[24];
    std::snprintf(name, sizeof name, "%s %s", vendor.c_str(), model.c_str());
    std::snprintf(ids, sizeof ids, "%04x:%04x", d.id_vendor, d.id_product);
    std::snprintf(speed, sizeof speed, "%d Mbit/s", d.speed);
    std::fprintf(out, disk_columns, disk, name, serial.c_str(), ids, speed);
    return 0;
}

int reply_read_map(const void *reply, size_t length, reply_map *map) {
    return map != nullptr && take(reply, length, map) ? 0 : -1;
}

int reply_show_partition(FILE *out, int number, const void *reply, size_t length, int how) {
    sddb_part_info p;
    if (out == nullptr || !take(reply, length, &p))
        return -1;
    if (how == REPLY_JSON) {
        std::fprintf(out, "{\"partition\": %d", number);
        json_field(out, "label", p.volume_label);
        json_field(out, "drive_name", p.drive_name);
        json_field(out, "drive_id", p.drive_id);
        const char *fs = fs_name(p.fs_type);
        std::fputs(", \"fs\": ", out);
        reply_json_string(out, fs, std::strlen(fs));
        std::fprintf(out, ", \"fs_type\": %d, \"size_mib\": %u, \"used_mib\": %u, \"mounted\": %s}",
                     p.fs_type, p.size_mib, p.used_mib, p.mounted ? "true" : "false");
        return 0;
    }
    shown label(p.volume_label), drive(p.drive_name);
    char n[16], size[16], used[16];
    std::snprintf(n, sizeof n, "%d", number);
    std::snprintf(size, sizeof size, "%u", p.size_mib);
    std::snprintf(used, sizeof used, "%u", p.used_mib);
    std::fprintf(out, part_columns, n, label.c_str(), drive.c_str(), fs_name(p.fs_type), size, used,
                 p.mounted ? "yes" : "no");
    return 0;
}

int reply_result(const void *reply, size_t length) {
    int32_t result = 0;
    if (reply == nullptr || length != REPLY_SIZE)
        return -1;
    std::memcpy(&result, reply, sizeof result);
    return result == REPLY_DONE ? REPLY_DONE : REPLY_REFUSED;
}

void reply_disk_header(FILE *out) {
    std::fprintf(out, disk_columns, "DISK", "VENDOR MODEL", "SERIAL", "USB ID", "SPEED");
}

void reply_partition_header(FILE *out) {
    std::fprintf(out, part_columns, "PART", "LABEL", "DRIVE", "FS", "SIZE MiB", "USED MiB",
                 "MOUNTED");
}

void reply_json_string(FILE *out, const char *text, size_t length) {
    if (out == nullptr || text == nullptr)
        return;
    // Whether the text is UTF-8 is judged up to its first NUL, as the fields hold no other.
    const bool utf8 = kt_is_utf8(text) != 0;
    std::fputc('"', out);
    for (size_t i = 0; i < length; ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c == '"' || c == '\\')
            std::fprintf(out, "\\%c", c);
        else if (c < 0x20 || c == 0x7f || (c >= 0x80 && !utf8))
            std::fprintf(out, "\\u%04x", c); // bytes that are no UTF-8
        else
            std::fputc(c, out);
    }
    std::fputc('"', out);
}

} // extern "C"
