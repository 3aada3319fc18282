// Building blocks of the drive names: slot ownership, slot texts, and the word rule for names.
#ifndef REGISTRY_DRIVENAME_INTERNAL_H
#define REGISTRY_DRIVENAME_INTERNAL_H

#include "registry/drivename.h"

#include <cstddef>
#include <cstdint>

namespace drivename {

// Gives `slot` to partition `partition` of disk `disk_index`: 0 when it is now that disk's
// (already held by the same disk: nothing changes but the partition's bit), -1 when the slot
// lies beyond the table or another disk owns it.
int take_slot(drive_letter_table *table, uint32_t slot, int16_t disk_index, int16_t partition);

// The text of `slot` into `out` ("C", "YC" or "ZC"): 0, or -1 when the slot lies beyond the
// table or `out` is null or shorter than 3 bytes.
int format_slot(uint32_t slot, char *out, size_t size);

// The first run of ASCII letters and digits in `text`, cut in place right after it; everything
// else (blanks, punctuation, control and non-ASCII bytes) only separates words. An empty
// string when there is none; null for null.
char *first_word(char *text);

} // namespace drivename

#endif
