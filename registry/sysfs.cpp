// sysfs: attribute files read whole in one read, parsed from memory into the device record.
#include "registry/sysfs.h"

#include "lib/kt_internal.h"

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Most sysfs paths fit the first guess; the buffer then grows once, to the exact length.
constexpr size_t initial_path_size = 128;
// Attribute values are read into fields of this width, and numbers into a scratch of it.
constexpr size_t attribute_size = 256;

bool is_directory(const char *path) {
    struct stat st;
    return path != nullptr && stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// The attribute `name` of the device directory `dir` into a field of attribute_size bytes.
int read_attribute(char *field, const char *dir, const char *name) {
    return ktread_filef(field, attribute_size, "%s/%s", dir, name);
}

// Conversions as sscanf's "%x" and "%llu" make them (leading blanks and a sign accepted,
// trailing text ignored), without sscanf's undefined behaviour on overflow.
bool to_unsigned(const char *text, int base, unsigned long long *value) {
    char *end = nullptr;
    *value = std::strtoull(text, &end, base);
    return end != text;
}

// A USB id: kept only when it converts (an unreadable file leaves the text empty).
void read_usb_id(const char *dir, const char *name, uint16_t *id) {
    char text[attribute_size] = "";
    unsigned long long value = 0;
    read_attribute(text, dir, name);
    if (to_unsigned(text, 16, &value))
        *id = static_cast<uint16_t>(value);
}

} // namespace

extern "C" {

int ktread_filef(char *buffer, size_t size, const char *path_format, ...) {
    if (buffer == nullptr || size == 0 || path_format == nullptr)
        return -1;
    va_list args;
    va_start(args, path_format);
    kt::heap_ptr<char> path = kt::vformat_alloc(initial_path_size, path_format, args);
    va_end(args);
    if (path == nullptr)
        return -1;

    // Non-blocking: request paths come from any local user, and a FIFO planted where an
    // attribute should be must not stop the mount thread in open() or read().
    kt::unique_fd fd(open(path.get(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (fd.get() < 0)
        return -1;
    const size_t limit = std::min<size_t>(size - 1, INT_MAX);
    // No retry on EINTR: the read is non-blocking, and signals do not cut short reads of files
    // and sysfs attributes.
    const ssize_t len = read(fd.get(), buffer, limit);
    if (len < 0)
        return -1;
    buffer[len] = '\0';
    if (len > 0 && buffer[len - 1] == '\n')
        buffer[len - 1] = '\0';
    return static_cast<int>(len);
}

int get_sysusbdata(const char *usb_path, sddb_disk_info *record_part) {
    if (record_part == nullptr || !is_directory(usb_path))
        return -1;
    read_attribute(record_part->serial, usb_path, "serial");
    read_attribute(record_part->manufacturer, usb_path, "manufacturer");
    read_attribute(record_part->product, usb_path, "product");
    read_usb_id(usb_path, "idVendor", &record_part->id_vendor);
    read_usb_id(usb_path, "idProduct", &record_part->id_product);

    char text[attribute_size];
    if (read_attribute(text, usb_path, "speed") > 0 && !kt::to_int(text, &record_part->speed))
        record_part->speed = 0;
    return 0;
}

int get_sysscsidata(const char *scsi_path, sddb_disk_info *record_part) {
    if (record_part == nullptr || !is_directory(scsi_path))
        return -1;
    read_attribute(record_part->vendor, scsi_path, "vendor");
    read_attribute(record_part->model, scsi_path, "model");
    return 0;
}

int get_sysblockdata(const char *block_path, sddb_disk_info *record_part,
                     sddb_part_info *label_part) {
    if (record_part == nullptr || label_part == nullptr || !is_directory(block_path))
        return -1;
    char text[attribute_size];
    int32_t removable = 0;
    if (read_attribute(text, block_path, "removable") >= 0 && kt::to_int(text, &removable) &&
        removable > 0)
        record_part->removable = 1;

    unsigned long long sectors = 0;
    if (read_attribute(text, block_path, "size") >= 0 && to_unsigned(text, 10, &sectors))
        label_part->size_mib = static_cast<uint32_t>(sectors >> 11);
    return 0;
}

} // extern "C"
