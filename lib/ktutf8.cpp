// ktutf8: character lengths from lead bytes only; what the code points mean is not judged.
// Structural on purpose: labels that pass here (overlong forms, surrogates, lead bytes F5-F7
// included) name their drives as they always have on the appliance.
#include "lib/ktutf8.h"

namespace {

bool is_continuation(unsigned char c) {
    return (c & 0xC0) == 0x80;
}

// A byte that can never start a character: a continuation byte, or 0xFE / 0xFF.
bool cannot_start(unsigned char c) {
    return is_continuation(c) || c == 0xFE || c == 0xFF;
}

// Byte length of the character that `lead` starts, or 0 when `lead` starts none.
int char_length(unsigned char lead) {
    if (lead < 0x80)
        return 1;
    if ((lead & 0xE0) == 0xC0)
        return 2;
    if ((lead & 0xF0) == 0xE0)
        return 3;
    if ((lead & 0xF8) == 0xF0)
        return 4;
    return 0;
}

} // namespace

extern "C" {

int kt_is_utf8(const char *text) {
    if (text == nullptr)
        return 0;
    const auto *p = reinterpret_cast<const unsigned char *>(text);
    while (*p != 0) {
        int len = char_length(*p);
        if (len == 0)
            return 0;
        // A terminator is not a continuation byte, so nothing past it is read.
        for (int i = 1; i < len; ++i)
            if (!is_continuation(p[i]))
                return 0;
        p += len;
    }
    return 1;
}

int32_t kt_round_utf8(const char *text, int32_t limit) {
    if (text == nullptr)
        return -1;
    const auto *p = reinterpret_cast<const unsigned char *>(text);
    if (limit < 1 || *p == 0 || cannot_start(*p))
        return 0;
    int32_t length = 0;
    for (;;) {
        int len = char_length(*p);
        if (len == 0)
            return 0;
        if (length + len >= limit)
            return length;
        // Continuation bytes are trusted (the text was checked before), but a terminator
        // inside a character still ends the walk: bad input must not be read past its end.
        for (int i = 1; i < len; ++i)
            if (p[i] == 0)
                return 0;
        length += len;
        p += len;
        if (*p == 0)
            return length;
        if (cannot_start(*p))
            return 0;
    }
}

} // extern "C"
