// fuzz_ktcfg: an INI file's bytes, then after the last NUL a key map ("KEY=value" lines; a line
// without "=" is a key without value): every reader, then the atomic rewrite.
#include "config/ktcfg.h"
#include "fuzz/fuzz.h"

namespace {

// Lines, counting a last one without its line feed.
size_t lines_in(const char *path) {
    size_t lines = 0;
    int last = '\n';
    if (FILE *f = std::fopen(path, "r")) {
        for (int c; (c = std::fgetc(f)) != EOF; last = c)
            lines += c == '\n';
        std::fclose(f);
    }
    return lines + (last != '\n');
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static char path[256];
    const auto *end = static_cast<const uint8_t *>(memrchr(data, 0, size));
    const size_t file_size = end != nullptr ? static_cast<size_t>(end - data) : size;
    fuzz::write_file(fuzz::scratch_path(path, "system.conf"), data, file_size);
    fuzz::text map_text = fuzz::copy(data + file_size, size - file_size);

    ktmap *pairs = ktmap_create(std::strcmp);
    ktpair pair_store[64];
    size_t count = 0;
    for (char *line = end != nullptr ? map_text.get() + 1 : nullptr, *next;
         line != nullptr && count < 64; line = next) {
        next = std::strchr(line, '\n');
        if (next != nullptr)
            *next++ = '\0';
        char *eq = std::strchr(line, '=');
        if (eq != nullptr)
            *eq++ = '\0';
        pair_store[count] = {line, eq};
        ktlist_insert(pairs->list, pairs->list, &pair_store[count++]);
    }

    ktlist *sections = nullptr;
    if (kt_cfg_get_sections(path, &sections) == 0) {
        for (ktlist_node *node = sections->next; node != sections; node = node->next) {
            ktmap *keys = nullptr;
            if (kt_cfg_get_section(path, static_cast<const char *>(node->data), &keys) == 0)
                kt_cfg_release_section(keys);
        }
        kt_cfg_release_sections(sections);
    }
    for (size_t i = 0; i < count; ++i) {
        char *value = nullptr;
        if (kt_cfg_get_ini_string(path, nullptr, pair_store[i].key, &value) == 0)
            kt_cfg_release_string(value);
    }
    // The rewrite replaces values in place: it neither adds nor loses a line.
    const size_t before = lines_in(path);
    if (kt_cfg_set_strings(path, fuzz::scratch_dir(), pairs) == 0 && lines_in(path) != before)
        std::abort();
    ktmap_dispose(pairs);
    return 0;
}
