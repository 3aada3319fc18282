// fuzz_drivename: a drive name from device texts and name patterns. The input is a flag byte
// (bit 0: letters on, bit 1: labels in names, the high nibble: the partition), then serial,
// vendor, model, volume label, DRVNAME and VLABEL, separated by NUL bytes.
#include "fuzz/fuzz.h"
#include "registry/drivename.h"

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    const uint8_t flags = *data++;
    --size;
    sddb_record record{};
    hotplugd_settings settings{};
    record.disk_index = 1;
    record.partition = flags >> 4;
    settings.use_volume_label = (flags >> 1) & 1;
    fuzz::text piece;
    char *fields[] = {record.disk_info.serial,    record.disk_info.vendor,
                      record.disk_info.model,     record.part_info.volume_label,
                      settings.drive_name_format, settings.fallback_name_format};
    const size_t widths[] = {
        sizeof record.disk_info.serial,    sizeof record.disk_info.vendor,
        sizeof record.disk_info.model,     sizeof record.part_info.volume_label,
        sizeof settings.drive_name_format, sizeof settings.fallback_name_format};
    // Up to a field's width: a text that fills it has no terminator, as in the records.
    for (size_t i = 0; i < 6 && fuzz::take_piece(&data, &size, &piece); ++i)
        std::memcpy(fields[i], piece.get(), std::min(piece.size + 1, widths[i]));
    // With letters on, a disk with a serial takes the configuration lock at its fixed path,
    // which the host keeps: only disks without one are lettered here.
    const int letters = (flags & 1) != 0 && record.disk_info.serial[0] == '\0';
    drive_letter_table table;
    initialize_lock_dletter(&table, "");
    if (get_drivename(&table, &settings, &record, 0, letters) == 0 &&
        strnlen(record.part_info.drive_name, sizeof record.part_info.drive_name) > 126)
        std::abort();
    return 0;
}
