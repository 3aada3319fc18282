// Tests of the UTF-8 helpers: validation, cutting at character boundaries, the fixed-field gate.
#include "lib/kt_internal.h"
#include "lib/ktutf8.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace {

TEST(Utf8, IsUtf8JudgesStructureOnly) {
    // Overlong forms, surrogates and values above U+10FFFF pass: only the structure is judged.
    const char *good[] = {"",         "ascii",        "\xc3\xa9",         "\xe2\x82\xac",
                          "\xc0\xaf", "\xed\xa0\x80", "\xf5\x80\x80\x80", "\xf0\x9f\x92\xbe"};
    const char *bad[] = {nullptr, "\xc3", "\xe2\x82", "\xf0\x9f\x92", "\xff",
                         "\xfe",  "\x80", "a\x80",    "\xc3\x41",     "\xf8\x88\x80\x80\x80"};
    for (const char *text : good)
        EXPECT_EQ(kt_is_utf8(text), 1) << testing::PrintToString(text);
    for (const char *text : bad)
        EXPECT_EQ(kt_is_utf8(text), 0) << testing::PrintToString(text);
    // Fixed fields may be filled to their width, without a terminator; empty text is unusable.
    const char full[4] = {'a', '\xc3', '\xa9', 'b'}, half[4] = "\xc3", none[4] = "";
    EXPECT_TRUE(kt::field_text<4>(full).usable() && kt::field_text<4>(full).holds('b') &&
                !kt::field_text<4>(half).usable() && !kt::field_text<4>(none).usable());
}

TEST(Utf8, RoundKeepsWholeCharactersAndRoomForTheTerminator) {
    // Bytes 121 and 122 of `cut` form one character. Malformed text gives 0 (the caller then
    // cuts it to nothing); continuation bytes are counted, not examined (C3 41).
    const std::string longer = std::string(120, 'x') + "\xc3\xa9tail";
    const char *cut = longer.c_str(), *euros = "\xe2\x82\xac\xe2\x82\xac",
               *four = "\xf0\x9f\x92\xbe";
    const std::tuple<const char *, int32_t, int32_t> cases[] = {
        {"ab", 2, 1},      {"ab", 3, 2},     {"a", 2, 1},        {"abc", 100, 3},
        {"abc", 1, 0},     {"abc", 0, 0},    {"abc", -5, 0},     {"", 10, 0},
        {nullptr, 10, -1}, {cut, 122, 120},  {cut, 123, 122},    {euros, 6, 3},
        {euros, 7, 6},     {four, 4, 0},     {four, 5, 4},       {"\x80", 10, 0},
        {"\xfe", 10, 0},   {"a\x80", 10, 0}, {"a\xff", 10, 0},   {"a\xf8z", 10, 0},
        {"ab\xe2", 10, 0}, {"ab\xe2", 3, 2}, {"\xc3\x41", 10, 2}};
    for (auto [text, limit, expected] : cases)
        EXPECT_EQ(kt_round_utf8(text, limit), expected)
            << testing::PrintToString(text) << " limit " << limit;
}

} // namespace
