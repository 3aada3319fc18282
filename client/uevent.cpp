// uevent: names, event variables and the sysfs directories that make hotplugd's hotplug requests.
#include "client/uevent.h"

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

constexpr size_t path_field = sizeof(mntmg_record::scsi_path);

__attribute__((format(printf, 3, 4))) int fail(char *error, size_t size, const char *format, ...) {
    if (error != nullptr && size > 0) {
        va_list args;
        va_start(args, format);
        std::vsnprintf(error, size, format, args);
        va_end(args);
    }
    return UEVENT_BAD;
}

const char *basename_of(const char *path) {
    const char *slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

bool has(const char *dir, const char *attribute) {
    char path[PATH_MAX];
    return std::snprintf(path, sizeof path, "%s/%s", dir, attribute) <
               static_cast<int>(sizeof path) &&
           access(path, F_OK) == 0;
}

// The nearest directory above `device`, below `root` (of `root_length` bytes), that holds all
// of `attributes` (null-terminated), into `out`; "" when none does.
void nearest(const char *device, size_t root_length, const char *const *attributes,
             char (&out)[PATH_MAX]) {
    std::snprintf(out, sizeof out, "%s", device);
    for (char *cut; (cut = std::strrchr(out, '/')) != nullptr &&
                    static_cast<size_t>(cut - out) > root_length;) {
        *cut = '\0';
        bool all = true;
        for (const char *const *a = attributes; *a != nullptr && all; ++a)
            all = has(out, *a);
        if (all)
            return;
    }
    out[0] = '\0';
}

bool put_path(char (&field)[path_field], const char *path) {
    size_t n = std::strlen(path);
    if (n >= path_field)
        return false;
    std::memcpy(field, path, n + 1);
    return true;
}

} // namespace

extern "C" {

int uevent_disk_id(const char *name, uint16_t *id) {
    if (name == nullptr || id == nullptr || std::strncmp(name, "sd", 2) != 0 || name[2] < 'a' ||
        name[2] > 'z')
        return -1;
    unsigned partition = 0;
    const char *digits = name + 3;
    if (*digits == '0')
        return -1;
    for (const char *p = digits; *p != '\0'; ++p) {
        if (*p < '0' || *p > '9' || (partition = partition * 10 + unsigned(*p - '0')) > 15)
            return -1;
    }
    *id = static_cast<uint16_t>((name[2] - 'a') * 16 + partition);
    return 0;
}

const char *uevent_get(const char *vars, size_t size, const char *key) {
    if (vars == nullptr || key == nullptr)
        return nullptr;
    const size_t key_length = std::strlen(key);
    for (size_t at = 0; at < size;) {
        const char *var = vars + at;
        const size_t length = strnlen(var, size - at);
        // A last variable without its NUL is not read past the end.
        if (length == size - at)
            return nullptr;
        if (length > key_length && std::strncmp(var, key, key_length) == 0 &&
            var[key_length] == '=')
            return var + key_length + 1;
        at += length + 1;
    }
    return nullptr;
}

int uevent_request(const char *vars, size_t size, const char *action, const char *sysfs,
                   mntmg_record *out, char *error, size_t error_size) {
    if (out == nullptr || sysfs == nullptr)
        return fail(error, error_size, "no request to fill");
    if (action == nullptr)
        action = uevent_get(vars, size, "ACTION");
    const char *subsystem = uevent_get(vars, size, "SUBSYSTEM");
    if (action == nullptr ||
        (std::strcmp(action, "add") != 0 && std::strcmp(action, "remove") != 0) ||
        (subsystem != nullptr && std::strcmp(subsystem, "block") != 0))
        return UEVENT_IGNORED;
    // udev gives "/dev/sdb1", the kernel and mdev "sdb1"; DEVPATH always ends in the name.
    const char *devname = uevent_get(vars, size, "DEVNAME");
    const char *mdev = uevent_get(vars, size, "MDEV");
    const char *devpath = uevent_get(vars, size, "DEVPATH");
    const char *name = devname != nullptr   ? basename_of(devname)
                       : mdev != nullptr    ? mdev
                       : devpath != nullptr ? basename_of(devpath)
                                            : "";
    if (*name == '\0')
        return fail(error, error_size, "no device name (DEVNAME, MDEV or DEVPATH)");
    uint16_t id = 0;
    if (uevent_disk_id(name, &id) != 0)
        return UEVENT_IGNORED;
    const char *major = uevent_get(vars, size, "MAJOR");
    char *end = nullptr;
    const unsigned long major_number = major != nullptr ? std::strtoul(major, &end, 10) : 0;
    if (major == nullptr || *major == '\0' || *end != '\0' || major_number > 0xffff)
        return fail(error, error_size, "MAJOR is missing or not a device major number");

    std::memset(out, 0, sizeof *out);
    out->kind = std::strcmp(action, "add") == 0 ? MNTMG_KIND_ADD : MNTMG_KIND_REMOVE;
    out->major = static_cast<uint16_t>(major_number);
    out->minor = id;
    if (out->kind == MNTMG_KIND_REMOVE)
        return UEVENT_SEND;
    if (devpath == nullptr)
        return fail(error, error_size, "no DEVPATH for %s", name);
    char root[PATH_MAX], joined[PATH_MAX], device[PATH_MAX];
    if (realpath(sysfs, root) == nullptr ||
        std::snprintf(joined, sizeof joined, "%s/%s", sysfs, devpath) >=
            static_cast<int>(sizeof joined) ||
        realpath(joined, device) == nullptr)
        return fail(error, error_size, "DEVPATH %s leads nowhere", devpath);
    const size_t top = std::strlen(root);
    if (std::strncmp(device, root, top) != 0 || device[top] != '/')
        return fail(error, error_size, "DEVPATH %s leads out of %s", devpath, root);
    static const char *const usb[] = {"idVendor", nullptr};
    static const char *const scsi[] = {"vendor", "model", nullptr};
    char usb_dir[PATH_MAX], scsi_dir[PATH_MAX];
    nearest(device, top, usb, usb_dir);
    nearest(device, top, scsi, scsi_dir);
    if (!put_path(out->usb_path, usb_dir) || !put_path(out->scsi_path, scsi_dir) ||
        !put_path(out->block_path, device))
        return fail(error, error_size, "a sysfs path of %s is too long for a request", name);
    return UEVENT_SEND;
}

int uevent_scan(const char *sysfs, uevent_each_fn each, void *context) {
    char root[PATH_MAX];
    if (sysfs == nullptr || each == nullptr || realpath(sysfs, root) == nullptr)
        return -1;
    const size_t top = std::strlen(root);
    int made = 0;
    for (char letter = 'a'; letter <= 'z'; ++letter) {
        for (int partition = 0; partition <= 15; ++partition) {
            char name[8], entry[PATH_MAX], device[PATH_MAX], dev[32] = "";
            std::snprintf(name, sizeof name, partition > 0 ? "sd%c%d" : "sd%c", letter, partition);
            // "<sysfs>/block/sdb" links to the disk's device directory, which holds the
            // partitions' own.
            if (partition > 0)
                std::snprintf(entry, sizeof entry, "%s/block/sd%c/%s", sysfs, letter, name);
            else
                std::snprintf(entry, sizeof entry, "%s/block/%s", sysfs, name);
            if (realpath(entry, device) == nullptr) {
                if (partition == 0)
                    break; // no such disk
                continue;
            }
            FILE *file = std::snprintf(entry, sizeof entry, "%s/dev", device) <
                                 static_cast<int>(sizeof entry)
                             ? std::fopen(entry, "re")
                             : nullptr;
            const bool read = file != nullptr && std::fgets(dev, sizeof dev, file) != nullptr;
            if (file != nullptr)
                std::fclose(file);
            unsigned major = 0;
            if (!read || std::sscanf(dev, "%u:", &major) != 1 ||
                std::strncmp(device, root, top) != 0)
                continue;
            // The variables of the kernel's add event, NUL-separated.
            char vars[PATH_MAX + 96];
            const int size = std::snprintf(vars, sizeof vars,
                                           "ACTION=add%cSUBSYSTEM=block%cDEVNAME=%s%cMAJOR=%u%c"
                                           "DEVPATH=%s%c",
                                           0, 0, name, 0, major, 0, device + top, 0);
            mntmg_record request{};
            if (size > 0 && size < static_cast<int>(sizeof vars) &&
                uevent_request(vars, static_cast<size_t>(size), nullptr, sysfs, &request, nullptr,
                               0) == UEVENT_SEND) {
                each(&request, name, context);
                ++made;
            }
        }
    }
    return made;
}

} // extern "C"
