// sysconf: reads the daemon's settings file into its settings record.
#include "config/sysconf.h"

#include "config/ktcfg.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <unistd.h>

namespace {

// The record is part of the daemon's main context; pin its shape on every target.
static_assert(offsetof(hotplugd_settings, share_dir) == 0);
static_assert(offsetof(hotplugd_settings, tmp_dir) == 1024);
static_assert(offsetof(hotplugd_settings, prog) == 2048);
static_assert(offsetof(hotplugd_settings, drive_name_format) == 3072);
static_assert(offsetof(hotplugd_settings, fallback_name_format) == 3328);
static_assert(offsetof(hotplugd_settings, rom_device) == 3456);
static_assert(offsetof(hotplugd_settings, mount_gid) == 4480);
static_assert(offsetof(hotplugd_settings, mount_delay) == 4484);
static_assert(offsetof(hotplugd_settings, max_part) == 4488);
static_assert(offsetof(hotplugd_settings, use_volume_label) == 4492);
static_assert(sizeof(hotplugd_settings) == 4496);

// One key of the settings file (no section), released when it goes out of scope.
class setting {
  public:
    setting(const char *path, const char *key)
        : result_(kt_cfg_get_ini_string(path, nullptr, key, &value_)) {}
    ~setting() { kt_cfg_release_string(value_); }
    setting(const setting &) = delete;
    setting &operator=(const setting &) = delete;

    bool found() const { return result_ == 0; }
    const char *c_str() const { return value_; }

  private:
    char *value_ = nullptr;
    int result_;
};

// A field's text: up to its NUL, or the whole field when the value filled it.
template <size_t N> std::string_view field_text(const char (&field)[N]) {
    return std::string_view(field, strnlen(field, N));
}

// Copies at most the field's width; the NUL is left out when the value fills the field.
template <size_t N> void copy_field(char (&field)[N], std::string_view value) {
    size_t n = std::min(value.size(), N);
    std::memcpy(field, value.data(), n);
    if (n < N)
        field[n] = '\0';
}

// Copies the key's value into the field; false when the key is missing.
template <size_t N> bool load_text(const char *path, const char *key, char (&field)[N]) {
    setting value(path, key);
    if (!value.found())
        return false;
    copy_field(field, value.c_str());
    return true;
}

// Parses the key's value with "%u" and no more checks: a leading number is enough and a
// minus sign wraps around. Kept that lenient so every settings file that loaded before still
// loads.
bool load_number(const char *path, const char *key, uint32_t *out) {
    setting value(path, key);
    unsigned number = 0;
    if (!value.found() || std::sscanf(value.c_str(), "%u", &number) != 1)
        return false;
    *out = number;
    return true;
}

bool is_utf8_continuation(char c) {
    return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
}

// Appends "%D" to a pattern that lacks it, so every drive name carries the identifier that
// tells partitions apart. The field is never overrun: when it cannot take "%D" and a NUL, the
// pattern is cut short to make room, neither inside a UTF-8 character nor right after a "%".
// Such a pattern is far beyond the length of a usable drive name anyway.
template <size_t N> void ensure_drive_marker(char (&field)[N]) {
    static_assert(N > 3);
    std::string_view text = field_text(field);
    if (text.find("%D") != std::string_view::npos)
        return;
    size_t end = text.size();
    if (end > N - 3) {
        end = N - 3;
        while (end > 0 && is_utf8_continuation(field[end]))
            --end;
        if (end > 0 && field[end - 1] == '%')
            --end;
    }
    std::memcpy(field + end, "%D", 3);
}

} // namespace

extern "C" {

int load_sysconf(const char *path, hotplugd_settings *settings) {
    if (path == nullptr || settings == nullptr)
        return -1;
    if (!load_text(path, "SHAREDIR", settings->share_dir) ||
        !load_text(path, "TMPDIR", settings->tmp_dir))
        return -1;
    {
        setting prog(path, "PROG");
        if (prog.found() && access(prog.c_str(), X_OK) == 0)
            copy_field(settings->prog, prog.c_str());
    }
    if (!load_text(path, "DRVNAME", settings->drive_name_format) ||
        settings->drive_name_format[0] == '\0')
        return -1;

    std::string_view drive_name = field_text(settings->drive_name_format);
    if (drive_name.find("%V") != std::string_view::npos) {
        settings->use_volume_label = 1;
        // Optional: without it names of unlabelled disks follow the default below.
        load_text(path, "VLABEL", settings->fallback_name_format);
    }
    if (settings->fallback_name_format[0] == '\0') {
        if (settings->use_volume_label == 1)
            copy_field(settings->fallback_name_format, "Drive-");
        else
            copy_field(settings->fallback_name_format, drive_name);
    }
    ensure_drive_marker(settings->fallback_name_format);
    ensure_drive_marker(settings->drive_name_format);
    // Making room for "%D" in a pattern that fills its field can cut off a "%V" at its end;
    // the flag must then say that names no longer carry a label.
    settings->use_volume_label =
        field_text(settings->drive_name_format).find("%V") != std::string_view::npos;

    if (!load_number(path, "MNTGID", &settings->mount_gid) ||
        !load_number(path, "DMOUNT", &settings->mount_delay) ||
        !load_number(path, "MAXPART", &settings->max_part))
        return -1;
    return 0;
}

} // extern "C"
