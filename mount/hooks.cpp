// hooks: starting the event program with its ACTION, and the usbmount helper's command lines.
#include "mount/hooks.h"

#include "lib/kt_internal.h"
#include "mount/mount_internal.h"
#include "mount/probe_text.h"

#include <cstdio>

namespace {

using kt::field_text;

// The appliance's event programs know these words; only BEFOREMNT and AFTERMNT are ever sent.
constexpr const char *action_words[] = {"UNKNOWN", "ADD",       "MOUNT",   "REMOVE",
                                        "UMOUNT",  "BEFOREMNT", "AFTERMNT"};

struct script_word {
    int32_t kind;
    const char *word;
};

// The file systems the usbmount helper script is told about, by the words it expects.
constexpr script_word script_words[] = {
    {FSTYPE_FAT, "vfat"},   {FSTYPE_FAT32, "vfat32"}, {FSTYPE_NTFS, "ntfs"},
    {FSTYPE_LINUX, "ext2"}, {FSTYPE_EXT2, "ext2"},    {FSTYPE_EXT3, "ext3"},
};

const char *script_word_of(int32_t kind) {
    for (const script_word &entry : script_words)
        if (entry.kind == kind)
            return entry.word;
    return nullptr;
}

// The helper's command lines are made in a buffer of this size; a longer one is cut.
constexpr size_t command_size = 256;
constexpr char helper_script[] = "/etc/scripts/usbmount_helper.sh";

} // namespace

extern "C" {

int callprog(const char *prog, int action) {
    if ((action != HOOK_BEFOREMNT && action != HOOK_AFTERMNT) || prog == nullptr || prog[0] == '\0')
        return -1;
    const char *word = action_words[action];
    // ACTION stays set afterwards, so the scripts that the engine runs later see it too.
    mount_engine::waited_child child;
    mount_engine::process proc;
    if (setenv("ACTION", word, 1) == 0)
        proc.reset(proc_create(PROC_STDERR_NULL, "%s", prog));
    // The line records the start only and always ends in "timeout" and 0: the appliance's log
    // readers match it as it stands, whatever the program does later.
    syslog(LOG_DEBUG, "callprog(%s) prog=%s act=%s, retval=(%s,%d)",
           proc != nullptr ? "success" : "failed", prog, word, "timeout", 0);
    if (proc == nullptr)
        return -1;
    unsigned int limit = HOOK_PROGRAM_LIMIT_MS;
    proc_wait_exittm(proc.get(), 0, &limit, nullptr);
    return 0;
}

int hook_add_script(const sddb_record *record, uint16_t minor) {
    const char *fs = record != nullptr ? script_word_of(record->part_info.fs_type) : nullptr;
    if (fs == nullptr)
        return -1;
    char disk[8] = "";
    disk_name_of(minor, disk, sizeof disk);
    field_text mount_point(record->mount_point);
    char command[command_size];
    // A mount point too long for the buffer is cut, closing quote and all: the shell then
    // refuses the line rather than run part of a name (so, hardened, the script is not run).
    // The cut is meant, so GCC is not to warn of it where only the hardened build reads `length`.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-truncation"
#endif
    const int length = std::snprintf(command, sizeof command,
                                     "sh /etc/scripts/usbmount_helper.sh add %s %d %s \"%s\"", disk,
                                     record->partition, fs, mount_point.c_str());
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
    std::printf("cmd %s\n", command);
    char partition[12];
    std::snprintf(partition, sizeof partition, "%d", record->partition);
    const char *argv[] = {"sh", helper_script,       "add",  disk, partition,
                          fs,   mount_point.c_str(), nullptr};
    if (!kt::hardened || length < static_cast<int>(sizeof command))
        mount_engine::run_script(command, argv);
    return 0;
}

int hook_remove_script(const sddb_record *record, uint16_t minor) {
    if (record == nullptr)
        return -1;
    char disk[8] = "";
    disk_name_of(minor, disk, sizeof disk);
    char command[command_size];
    std::snprintf(command, sizeof command, "sh /etc/scripts/usbmount_helper.sh remove %s %d", disk,
                  record->partition);
    char partition[12];
    std::snprintf(partition, sizeof partition, "%d", record->partition);
    const char *argv[] = {"sh", helper_script, "remove", disk, partition, nullptr};
    mount_engine::run_script(command, argv);
    std::printf("cmd %s\n", command);
    return 0;
}

int disk_name_of(uint32_t minor, char *out, size_t out_size) {
    if (out == nullptr || out_size < 6 || (minor >> 4) >= 26)
        return -1;
    std::snprintf(out, out_size, "sd%c", static_cast<char>('a' + (minor >> 4)));
    return 0;
}

} // extern "C"
