// Tests of the UTF-8 helpers: validation, cutting at character boundaries, the fixed-field gate.
#include "lib/kt_internal.h"
#include "lib/ktutf8.h"
#include "tests/helpers/scratch.h"

TEST(Utf8, StructureOnlyWholeCharactersAndRoomForTheTerminator) {
    // Overlong forms, surrogates and values above U+10FFFF pass: only the structure is judged.
    for (const char *good : {"", "a\xc0\xaf\xed\xa0\x80", "\xf5\x80\x80\x80", "\xf0\x9f\x92\xbe"})
        EXPECT_EQ(kt_is_utf8(good), 1) << testing::PrintToString(good);
    for (const char *bad : {static_cast<const char *>(nullptr), "\xe2\x82", "\xff", "\x80", "a\x80",
                            "\xc3\x41", "\xf8\x88\x80\x80\x80"})
        EXPECT_EQ(kt_is_utf8(bad), 0) << testing::PrintToString(bad);
    // Fixed fields may be filled to their width, without a terminator; empty text is unusable.
    const char full[4] = {'a', '\xc3', '\xa9', 'b'}, half[4] = "\xc3", none[4] = "";
    EXPECT_TRUE(kt::field_text<4>(full).usable() && kt::field_text<4>(full).holds('b') &&
                !kt::field_text<4>(half).usable() && !kt::field_text<4>(none).usable());
    // Malformed text gives 0 (the caller then cuts it to nothing); C3 41: continuations unexamined.
    const std::string longer = std::string(120, 'x') + "\xc3\xa9tail";
    const char *cut = longer.c_str(), *euros = "\xe2\x82\xac\xe2\x82\xac";
    const std::tuple<const char *, int32_t, int32_t> cases[] = {
        {"abc", 0, 0},     {"", 10, 0},       {nullptr, 10, -1}, {cut, 122, 120},
        {cut, 123, 122},   {euros, 6, 3},     {"\xfe", 10, 0},   {"a\x80", 10, 0},
        {"a\xf8z", 10, 0}, {"ab\xe2", 10, 0}, {"ab\xe2", 3, 2},  {"\xc3\x41", 10, 2}};
    for (auto [text, limit, expected] : cases)
        EXPECT_EQ(kt_round_utf8(text, limit), expected)
            << testing::PrintToString(text) << " limit " << limit;
}
