// Tests of the UTF-8 helpers: structural validation and cutting at character boundaries.
#include "lib/ktutf8.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(Utf8, IsUtf8IsStructuralOnly) {
    struct Case {
        const char *text;
        int expected;
    } cases[] = {
        {"", 1},
        {"plain ascii", 1},
        {"\xc3\xa9", 1},         // é
        {"\xe2\x82\xac", 1},     // €
        {"\xf0\x9f\x92\xbe", 1}, // four bytes
        {"\xc0\xaf", 1},         // overlong: not judged
        {"\xed\xa0\x80", 1},     // surrogate: not judged
        {"\xf5\x80\x80\x80", 1}, // above U+10FFFF: not judged
        {"\xc3", 0},             // terminator inside a character
        {"\xe2\x82", 0},
        {"\xff", 0},
        {"\xfe", 0},
        {"\x80", 0}, // continuation where a character starts
        {"a\x80", 0},
        {"\xc3\x41", 0},             // second byte not a continuation
        {"\xf8\x88\x80\x80\x80", 0}, // five-byte lead
        {"\xfc\x84\x80\x80\x80\x80", 0},
    };
    for (const Case &c : cases)
        EXPECT_EQ(kt_is_utf8(c.text), c.expected) << "text of " << std::strlen(c.text) << " bytes";
    EXPECT_EQ(kt_is_utf8(nullptr), 0);
}

TEST(Utf8, RoundKeepsRoomForTerminator) {
    EXPECT_EQ(kt_round_utf8("ab", 2), 1);
    EXPECT_EQ(kt_round_utf8("ab", 3), 2);
    EXPECT_EQ(kt_round_utf8("a", 2), 1);
    EXPECT_EQ(kt_round_utf8("abc", 100), 3);
    EXPECT_EQ(kt_round_utf8("abc", 1), 0);
    EXPECT_EQ(kt_round_utf8("abc", 0), 0);
    EXPECT_EQ(kt_round_utf8("abc", -5), 0);
    EXPECT_EQ(kt_round_utf8("", 10), 0);
    EXPECT_EQ(kt_round_utf8(nullptr, 10), -1);
}

TEST(Utf8, RoundNeverSplitsACharacter) {
    // Bytes 121 and 122 are one two-byte character: it does not fit before byte 122.
    std::string text(120, 'x');
    text += "\xc3\xa9";
    text += "tail";
    EXPECT_EQ(kt_round_utf8(text.c_str(), 122), 120);
    EXPECT_EQ(kt_round_utf8(text.c_str(), 123), 122);

    EXPECT_EQ(kt_round_utf8("\xe2\x82\xac\xe2\x82\xac", 4), 3);
    EXPECT_EQ(kt_round_utf8("\xe2\x82\xac\xe2\x82\xac", 6), 3);
    EXPECT_EQ(kt_round_utf8("\xe2\x82\xac\xe2\x82\xac", 7), 6);
    EXPECT_EQ(kt_round_utf8("\xf0\x9f\x92\xbe", 4), 0);
}

TEST(Utf8, RoundGivesZeroForMalformedText) {
    EXPECT_EQ(kt_round_utf8("\x80", 10), 0) << "starts with a continuation byte";
    EXPECT_EQ(kt_round_utf8("\xfe", 10), 0);
    EXPECT_EQ(kt_round_utf8("a\x80", 10), 0) << "continuation where a character starts";
    EXPECT_EQ(kt_round_utf8("a\xff", 10), 0);
    EXPECT_EQ(kt_round_utf8("a\xf8zzzz", 10), 0) << "invalid lead byte";
    // Continuation bytes are not examined: a lead byte followed by ASCII counts by length.
    EXPECT_EQ(kt_round_utf8("\xc3"
                            "A",
                            10),
              2);
    // A terminator inside a character is never read past.
    EXPECT_EQ(kt_round_utf8("ab\xe2", 10), 0);
    EXPECT_EQ(kt_round_utf8("ab\xe2", 3), 2) << "the character would not fit anyway";
}

} // namespace
