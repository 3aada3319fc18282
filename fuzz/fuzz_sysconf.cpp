// fuzz_sysconf: a settings file's bytes through the settings loader.
#include "config/sysconf.h"
#include "fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static char path[256];
    fuzz::write_file(fuzz::scratch_path(path, "nas.conf"), data, size);
    hotplugd_settings settings{};
    if (load_sysconf(path, &settings) != 0)
        return 0;
    // Whatever the file held, both name patterns carry the identifier within their fields.
    for (const char *pattern : {settings.drive_name_format, settings.fallback_name_format})
        if (memmem(pattern, strnlen(pattern, 128), "%D", 2) == nullptr)
            std::abort();
    return 0;
}
