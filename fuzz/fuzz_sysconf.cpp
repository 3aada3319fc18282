// fuzz_sysconf: a settings file's bytes through the settings loader.
#include "config/sysconf.h"
#include "fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static char path[256];
    fuzz::write_file(fuzz::scratch_path(path, "nas.conf"), data, size);
    hotplugd_settings settings{};
    if (load_sysconf(path, &settings) != 0)
        return 0;
    // Whatever the file held, both name patterns carry the identifier within their fields, each
    // of its own width (a long DRVNAME has its "%D" past the 128th byte).
    auto marked = [](const char *field, size_t width) {
        return memmem(field, strnlen(field, width), "%D", 2) != nullptr;
    };
    if (!marked(settings.drive_name_format, sizeof settings.drive_name_format) ||
        !marked(settings.fallback_name_format, sizeof settings.fallback_name_format))
        std::abort();
    return 0;
}
