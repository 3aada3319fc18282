// fuzz_sysfs: attribute files of a device directory through the sysfs readers. The input holds
// the files' contents, separated by NUL bytes, in the order of `attributes`; the files the
// input does not reach are missing.
#include "fuzz/fuzz.h"
#include "registry/sysfs.h"

#include <sys/stat.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const char *const attributes[] = {"serial",    "manufacturer", "product", "idVendor",
                                             "idProduct", "speed",        "vendor",  "model",
                                             "removable", "size"};
    static char dir[256];
    if (dir[0] == '\0' && mkdir(fuzz::scratch_path(dir, "device"), 0700) != 0)
        std::abort();
    fuzz::text piece;
    for (const char *name : attributes) {
        char path[512];
        std::snprintf(path, sizeof path, "%s/%s", dir, name);
        if (fuzz::take_piece(&data, &size, &piece))
            fuzz::write_file(path, piece.get(), piece.size);
        else
            unlink(path);
    }
    sddb_record record{};
    get_sysusbdata(dir, &record.disk_info);
    get_sysscsidata(dir, &record.disk_info);
    get_sysblockdata(dir, &record.disk_info, &record.part_info);
    // An attribute is read as at most 255 bytes, so every text stays terminated in its field.
    const sddb_disk_info &d = record.disk_info;
    for (const char *text : {d.serial, d.manufacturer, d.product, d.vendor, d.model})
        if (strnlen(text, 256) == 256)
            std::abort();
    return 0;
}
