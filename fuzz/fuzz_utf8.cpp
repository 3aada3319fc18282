// fuzz_utf8: the UTF-8 helpers, and the label sanitiser that cuts with them; the first byte
// chooses the limit, the rest is the text.
#include "fuzz/fuzz.h"
#include "lib/ktutf8.h"
#include "mount/probe_text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    const int32_t limit = data[0];
    fuzz::text text = fuzz::copy(data + 1, size - 1);
    const bool utf8 = kt_is_utf8(text.get()) != 0;
    // A cut keeps whole characters and leaves room for the terminator.
    const int32_t cut = kt_round_utf8(text.get(), limit);
    if (cut < 0 || (limit > 0 && cut >= limit) ||
        static_cast<size_t>(cut) > std::strlen(text.get()))
        std::abort();
    if (utf8 && kt_is_utf8(fuzz::copy(text.get(), static_cast<size_t>(cut)).get()) == 0)
        std::abort();
    // A clean label is UTF-8, at most 121 bytes, and shorter than its buffer.
    const size_t out_size = limit > 0 ? static_cast<size_t>(limit) : 1;
    auto out = std::make_unique<char[]>(out_size);
    const int n = probe_clean_label(text.get(), out.get(), out_size);
    if (n < 0 || n > 121 || static_cast<size_t>(n) >= out_size ||
        std::strlen(out.get()) != static_cast<size_t>(n) || kt_is_utf8(out.get()) == 0 ||
        (!utf8 && n != 0))
        std::abort();
    return 0;
}
