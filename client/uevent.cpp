// uevent: names, event variables and the sysfs directories that make hotplugd's hotplug requests.
#include "client/uevent.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

constexpr size_t path_field = sizeof(mntmg_record::scsi_path);

int fail(char *error, size_t size, const std::string &text) {
    if (error != nullptr && size > 0)
        std::snprintf(error, size, "%s", text.c_str());
    return UEVENT_BAD;
}

std::string basename_of(const char *path) {
    const char *slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

bool has(const std::string &dir, const char *attribute) {
    return access((dir + "/" + attribute).c_str(), F_OK) == 0;
}

// The nearest directory above `dir`, up to but not including `root`, that holds all of
// `attributes` (null-terminated); "" when none does.
std::string nearest(std::string dir, const std::string &root, const char *const *attributes) {
    for (size_t cut; (cut = dir.rfind('/')) != std::string::npos && cut > root.size();) {
        dir.erase(cut);
        bool all = true;
        for (const char *const *a = attributes; *a != nullptr && all; ++a)
            all = has(dir, *a);
        if (all)
            return dir;
    }
    return "";
}

bool put_path(char (&field)[path_field], const std::string &path) {
    if (path.size() >= path_field)
        return false;
    std::memcpy(field, path.c_str(), path.size() + 1);
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
    const std::string name = devname != nullptr   ? basename_of(devname)
                             : mdev != nullptr    ? mdev
                             : devpath != nullptr ? basename_of(devpath)
                                                  : "";
    if (name.empty())
        return fail(error, error_size, "no device name (DEVNAME, MDEV or DEVPATH)");
    uint16_t id = 0;
    if (uevent_disk_id(name.c_str(), &id) != 0)
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
        return fail(error, error_size, "no DEVPATH for " + name);
    char root[PATH_MAX], dir[PATH_MAX];
    if (realpath(sysfs, root) == nullptr ||
        realpath((std::string(sysfs) + "/" + devpath).c_str(), dir) == nullptr)
        return fail(error, error_size, std::string("DEVPATH ") + devpath + " leads nowhere");
    const std::string top(root), device(dir);
    if (device.compare(0, top.size() + 1, top + "/") != 0)
        return fail(error, error_size, std::string("DEVPATH ") + devpath + " leads out of " + top);
    static const char *const usb[] = {"idVendor", nullptr};
    static const char *const scsi[] = {"vendor", "model", nullptr};
    if (!put_path(out->usb_path, nearest(device, top, usb)) ||
        !put_path(out->scsi_path, nearest(device, top, scsi)) || !put_path(out->block_path, device))
        return fail(error, error_size, "a sysfs path of " + name + " is too long for a request");
    return UEVENT_SEND;
}

} // extern "C"
