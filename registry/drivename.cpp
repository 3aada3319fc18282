// drivename: drive identifiers and names, the letter table, and letters remembered per serial.
#include "registry/drivename.h"

#include "config/ktcfg.h"
#include "config/ktcfg_rom.h"
#include "lib/kt_internal.h"
#include "lib/ktmap.h"
#include "lib/ktutf8.h"
#include "registry/drivename_internal.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <sys/file.h>
#include <syslog.h>

namespace {

using kt::field_text;

// The directory that holds the letter file and that goes to ROM whole.
constexpr char sysconfig_dir[] = "/etc/sysconfig";
constexpr size_t id_size = sizeof(sddb_part_info::drive_id);
// A drive name is written with this bound, so it has at most 126 characters.
constexpr size_t name_limit = sizeof(sddb_part_info::drive_name) - 1;
constexpr size_t label_size = 128;
// The label-or-model word is cut so that vendor and word together stay within this.
constexpr size_t label_word_limit = 120;
// With letters off only the start of the serial is looked at.
constexpr size_t serial_head_size = 128;

constexpr uint32_t slot_number(uint32_t group, uint32_t letter) {
    return group * DRIVE_SLOT_GROUP + letter;
}
constexpr uint32_t group_of(uint32_t slot) {
    return slot / DRIVE_SLOT_GROUP;
}
constexpr uint32_t letter_of(uint32_t slot) {
    return slot % DRIVE_SLOT_GROUP;
}
constexpr bool in_table(uint32_t slot) {
    return group_of(slot) < DRIVE_GROUP_COUNT && letter_of(slot) < DRIVE_LETTER_COUNT;
}
uint32_t owner_of(int16_t disk_index) {
    return static_cast<uint32_t>(disk_index + 1);
}

// Locale-free, so a name never depends on the daemon's environment.
constexpr bool is_word_char(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

struct release_string {
    void operator()(char *value) const { kt_cfg_release_string(value); }
};
using ini_string = std::unique_ptr<char, release_string>;

struct dispose_map {
    void operator()(ktmap *map) const { ktmap_dispose(map); }
};

// The first slot of `group` that the record's disk may take, taken; false when none is left.
bool take_first_free(drive_letter_table *table, uint32_t group, const sddb_record *record,
                     uint32_t *slot) {
    for (uint32_t letter = 0; letter < DRIVE_LETTER_COUNT; ++letter) {
        uint32_t candidate = slot_number(group, letter);
        if (drivename::take_slot(table, candidate, record->disk_index, record->partition) == 0) {
            *slot = candidate;
            return true;
        }
    }
    return false;
}

// What the search for a remembered letter works with, all terminated.
struct letter_search {
    drive_letter_table *table;
    const sddb_record *record;
    const char *config_path;
    const char *tmp_dir;
    const char *rom_device; // null: the file is not stored to ROM
    char *serial;
};

// Copies the letter file's directory onto the ROM device and has the driver write it out.
int store_to_rom(const char *rom) {
    if (kt_cfg_rom_store(rom, sysconfig_dir) < 0) {
        syslog(LOG_CRIT, "config rom store(config %s, rom %s)\n", sysconfig_dir, rom);
        return -1;
    }
    if (kt_cfg_flushcache(rom) < 0) {
        syslog(LOG_CRIT, "config flush cache(rom %s)\n", rom);
        return -1;
    }
    syslog(LOG_NOTICE, "write a config file to ROM(config %s rom %s)\n", sysconfig_dir, rom);
    return 0;
}

// Sets `key` to the serial in the letter file. The store only replaces keys the file already
// holds, so a file shipped without the key stays as it was: the letter is the disk's in the
// table all the same, but not remembered. Kept so: the appliance's own configuration tools
// decide, by the keys they ship, whether letters are remembered at all.
int write_assignment(const letter_search &search, char *key) {
    std::unique_ptr<ktmap, dispose_map> map(ktmap_create(std::strcmp));
    ktpair pair{key, search.serial};
    if (map == nullptr || ktlist_insert(map->list, map->list, &pair) == nullptr)
        return -ENOMEM;
    return kt_cfg_set_strings(search.config_path, search.tmp_dir, map.get());
}

// A new serial gets the free letter `letter`: written first, then stored to ROM when asked,
// then taken. Whatever fails after the write leaves the key in the file.
int assign_letter(const letter_search &search, uint32_t letter, char *key, uint32_t *slot) {
    if (write_assignment(search, key) != 0) {
        syslog(LOG_CRIT, "sys config write(%s)\n", search.config_path);
        return -1;
    }
    if (search.rom_device != nullptr && store_to_rom(search.rom_device) != 0)
        return -1;
    uint32_t candidate = slot_number(0, letter);
    if (drivename::take_slot(search.table, candidate, search.record->disk_index,
                             search.record->partition) != 0)
        return -1;
    *slot = candidate;
    return 0;
}

// The serial's remembered letter; while another disk holds it (two disks reporting the same
// serial), an overflow slot "YA" ... "YZ".
int claim_letter(const letter_search &search, uint32_t letter, uint32_t *slot) {
    uint32_t remembered = slot_number(0, letter);
    if (drivename::take_slot(search.table, remembered, search.record->disk_index,
                             search.record->partition) == 0) {
        *slot = remembered;
        return 0;
    }
    return take_first_free(search.table, 1, search.record, slot) ? 0 : -1;
}

// Walks DRIVE_LETTERA ... DRIVE_LETTERZ with the configuration lock held.
int search_letters(const letter_search &search, uint32_t *slot) {
    char key[] = "DRIVE_LETTERA";
    for (uint32_t letter = 0; letter < DRIVE_LETTER_COUNT; ++letter) {
        key[sizeof key - 2] = static_cast<char>('A' + letter);
        char *raw = nullptr;
        int found = kt_cfg_get_ini_string(search.config_path, nullptr, key, &raw);
        ini_string value(raw);
        // The first free key (absent, or empty) ends the search even when a later key holds
        // this serial: the disk then gets the free letter and two keys name the same serial.
        // Kept so: disks on appliances in the field must go on getting the letters, and thus
        // the share names, they got before.
        if (found == -ENOENT || (found == 0 && value.get()[0] == '\0'))
            return assign_letter(search, letter, key, slot);
        if (found != 0)
            return -1;
        if (std::strcmp(value.get(), search.serial) == 0)
            return claim_letter(search, letter, slot);
    }
    // All 26 keys name other disks: this one is called 'A' without taking the slot, so it may
    // share the letter with the disk that owns it. Required as it stands: appliances with a
    // full file have always named every further disk this way.
    *slot = slot_number(0, 0);
    return 0;
}

// The letter remembered for the serial in the letter file, or a new one written there, under
// the lock that keeps the appliance's other programs out of the file meanwhile.
int remembered_slot(const letter_search &search, uint32_t *slot) {
    int lock = kt_cfg_get_lock(LOCK_EX);
    if (lock == -1)
        return -1;
    int result = lock < 0 ? -1 : search_letters(search, slot);
    // Another failed lock is "released" too, with its negative value, which closes nothing.
    kt_cfg_release_lock(lock);
    return result;
}

// With letters off the serial names the drive: its first word when that is short, else the
// word's last four characters.
void serial_identifier(field_text<sizeof(sddb_disk_info::serial)> &serial, char (&id)[id_size]) {
    if (!serial.usable())
        return;
    char head[serial_head_size + 1];
    std::snprintf(head, sizeof head, "%.*s", static_cast<int>(serial_head_size), serial.get());
    const char *word = drivename::first_word(head);
    size_t length = std::strlen(word);
    std::snprintf(id, sizeof id, "%s", length < 5 ? word : word + length - 4);
}

// Appends `text` to the terminated string in `buffer`, cut where the buffer is full.
template <size_t N> void append(char (&buffer)[N], std::string_view text) {
    size_t length = strnlen(buffer, N - 1);
    size_t n = std::min(text.size(), N - 1 - length);
    std::memcpy(buffer + length, text.data(), n);
    buffer[length + n] = '\0';
}

// The "%V" value: the vendor's first word with "_", then the first word of the volume label or,
// without a usable label, of the model; when that gives nothing, the volume label as it
// stands. Null when there is no value or it is not UTF-8.
const char *label_value(const sddb_record *record, char (&value)[label_size],
                        field_text<sizeof(sddb_part_info::volume_label)> &raw_label) {
    value[0] = '\0';
    field_text vendor(record->disk_info.vendor);
    if (vendor.usable()) {
        std::string_view word = drivename::first_word(vendor.get());
        if (!word.empty()) {
            append(value, word);
            append(value, "_");
        }
    }
    field_text label(record->part_info.volume_label);
    field_text model(record->disk_info.model);
    char *source = label.usable() ? label.get() : model.usable() ? model.get() : nullptr;
    if (source != nullptr) {
        size_t length = std::strlen(value);
        size_t room = length < label_word_limit ? label_word_limit - length : 0;
        append(value, kt::sub(drivename::first_word(source), 0, room));
    }
    const char *chosen = value[0] != '\0' ? value : raw_label.get();
    return *chosen != '\0' && kt_is_utf8(chosen) ? chosen : nullptr;
}

// The name becomes a directory under the share directory and, inside double quotes, a word of
// the add script's shell command line. The raw volume label is used as it stands, so a label
// holding a slash or a control byte would lead out of the share directory or break a line, and
// a "$" would expand in the shell; such a name gives way to the fallback, which holds no device
// text. (Probing turns quotes, backquotes and backslashes into "_" already, but names must be
// safe whoever filled the record.)
bool is_safe_name(const char *name) {
    for (const char *p = name; *p != '\0'; ++p)
        if (*p == '/' || *p == '$' || static_cast<unsigned char>(*p) < 0x20 || *p == 0x7f)
            return false;
    return true;
}

// DRVNAME: the pattern with the "%V" value and the identifier put in for the first "%V" and
// the first "%D". False when the pattern lacks a marker or the name would be empty or longer
// than 126 characters. (A piece of the pattern too long for a name makes the name too long
// either way, so the pieces need no bound of their own.)
bool labelled_name(const hotplugd_settings *settings, const char *value, const char *id,
                   char *name) {
    field_text format(settings->drive_name_format);
    std::string_view pattern(format.get());
    size_t v = pattern.find("%V"), d = pattern.find("%D");
    // A loaded pattern holds both; one made otherwise without them gets the fallback name.
    if (v == std::string_view::npos || d == std::string_view::npos)
        return false;
    size_t first = std::min(v, d), second = std::max(v, d);
    std::string_view prefix = kt::sub(pattern, 0, first);
    std::string_view middle = kt::sub(pattern, first + 2, second - first - 2);
    std::string_view suffix = kt::sub(pattern, second + 2);
    int length = std::snprintf(name, name_limit, "%.*s%s%.*s%s%.*s",
                               static_cast<int>(prefix.size()), prefix.data(), v < d ? value : id,
                               static_cast<int>(middle.size()), middle.data(), v < d ? id : value,
                               static_cast<int>(suffix.size()), suffix.data());
    return length >= 1 && static_cast<size_t>(length) < name_limit && is_safe_name(name);
}

// VLABEL: the identifier put in for the first "%D" (after a pattern without one, as the
// settings loader would have appended it); a name that does not fit is cut.
int fallback_name(const hotplugd_settings *settings, const char *id, char *name) {
    field_text format(settings->fallback_name_format);
    std::string_view pattern(format.get());
    size_t d = pattern.find("%D");
    std::string_view prefix = kt::sub(pattern, 0, d);
    std::string_view suffix = d == std::string_view::npos ? "" : kt::sub(pattern, d + 2);
    int length = std::snprintf(name, name_limit, "%.*s%s%.*s", static_cast<int>(prefix.size()),
                               prefix.data(), id, static_cast<int>(suffix.size()), suffix.data());
    return length < 0 ? -1 : 0;
}

} // namespace

namespace drivename {

int take_slot(drive_letter_table *table, uint32_t slot, int16_t disk_index, int16_t partition) {
    if (table == nullptr || !in_table(slot))
        return -1;
    uint32_t &owner = table->owner[group_of(slot)][letter_of(slot)];
    uint32_t &mask = table->partition_mask[group_of(slot)][letter_of(slot)];
    if (owner != 0 && owner != owner_of(disk_index))
        return -1;
    uint32_t bit = 1u << (static_cast<uint32_t>(partition) & 31u);
    if ((mask & bit) != 0)
        return 0;
    owner = owner_of(disk_index);
    mask |= bit;
    return 0;
}

int format_slot(uint32_t slot, char *out, size_t size) {
    if (out == nullptr || size < 3 || !in_table(slot))
        return -1;
    constexpr char group_prefix[DRIVE_GROUP_COUNT] = {'\0', 'Y', 'Z'};
    size_t n = 0;
    if (group_prefix[group_of(slot)] != '\0')
        out[n++] = group_prefix[group_of(slot)];
    out[n++] = static_cast<char>('A' + letter_of(slot));
    out[n] = '\0';
    return 0;
}

char *first_word(char *text) {
    if (text == nullptr)
        return nullptr;
    while (*text != '\0' && !is_word_char(*text))
        ++text;
    char *end = text;
    while (is_word_char(*end))
        ++end;
    *end = '\0';
    return text;
}

} // namespace drivename

extern "C" {

int initialize_lock_dletter(drive_letter_table *table, const char *path) {
    if (table == nullptr || path == nullptr)
        return -1;
    std::memset(table, 0, sizeof *table);
    // After the clearing, so the table's own (now empty) config_path copies as nothing.
    std::memmove(table->config_path, path, strnlen(path, sizeof table->config_path));
    return 0;
}

int get_drivename(drive_letter_table *table, const hotplugd_settings *settings, sddb_record *record,
                  int write_rom, int fixed_drive) {
    if (table == nullptr || settings == nullptr || record == nullptr)
        return -1;
    char id[id_size] = "";
    field_text serial(record->disk_info.serial);
    if (fixed_drive != 0) {
        uint32_t slot = 0;
        // A serial is stored in the letter file as a key's value, one line per key. A device
        // whose serial holds a line feed could write keys of its own choosing there (taking
        // letters from other disks on every plug), so it is lettered as a disk without serial.
        if (!serial.empty() && !serial.holds('\n')) {
            field_text config_path(table->config_path);
            field_text tmp_dir(settings->tmp_dir);
            field_text rom_device(settings->rom_device);
            const letter_search search{table,
                                       record,
                                       config_path.get(),
                                       tmp_dir.get(),
                                       write_rom != 0 ? rom_device.get() : nullptr,
                                       serial.get()};
            if (remembered_slot(search, &slot) != 0)
                return -1;
        } else if (!take_first_free(table, 2, record, &slot)) {
            return -1;
        }
        if (drivename::format_slot(slot, id, sizeof id) != 0)
            return -1;
        record->drive_slot = slot;
    } else {
        serial_identifier(serial, id);
    }
    // Partition numbers are 0 to 15, so the identifier never has to be cut here.
    size_t id_length = std::strlen(id);
    if (std::snprintf(id + id_length, sizeof id - id_length, "%d", record->partition) < 0)
        return -1;
    std::snprintf(record->part_info.drive_id, sizeof record->part_info.drive_id, "%s", id);

    char *name = record->part_info.drive_name;
    if (settings->use_volume_label != 0) {
        char value[label_size];
        field_text raw_label(record->part_info.volume_label);
        const char *label = label_value(record, value, raw_label);
        if (label != nullptr && labelled_name(settings, label, id, name))
            return 0;
    }
    return fallback_name(settings, id, name);
}

int release_drivename(drive_letter_table *table, const sddb_record *record) {
    if (table == nullptr || record == nullptr || !in_table(record->drive_slot))
        return -1;
    uint32_t &owner = table->owner[group_of(record->drive_slot)][letter_of(record->drive_slot)];
    // The slot goes for all the disk's partitions at once: a disk leaves whole, and the
    // releases of its other partitions then find the slot free and change nothing.
    if (owner == owner_of(record->disk_index)) {
        owner = 0;
        table->partition_mask[group_of(record->drive_slot)][letter_of(record->drive_slot)] = 0;
    }
    return 0;
}

} // extern "C"
