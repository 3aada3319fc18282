// probe: a new partition's device node, file-system kind, volume label, attributes and names.
#include "mount/probe.h"

#include "lib/kt_internal.h"
#include "mount/mount_internal.h"
#include "registry/sysfs.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

using kt::field_text;
using mount_engine::process;

// Output of the probing tools is read from a pipe; what they print on errors goes nowhere.
constexpr int tool_flags = PROC_STDOUT_PIPE | PROC_STDERR_NULL;
// disktype's lines are read into this at first, and the buffer grows for longer ones.
constexpr size_t initial_line_size = 256;
// A label tool's output is read up to this; the label keeps one byte less.
constexpr int32_t label_read_size = 128;

// Waits for a probing tool the caller started (holding a waited_child since before the start):
// the process once it ended in time with status 0 (its output is then all in the pipe), else
// null.
process finished(ktprocess *started) {
    process proc(started);
    unsigned int limit = PROBE_TOOL_LIMIT_MS;
    int status = -1;
    if (proc == nullptr || proc_wait_exittm(proc.get(), 0, &limit, &status) <= 0 || status != 0)
        return nullptr;
    return proc;
}

// The node for the request's device, made, or found there as a block device already.
bool make_node(const char *path, const mntmg_record *request) {
    if (mknod(path, S_IFBLK, makedev(request->major, request->minor)) == 0)
        return true;
    struct stat st;
    // lstat, not stat: a symbolic link left there must not lead the mount to another device.
    return errno == EEXIST && lstat(path, &st) == 0 && S_ISBLK(st.st_mode);
}

bool grow(kt::heap_ptr<char> &buffer, size_t &size) {
    auto *grown = static_cast<char *>(std::realloc(buffer.get(), size * 2));
    if (grown == nullptr)
        return false;
    (void)buffer.release();
    buffer.reset(grown);
    size *= 2;
    return true;
}

// The next line of the tool's output, terminated, into `line`, which grows as the line needs;
// false once the output has ended (or the buffer cannot grow).
bool next_line(ktprocess *proc, kt::heap_ptr<char> &line, size_t &size) {
    size_t length = 0;
    for (;;) {
        int n =
            proc_readd_stdout(proc, line.get() + length, static_cast<int32_t>(size - length), "\n");
        if (n < 0) {
            // The end: of a last line that had filled the buffer, or of the output itself.
            line.get()[length] = '\0';
            return length > 0;
        }
        if (static_cast<size_t>(n) < size - length)
            return true;
        length = size;
        if (!grow(line, size))
            return false;
    }
}

// The file-system kind disktype finds on the node; unknown when it cannot tell, fails or hangs.
int32_t probe_kind(const char *node_path) {
    size_t size = initial_line_size;
    kt::heap_ptr<char> line(static_cast<char *>(std::malloc(size)));
    if (line == nullptr)
        return FSTYPE_UNKNOWN;
    mount_engine::waited_child child;
    process proc = finished(proc_create(tool_flags, "disktype %s", node_path));
    probe_scan scan{};
    while (proc != nullptr && next_line(proc.get(), line, size))
        probe_scan_line(&scan, line.get());
    return scan.kind;
}

// The label that the label tool of `kind` prints for the node, cleaned; left empty when the
// kind has none, or the tool fails, hangs or prints nothing. The whole output is the label, as
// the appliance's tools print nothing else.
void read_label(int32_t kind, const char *node_path,
                char (&label)[sizeof(sddb_part_info::volume_label)]) {
    mount_engine::waited_child child;
    process proc;
    if (kind == FSTYPE_FAT || kind == FSTYPE_FAT32)
        proc = finished(proc_create(tool_flags, "mlabel -i %s -s ::", node_path));
    else if (kind == FSTYPE_NTFS)
        proc = finished(proc_create(tool_flags, "ntfsvlabel %s", node_path));
    if (proc == nullptr)
        return;
    char raw[label_read_size];
    int n = proc_readd_stdout_tm(proc.get(), raw, label_read_size, nullptr, nullptr);
    if (n <= 0)
        return;
    raw[std::min(n, label_read_size - 1)] = '\0';
    probe_clean_label(raw, label, sizeof label);
}

// A drive name is a directory right below the share directory: one non-empty path component
// other than "." and "..". The name rules never make anything else; this keeps a mistaken
// name pattern from mounting over the share directory or beside it.
bool is_directory_name(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

} // namespace

extern "C" {

int prepare_partition(mount_thread_ctx *ctx, sddb_record *record, const mntmg_record *request) {
    if (ctx == nullptr || ctx->settings == nullptr || record == nullptr || request == nullptr)
        return -1;
    const hotplugd_settings &settings = *ctx->settings;
    sddb_part_info &part = record->part_info;

    field_text tmp_dir(settings.tmp_dir);
    field_text node_name(record->node_name);
    if (std::snprintf(record->node_path, sizeof record->node_path, "%s/%s", tmp_dir.c_str(),
                      node_name.c_str()) < 1 ||
        !make_node(record->node_path, request))
        return -1;

    part.fs_type = probe_kind(record->node_path);
    read_label(part.fs_type, record->node_path, part.volume_label);

    field_text usb_path(request->usb_path), scsi_path(request->scsi_path),
        block_path(request->block_path);
    get_sysusbdata(usb_path.c_str(), &record->disk_info);
    get_sysscsidata(scsi_path.c_str(), &record->disk_info);
    get_sysblockdata(block_path.c_str(), &record->disk_info, &part);

    mount_engine::waited_child rom_store; // which archives with a child of its own
    if (get_drivename(ctx->drive_letter_table, &settings, record, ctx->write_rom,
                      ctx->fixed_drive) != 0)
        return -1;
    if (part.volume_label[0] == '\0')
        std::memcpy(part.volume_label, part.drive_name, sizeof part.volume_label);
    field_text drive_name(part.drive_name);
    // The mount point is named after the drive name, never after the label.
    field_text share_dir(settings.share_dir);
    if (!is_directory_name(drive_name.view()))
        return -1;
    return std::snprintf(record->mount_point, sizeof record->mount_point, "%s/%s",
                         share_dir.c_str(), drive_name.c_str()) < 1
               ? -1
               : 0;
}

} // extern "C"
