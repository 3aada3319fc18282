// kt_internal: C++ helpers shared by the library's and the daemon's sources; never installed.
#ifndef KT_INTERNAL_H
#define KT_INTERNAL_H

#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <unistd.h>

namespace kt {

struct free_deleter {
    void operator()(void *p) const { std::free(p); }
};

// A buffer from malloc, freed when it goes.
template <typename T> using heap_ptr = std::unique_ptr<T, free_deleter>;

// Owns one descriptor until it is closed or handed over; -1 means none.
class unique_fd {
  public:
    explicit unique_fd(int fd = -1) : fd_(fd) {}
    ~unique_fd() { reset(); }
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;

    int get() const { return fd_; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset() {
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
    }

  private:
    int fd_;
};

// Formats into a heap buffer of `initial` bytes that grows to exactly the length needed when
// the text does not fit; null when formatting or allocation fails.
__attribute__((format(printf, 2, 0))) heap_ptr<char>
vformat_alloc(size_t initial, const char *format, va_list args);

} // namespace kt

#endif
