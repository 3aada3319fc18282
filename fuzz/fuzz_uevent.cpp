// fuzz_uevent: a block device event's variables ("KEY=value" strings, NUL-separated, as the
// environment or a netlink message holds them) through hotplugctl's event reader, against a
// sysfs tree of one USB disk.
#include "client/uevent.h"
#include "fuzz/fuzz.h"

#include <sys/stat.h>

namespace {

// The kernel's layout: the USB device holds idVendor, its SCSI device vendor and model, and
// the disk's block directory its partitions; /sys/block links to the disk.
const char *make_sysfs() {
    static char root[256];
    static const char usb[] = "sys/devices/pci0000:00/0000:00:14.0/usb2/2-1";
    static const char scsi[] = "/2-1:1.0/host6/target6:0:0/6:0:0:0";
    char path[512], dirs[256];
    std::snprintf(dirs, sizeof dirs, "%s%s/block/sdb/sdb1", usb, scsi);
    for (char *slash = std::strchr(dirs, '/'); slash != nullptr;
         slash = std::strchr(slash + 1, '/')) {
        *slash = '\0';
        mkdir(fuzz::scratch_path(path, dirs), 0700);
        *slash = '/';
    }
    if (mkdir(fuzz::scratch_path(path, dirs), 0700) != 0 ||
        mkdir(fuzz::scratch_path(path, "sys/block"), 0700) != 0)
        std::abort();
    std::snprintf(dirs, sizeof dirs, "%s/idVendor", usb);
    fuzz::write_file(fuzz::scratch_path(path, dirs), "0951\n", 5);
    for (const char *attribute : {"vendor", "model"}) {
        std::snprintf(dirs, sizeof dirs, "%s%s/%s", usb, scsi, attribute);
        fuzz::write_file(fuzz::scratch_path(path, dirs), "x\n", 2);
    }
    std::snprintf(dirs, sizeof dirs, "../devices/pci0000:00/0000:00:14.0/usb2/2-1%s/block/sdb",
                  scsi);
    if (symlink(dirs, fuzz::scratch_path(path, "sys/block/sdb")) != 0)
        std::abort();
    return fuzz::scratch_path(root, "sys");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const char *const sysfs = make_sysfs();
    // libFuzzer's own buffer, exactly as long as the input: a read past its end shows.
    const auto *vars = reinterpret_cast<const char *>(data);
    mntmg_record request;
    char error[256];
    const int got = uevent_request(vars, size, nullptr, sysfs, &request, error, sizeof error);
    if (got == UEVENT_SEND &&
        (request.kind < MNTMG_KIND_ADD || request.kind > MNTMG_KIND_REMOVE ||
         strnlen(request.block_path, sizeof request.block_path) == sizeof request.block_path))
        std::abort();
    return 0;
}
