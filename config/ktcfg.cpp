// ktcfg: the INI configuration store: lock file, readers and the rewrite through a rename.
#include "config/ktcfg.h"

#include "config/ktcfg_internal.h"
#include "lib/kt_internal.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

// Decimal 644, i.e. octal 01204 (sticky, owner write, others read), kept as it is: every
// program of the appliance that links this library creates the lock file with it, and only
// the flock on the file counts, never its mode or content.
constexpr mode_t lock_file_mode = 644;

// Reads a file with getline, so a line of any length fits; closes and frees on every path.
class line_reader {
  public:
    explicit line_reader(const char *path) : file_(std::fopen(path, "r")) {
        open_errno_ = file_ == nullptr ? errno : 0;
    }
    ~line_reader() {
        std::free(buffer_);
        if (file_ != nullptr)
            std::fclose(file_);
    }
    line_reader(const line_reader &) = delete;
    line_reader &operator=(const line_reader &) = delete;

    // 0, or the errno of the failed open.
    int open_errno() const { return open_errno_; }

    // The next line, with its line feed when it has one; false at the end or on an error.
    bool next(std::string_view *line) {
        ssize_t n = getline(&buffer_, &capacity_, file_);
        if (n < 0)
            return false;
        *line = std::string_view(buffer_, static_cast<size_t>(n));
        return true;
    }

    // Whether next() stopped on a read error rather than at the end.
    bool failed() const { return std::ferror(file_) != 0; }

  private:
    std::FILE *file_;
    int open_errno_;
    char *buffer_ = nullptr;
    size_t capacity_ = 0;
};

// Buffers output for a descriptor and writes it out with write(2) rather than through a stdio
// stream, so a short write shows where it happens and nothing is left behind in a stream
// buffer once the descriptor is closed.
class file_writer {
  public:
    explicit file_writer(int fd) : fd_(fd) {}

    // False when the descriptor took fewer bytes than it was given.
    bool put(std::string_view text) {
        if (used_ + text.size() > sizeof buffer_) {
            if (flush() != 0)
                return false;
            if (text.size() >= sizeof buffer_)
                return write_all(text) == 0;
        }
        std::memcpy(buffer_ + used_, text.data(), text.size());
        used_ += text.size();
        return true;
    }

    // Writes out what is buffered: 0 or minus errno.
    int flush() {
        int result = write_all(std::string_view(buffer_, used_));
        used_ = 0;
        return result;
    }

  private:
    int write_all(std::string_view text) {
        while (!text.empty()) {
            ssize_t n = write(fd_, text.data(), text.size());
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return n == 0 ? -ENOSPC : -errno;
            text.remove_prefix(static_cast<size_t>(n));
        }
        return 0;
    }

    int fd_;
    size_t used_ = 0;
    char buffer_[4096];
};

char *new_string(std::string_view text) {
    auto *copy = static_cast<char *>(std::malloc(text.size() + 1));
    if (copy == nullptr)
        return nullptr;
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

void free_pair(ktpair *pair) {
    if (pair == nullptr)
        return;
    std::free(pair->key);
    std::free(pair->value);
    std::free(pair);
}

ktpair *new_pair(const ktcfg::key_value &kv) {
    auto *pair = static_cast<ktpair *>(std::calloc(1, sizeof(ktpair)));
    if (pair == nullptr)
        return nullptr;
    pair->key = new_string(kv.key);
    pair->value = new_string(kv.value);
    if (pair->key == nullptr || pair->value == nullptr) {
        free_pair(pair);
        return nullptr;
    }
    return pair;
}

// The first pair whose key equals `key`, walking from the map's first element; a pair or key
// that is null never matches. The map's own compare function is not used: keys are matched
// exactly, as strcmp does, whatever the map was created with.
const ktpair *find_pair(const ktmap *pairs, std::string_view key) {
    for (const ktlist_node *node = pairs->list->next; node != pairs->list; node = node->next) {
        const auto *pair = static_cast<const ktpair *>(node->data);
        if (pair != nullptr && pair->key != nullptr && key == pair->key)
            return pair;
    }
    return nullptr;
}

// Hands every key line of `section` (null or "" for the top of the file) to `visit`, in file
// order, until `visit` returns false. 0; -EIO when the file cannot be opened; -ENOENT when the
// section is missing.
template <typename Visit> int walk_section(const char *path, const char *section, Visit visit) {
    line_reader in(path);
    if (in.open_errno() != 0)
        return -EIO;
    ktcfg::section_cursor cursor(section != nullptr ? section : "");
    std::string_view line;
    while (in.next(&line)) {
        ktcfg::section_cursor::step step = cursor.feed(line);
        if (step == ktcfg::section_cursor::end)
            break;
        ktcfg::key_value kv;
        if (step == ktcfg::section_cursor::key_line && ktcfg::split_key_value(line, &kv) &&
            !visit(kv))
            break;
    }
    return cursor.found() ? 0 : -ENOENT;
}

struct sections_deleter {
    void operator()(ktlist *list) const { kt_cfg_release_sections(list); }
};
struct section_deleter {
    void operator()(ktmap *map) const { kt_cfg_release_section(map); }
};

} // namespace

extern "C" {

int kt_cfg_get_lock(int operation) {
    // Close-on-exec: programs run while the lock is held (tar, for the ROM) have no use for it,
    // and one that outlived a holder killed before its release would keep the lock.
    int fd = open(KT_CFG_LOCK_FILE, O_WRONLY | O_CREAT | O_CLOEXEC, lock_file_mode);
    if (fd < 0)
        return -errno;
    if (flock(fd, operation) != 0) {
        int err = errno;
        close(fd);
        return -err;
    }
    return fd;
}

int kt_cfg_release_lock(int fd) {
    flock(fd, LOCK_UN);
    return close(fd);
}

int kt_cfg_get_ini_string(const char *path, const char *section, const char *key, char **value) {
    if (path == nullptr || key == nullptr || value == nullptr)
        return -EINVAL;
    int result = -ENOENT;
    int walked = walk_section(path, section, [&](const ktcfg::key_value &kv) {
        if (kv.key != key)
            return true;
        char *copy = new_string(kv.value);
        if (copy != nullptr)
            *value = copy;
        result = copy != nullptr ? 0 : -ENOMEM;
        return false;
    });
    return walked != 0 ? walked : result;
}

void kt_cfg_release_string(char *value) {
    std::free(value);
}

// Hardened rewrites: makes the entries of the directory holding `file` durable; 0 or -1.
static int sync_directory_of(const char *file) {
    const char *slash = std::strrchr(file, '/');
    char dir[PATH_MAX];
    if (slash == nullptr)
        std::snprintf(dir, sizeof dir, ".");
    else if (std::snprintf(dir, sizeof dir, "%.*s", static_cast<int>(slash - file + 1), file) >=
             static_cast<int>(sizeof dir))
        return -1;
    kt::unique_fd fd(open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd.get() >= 0 && fsync(fd.get()) == 0 ? 0 : -1;
}

int kt_cfg_set_strings(const char *path, const char *tmp_dir, const ktmap *pairs) {
    if (path == nullptr || tmp_dir == nullptr || pairs == nullptr || pairs->list == nullptr)
        return -EINVAL;
    line_reader in(path);
    if (in.open_errno() != 0)
        return -in.open_errno();

    size_t name_size = std::strlen(tmp_dir) + 18;
    kt::heap_ptr<char> tmp_name(static_cast<char *>(std::malloc(name_size)));
    if (tmp_name == nullptr)
        return -ENOMEM;
    std::snprintf(tmp_name.get(), name_size, "%s/%s", tmp_dir, "conf.tmp.XXXXXX");
    // mkstemp makes the file 0600, and the rewritten file keeps that mode.
    kt::unique_fd tmp(mkstemp(tmp_name.get()));
    if (tmp.get() < 0)
        return -errno;

    // From here on a failure leaves the partly written temporary file in tmp_dir, as the
    // appliance's store always has (tmp_dir is scratch space, emptied at boot); only the
    // rename below ever touches `path`, so the old file stays whole whatever happens.
    // Only keys already in the file are replaced, none is added, on purpose: a program's
    // settings file ships with every key it may set, and the appliance's configuration tools
    // leave a key out to say that a setting is not to be kept (drive letters rely on this).
    file_writer out(tmp.get());
    std::string_view line;
    while (in.next(&line)) {
        ktcfg::key_value kv;
        const ktpair *pair = ktcfg::split_key_value(line, &kv) ? find_pair(pairs, kv.key) : nullptr;
        bool written = pair == nullptr ? out.put(line)
                                       : out.put(kv.key) && out.put("=") &&
                                             out.put(pair->value != nullptr ? pair->value : "") &&
                                             out.put("\n");
        if (!written)
            return -ENOSPC;
    }
    // A read error would otherwise pass for the end and cut the file short.
    if (in.failed())
        return -EIO;
    int flushed = out.flush();
    if (flushed != 0)
        return flushed;
    // No fsync: the configuration directory is rebuilt from the ROM at boot, and the ROM
    // store that follows a rewrite is what makes a change last. Hardened: a power cut can
    // come before that store, and many file systems then show the renamed file empty or not at
    // all, so the data reaches the disk before the rename and the new name after it.
    if (kt::hardened && fsync(tmp.get()) != 0)
        return -EIO;
    if (std::rename(tmp_name.get(), path) != 0) {
        syslog(LOG_CRIT, "Rename config file fail master %s tmp %s", path, tmp_name.get());
        return -1;
    }
    if (kt::hardened)
        return sync_directory_of(path) == 0 && sync_directory_of(tmp_name.get()) == 0 ? 0 : -EIO;
    return 0;
}

int kt_cfg_get_sections(const char *path, ktlist **list) {
    if (path == nullptr || list == nullptr)
        return -EINVAL;
    line_reader in(path);
    if (in.open_errno() != 0)
        return -EIO;
    std::unique_ptr<ktlist, sections_deleter> names(ktlist_create());
    if (names == nullptr)
        return -ENOMEM;
    std::string_view line;
    while (in.next(&line)) {
        if (!ktcfg::is_header(line))
            continue;
        kt::heap_ptr<char> name(new_string(ktcfg::header_name(line)));
        if (name == nullptr || ktlist_insert(names.get(), names.get(), name.get()) == nullptr)
            return -ENOMEM;
        name.release();
    }
    *list = names.release();
    return 0;
}

void kt_cfg_release_sections(ktlist *list) {
    if (list == nullptr)
        return;
    for (ktlist_node *node = list->next; node != list; node = node->next)
        std::free(node->data);
    ktlist_dispose(list);
}

int kt_cfg_get_section(const char *path, const char *section, ktmap **pairs) {
    if (path == nullptr || pairs == nullptr)
        return -EINVAL;
    std::unique_ptr<ktmap, section_deleter> map(ktmap_create(std::strcmp));
    if (map == nullptr)
        return -ENOMEM;
    int result = 0;
    int walked = walk_section(path, section, [&](const ktcfg::key_value &kv) {
        ktpair *pair = new_pair(kv);
        if (pair != nullptr && ktlist_insert(map->list, map->list, pair) != nullptr)
            return true;
        free_pair(pair);
        result = -ENOMEM;
        return false;
    });
    if (walked != 0 || result != 0)
        return walked != 0 ? walked : result;
    *pairs = map.release();
    return 0;
}

void kt_cfg_release_section(ktmap *pairs) {
    if (pairs == nullptr)
        return;
    if (pairs->list != nullptr) {
        for (ktlist_node *node = pairs->list->next; node != pairs->list; node = node->next)
            free_pair(static_cast<ktpair *>(node->data));
    }
    ktmap_dispose(pairs);
}

} // extern "C"
