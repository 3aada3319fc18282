// kt_internal: the formatting helper shared by the library's and the daemon's sources.
#include "lib/kt_internal.h"

#include <cstdio>

namespace kt {

heap_ptr<char> vformat_alloc(size_t initial, const char *format, va_list args) {
    size_t size = initial;
    heap_ptr<char> text(static_cast<char *>(std::malloc(size)));
    while (text != nullptr) {
        va_list again;
        va_copy(again, args);
        int n = std::vsnprintf(text.get(), size, format, again);
        va_end(again);
        if (n < 0)
            return nullptr;
        if (static_cast<size_t>(n) < size)
            return text;
        size = static_cast<size_t>(n) + 1;
        auto *bigger = static_cast<char *>(std::realloc(text.get(), size));
        if (bigger == nullptr)
            return nullptr;
        text.release();
        text.reset(bigger);
    }
    return nullptr;
}

} // namespace kt
