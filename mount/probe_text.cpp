// probe_text: the rules that turn disktype's lines into a kind and a label tool's text into a
// label.
#include "mount/probe_text.h"

#include "lib/kt_internal.h"
#include "lib/ktutf8.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace {

using std::string_view;

struct named_kind {
    string_view name;
    int32_t kind;
};

// The text disktype puts before " file system", compared whole; any other name beginning with
// "FAT" is a FAT as well, and names not listed (XFS, Ext4 ...) decide nothing.
constexpr named_kind file_systems[] = {
    {"NTFS", FSTYPE_NTFS},   {"FAT12", FSTYPE_FAT}, {"FAT16", FSTYPE_FAT},
    {"FAT32", FSTYPE_FAT32}, {"Ext2", FSTYPE_EXT2}, {"Ext3", FSTYPE_EXT3},
};

struct partition_type {
    unsigned char code;
    int32_t kind;
};

// MBR partition type codes that say what a partition holds. Codes of 0x86 and above are
// ignored by being left out (checked below).
constexpr partition_type partition_types[] = {
    {0x01, FSTYPE_FAT},           {0x04, FSTYPE_FAT},           {0x06, FSTYPE_FAT},
    {0x0E, FSTYPE_FAT},           {0x11, FSTYPE_FAT},           {0x14, FSTYPE_FAT},
    {0x16, FSTYPE_FAT},           {0x1E, FSTYPE_FAT},           {0x0B, FSTYPE_FAT32},
    {0x0C, FSTYPE_FAT32},         {0x1B, FSTYPE_FAT32},         {0x1C, FSTYPE_FAT32},
    {0x07, FSTYPE_NTFS},          {0x17, FSTYPE_NTFS},          {0x05, FSTYPE_PARTITION_MAP},
    {0x0F, FSTYPE_PARTITION_MAP}, {0x85, FSTYPE_PARTITION_MAP}, {0x82, FSTYPE_SWAP},
    {0x83, FSTYPE_LINUX},
};

constexpr bool all_below_ignored_codes() {
    for (const partition_type &type : partition_types)
        if (type.code >= 0x86)
            return false;
    return true;
}
static_assert(all_below_ignored_codes(), "codes of 0x86 and above must stay unlisted");

bool contains(string_view line, string_view word) {
    return line.find(word) != string_view::npos;
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// The kind named before " file system", or FSTYPE_UNKNOWN for a name that decides nothing.
int32_t file_system_kind(string_view name) {
    name.remove_prefix(std::min(name.find_first_not_of(' '), name.size()));
    for (const named_kind &fs : file_systems)
        if (name == fs.name)
            return fs.kind;
    return kt::sub(name, 0, 3) == "FAT" ? FSTYPE_FAT : FSTYPE_UNKNOWN;
}

// The kind of the partition type code in the (up to) two hexadecimal digits `digits` begins
// with; FSTYPE_UNKNOWN when there is no digit (code 0), or the code is ignored or not listed.
int32_t partition_type_kind(string_view digits) {
    unsigned code = 0;
    size_t n = 0;
    for (; n < 2 && n < digits.size() && hex_digit(digits[n]) >= 0; ++n)
        code = code * 16 + static_cast<unsigned>(hex_digit(digits[n]));
    for (const partition_type &type : partition_types)
        if (type.code == code)
            return type.kind;
    return FSTYPE_UNKNOWN;
}

// What a label byte becomes in a share name: 0 for a control byte, which is dropped.
constexpr char label_byte(unsigned char c) {
    if (c < 0x20 || c == 0x7f)
        return '\0';
    switch (c) {
    case '/':
    case '"':
    case '\'':
    case '`':
    case '*':
    case '\\':
    case '|':
    case ':':
    case '?':
    case ' ':
        return '_';
    case '[':
    case '<':
        return '(';
    case ']':
    case '>':
        return ')';
    default:
        return static_cast<char>(c);
    }
}

// Labels are cut so that the longest one, at most 121 bytes, fits this with its terminator.
constexpr int32_t label_cut = 122;

} // namespace

extern "C" {

void probe_scan_line(probe_scan *scan, const char *text) {
    if (scan == nullptr || text == nullptr || scan->partition_map_seen)
        return;
    const string_view line(text);
    // A partition map decides even after a file system was named: such a device holds a
    // table, and whatever follows describes its partitions, not the device itself.
    if (contains(line, "partition map") || contains(line, "partition_map")) {
        scan->kind = FSTYPE_PARTITION_MAP;
        scan->partition_map_seen = 1;
        return;
    }
    if (scan->file_system_seen)
        return;
    if (size_t at = line.find(" file system"); at != string_view::npos) {
        int32_t kind = file_system_kind(kt::sub(line, 0, at));
        if (kind != FSTYPE_UNKNOWN) {
            scan->kind = kind;
            scan->file_system_seen = 1;
        }
    } else if (contains(line, "Linux swap,")) {
        scan->kind = FSTYPE_SWAP;
        scan->file_system_seen = 1;
    } else if (size_t type = line.find("Type 0x"); type != string_view::npos) {
        // A partition type is a hint only: a file system named later still decides.
        int32_t kind = partition_type_kind(kt::sub(line, type + std::strlen("Type 0x")));
        if (kind != FSTYPE_UNKNOWN)
            scan->kind = kind;
    }
}

int probe_clean_label(const char *raw, char *out, size_t out_size) {
    if (raw == nullptr || out == nullptr || out_size == 0)
        return -1;
    out[0] = '\0';
    if (kt_is_utf8(raw) == 0)
        return 0;
    size_t n = 0;
    for (const char *p = raw; *p != '\0' && n + 1 < out_size; ++p)
        if (char c = label_byte(static_cast<unsigned char>(*p)); c != '\0')
            out[n++] = c;
    out[n] = '\0';
    // The limit never exceeds the buffer, so a character that the buffer split is dropped too.
    const auto limit = static_cast<int32_t>(std::min<size_t>(label_cut, out_size));
    int32_t cut = kt_round_utf8(out, limit);
    if (cut >= 0 && static_cast<size_t>(cut) < n) {
        out[cut] = '\0';
        n = static_cast<size_t>(cut);
    }
    return static_cast<int>(n);
}

} // extern "C"
