// Tests of ktmap: the first match in insertion order, and the head as the not-found marker.
#include "lib/ktmap.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

TEST(Map, FindGivesTheFirstMatchElseTheHead) {
    char a[] = "A", b[] = "B", one[] = "1", two[] = "2";
    ktpair first{a, one}, second{b, two}, duplicate{a, two};
    ktmap *map = ktmap_create(std::strcmp);
    for (ktpair *p : {&first, &second, &duplicate})
        ktlist_insert(map->list, map->list, p);
    EXPECT_EQ(ktmap_find(map, "A")->data, &first) << "a later duplicate does not hide it";
    EXPECT_EQ(ktmap_find(map, "B")->data, &second);
    EXPECT_EQ(ktmap_find(map, "C"), map->list) << "no match gives the head, not 0";
    EXPECT_TRUE(!ktmap_find(map, nullptr) && !ktmap_find(nullptr, "A")) << "strcmp sees no null";
    ktmap_dispose(map); // the pairs are the caller's, here on the stack: never freed
    ktmap_dispose(nullptr);
}

} // namespace
