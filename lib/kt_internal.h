// kt_internal: C++ helpers shared by the library's and the daemon's sources; never installed.
#ifndef KT_INTERNAL_H
#define KT_INTERNAL_H

#include "lib/ktutf8.h"

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <signal.h>
#include <string_view>
#include <unistd.h>

namespace kt {

// The hardened build (see docs/SECURITY.md); each hazard is closed where it lives, by this.
constexpr bool hardened = HOTPLUGD_HARDENED != 0;

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

// A fixed field's text as a terminated string of its own: fields of the shared records may be
// filled to their width without a NUL, and a copy can be cut or parsed without touching them.
template <size_t N> class field_text {
  public:
    explicit field_text(const char (&field)[N]) {
        size_t n = strnlen(field, N);
        std::memcpy(text_, field, n);
        text_[n] = '\0';
    }
    char *get() { return text_; }
    const char *c_str() const { return text_; }
    std::string_view view() const { return text_; }
    bool empty() const { return text_[0] == '\0'; }
    bool holds(char c) const { return std::strchr(text_, c) != nullptr; }
    // Non-empty and UTF-8: only such device text may go into a name.
    bool usable() const { return !empty() && kt_is_utf8(text_) != 0; }

  private:
    char text_[N + 1];
};

// string_view::substr checks its position and throws, and a throw would bring the C++ runtime
// (unwinder, demangler) into programs that must carry nothing but the C library. This clamps
// instead: a position past the end gives an empty view.
constexpr std::string_view sub(std::string_view text, size_t pos,
                               size_t count = std::string_view::npos) {
    pos = pos < text.size() ? pos : text.size();
    return std::string_view(text.data() + pos,
                            count < text.size() - pos ? count : text.size() - pos);
}

// The number at the start of `text` as sscanf's "%d" converts it (leading white space and a sign
// accepted), clamped to 32 bits instead of sscanf's undefined behaviour on overflow. False when
// there is no number; `end` (if given) is then `text`, else just past the digits.
inline bool to_int(const char *text, int32_t *value, const char **end = nullptr) {
    char *stop = nullptr;
    long long v = std::strtoll(text, &stop, 10);
    if (end != nullptr)
        *end = stop;
    if (stop == text)
        return false;
    *value = static_cast<int32_t>(v < INT32_MIN ? INT32_MIN : v > INT32_MAX ? INT32_MAX : v);
    return true;
}

// The daemon's run flag is a plain int in its records, shared by both threads and the Ctrl-C
// handler; every access goes through these, so none is torn or reordered.
inline int load_flag(const int *flag) {
    return __atomic_load_n(flag, __ATOMIC_SEQ_CST);
}
inline void store_flag(int *flag, int value) {
    __atomic_store_n(flag, value, __ATOMIC_SEQ_CST);
}

// For a child between fork and exec (async-signal-safe): a signal mask survives exec, so a
// thread that keeps signals blocked (the mount thread leaves Ctrl-C to the main thread) would
// hand that on to every program it starts.
inline void unblock_signals() {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Formats into a heap buffer of `initial` bytes that grows to exactly the length needed when
// the text does not fit; null when formatting or allocation fails.
__attribute__((format(printf, 2, 0))) heap_ptr<char>
vformat_alloc(size_t initial, const char *format, va_list args);

} // namespace kt

#endif
