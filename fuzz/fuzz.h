// fuzz: what the fuzz targets share: a scratch directory per process, files written into it,
// and inputs cut into pieces at NUL bytes.
#ifndef FUZZ_FUZZ_H
#define FUZZ_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ftw.h>
#include <initializer_list>
#include <memory>
#include <unistd.h>

namespace fuzz {

// The process's own directory under $TMPDIR, else /dev/shm (or /tmp), made on first use and removed
// at exit; the daemon's fixed paths are never used by a target. Memory rather than a disk: a target
// rewrites its files at every input, and ext4 writes a file out when it is truncated and written
// again, which cut the file targets to a few hundred inputs a second.
inline const char *scratch_dir() {
    static char dir[256];
    if (dir[0] == '\0') {
        const char *tmp = std::getenv("TMPDIR");
        if (tmp == nullptr || *tmp == '\0')
            tmp = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::snprintf(dir, sizeof dir, "%s/hotplugd-fuzz.XXXXXX", tmp);
        if (mkdtemp(dir) == nullptr)
            std::abort();
        std::atexit([] {
            nftw(
                dir, [](const char *path, const struct stat *, int, FTW *) { return remove(path); },
                16, FTW_DEPTH | FTW_PHYS);
        });
    }
    return dir;
}

// The path of `name` in the scratch directory, in `out`.
template <size_t N> const char *scratch_path(char (&out)[N], const char *name) {
    std::snprintf(out, N, "%s/%s", scratch_dir(), name);
    return out;
}

// Replaces the file at `path` by `size` bytes of `data`.
inline void write_file(const char *path, const void *data, size_t size) {
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || (size > 0 && write(fd, data, size) != static_cast<ssize_t>(size)))
        std::abort();
    close(fd);
}

// A terminated copy in a heap block of exactly its size, so that AddressSanitizer catches a
// read past the terminator.
struct text {
    std::unique_ptr<char[]> bytes;
    size_t size = 0;
    char *get() const { return bytes.get(); }
};

inline text copy(const void *data, size_t size) {
    text t{std::unique_ptr<char[]>(new char[size + 1]), size};
    if (size > 0)
        std::memcpy(t.get(), data, size);
    t.get()[size] = '\0';
    return t;
}

// Cuts the next piece off the input: up to a NUL byte (dropped) or the end. False, with
// nothing taken, when the input is used up.
inline bool take_piece(const uint8_t **data, size_t *size, text *piece) {
    if (*size == 0)
        return false;
    const auto *nul = static_cast<const uint8_t *>(std::memchr(*data, 0, *size));
    const size_t n = nul != nullptr ? static_cast<size_t>(nul - *data) : *size;
    *piece = copy(*data, n);
    *data += n < *size ? n + 1 : n;
    *size -= n < *size ? n + 1 : n;
    return true;
}

} // namespace fuzz

#endif
