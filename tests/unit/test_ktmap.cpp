// Tests of ktmap: insertion order, duplicates, and the head as the not-found marker.
#include "lib/ktmap.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

TEST(Map, FindReturnsFirstMatchOrHead) {
    ktmap *map = ktmap_create(std::strcmp);
    ASSERT_NE(map, nullptr);
    EXPECT_EQ(ktmap_find(map, "A"), map->list) << "empty map";

    char a[] = "A", b[] = "B", one[] = "1", two[] = "2", three[] = "3";
    ktpair first{a, one}, second{b, two}, duplicate{a, three};
    for (ktpair *p : {&first, &second, &duplicate})
        ktlist_insert(map->list, map->list, p);

    ktlist_node *found = ktmap_find(map, "A");
    ASSERT_NE(found, map->list);
    EXPECT_EQ(found->data, &first) << "a duplicate key does not hide the first";
    EXPECT_EQ(static_cast<ktpair *>(ktmap_find(map, "B")->data)->value, two);
    EXPECT_EQ(ktmap_find(map, "C"), map->list) << "no match gives the head, not 0";
    EXPECT_EQ(ktlist_count(map->list), 3u);

    ktmap_dispose(map); // the pairs live on the stack: disposing must not free them
    EXPECT_STREQ(first.key, "A");
}

TEST(Map, NullArguments) {
    EXPECT_EQ(ktmap_find(nullptr, "A"), nullptr);
    ktmap *strings = ktmap_create(std::strcmp);
    char a[] = "A", one[] = "1";
    ktpair only{a, one};
    ktlist_insert(strings->list, strings->list, &only);
    EXPECT_EQ(ktmap_find(strings, nullptr), nullptr) << "strcmp must never see a null key";
    ktmap_dispose(strings);
    ktmap_dispose(nullptr);
    ktmap *map = ktmap_create(nullptr);
    ASSERT_NE(map, nullptr);
    char k[] = "K", v[] = "V";
    ktpair pair{k, v};
    ktlist_insert(map->list, map->list, &pair);
    EXPECT_EQ(ktmap_find(map, "K"), map->list) << "without a compare function nothing matches";
    ktmap_dispose(map);
}

} // namespace
