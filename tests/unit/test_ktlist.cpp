// Tests of ktlist: the counting head, insert-before and erase-returning-next.
#include "lib/ktlist.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

std::vector<void *> contents(ktlist *list) {
    std::vector<void *> out;
    for (ktlist_node *n = list->next; n != list; n = n->next)
        out.push_back(n->data);
    return out;
}

void *item(uintptr_t v) {
    return reinterpret_cast<void *>(v);
}

struct ListTest : ::testing::Test {
    ktlist *list = ktlist_create();
    ~ListTest() override { ktlist_dispose(list); }
};

TEST_F(ListTest, EmptyHeadPointsAtItselfAndCountsZero) {
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->next, list);
    EXPECT_EQ(list->prev, list);
    EXPECT_EQ(ktlist_count(list), 0u);
    EXPECT_EQ(list->data, nullptr) << "the head's data word is the count";
}

TEST_F(ListTest, InsertBeforePositionAndAppendAtHead) {
    ktlist_node *one = ktlist_insert(list, list, item(1));
    ktlist_insert(list, list, item(3));
    ktlist_insert(list, list, item(4));
    ktlist_insert(list, one->next, item(2));  // before 3
    ktlist_insert(list, list->next, item(0)); // before the first
    EXPECT_EQ(contents(list), (std::vector<void *>{item(0), item(1), item(2), item(3), item(4)}));
    EXPECT_EQ(ktlist_count(list), 5u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(list->data), 5u);
    EXPECT_EQ(list->prev->data, item(4));
    EXPECT_NE(ktlist_insert(list, list, nullptr), nullptr) << "null data is a valid element";
}

TEST_F(ListTest, EraseReturnsFollowerAndHeadAfterLast) {
    ktlist_node *a = ktlist_insert(list, list, item(1));
    ktlist_node *b = ktlist_insert(list, list, item(2));
    EXPECT_EQ(ktlist_erase(list, a), b);
    EXPECT_EQ(ktlist_erase(list, b), list) << "erasing the last element ends a walk";
    EXPECT_EQ(ktlist_count(list), 0u);
    // A node of another list, handed to this empty one: nothing may change on either side.
    ktlist *other = ktlist_create();
    ktlist_node *foreign = ktlist_insert(other, other, item(3));
    EXPECT_EQ(ktlist_erase(list, foreign), nullptr) << "empty list";
    EXPECT_EQ(ktlist_count(list), 0u);
    EXPECT_EQ(ktlist_count(other), 1u);
    EXPECT_EQ(other->next, foreign);
    ktlist_dispose(other);
}

TEST_F(ListTest, WalkAndDeleteIdiomKeepsTheOthers) {
    for (uintptr_t v = 1; v <= 6; ++v)
        ktlist_insert(list, list, item(v));
    for (ktlist_node *n = list->next; n != list;)
        n = (reinterpret_cast<uintptr_t>(n->data) % 2 == 0) ? ktlist_erase(list, n) : n->next;
    EXPECT_EQ(contents(list), (std::vector<void *>{item(1), item(3), item(5)}));
    EXPECT_EQ(ktlist_count(list), 3u);
    ktlist_clear(list);
    EXPECT_EQ(ktlist_count(list), 0u);
    EXPECT_EQ(list->next, list);
}

TEST(ListArguments, NullsAreFailuresNotCrashes) {
    ktlist *list = ktlist_create();
    EXPECT_EQ(ktlist_insert(nullptr, list, item(1)), nullptr);
    EXPECT_EQ(ktlist_insert(list, nullptr, item(1)), nullptr);
    EXPECT_EQ(ktlist_erase(nullptr, list), nullptr);
    ktlist_insert(list, list, item(1));
    EXPECT_EQ(ktlist_erase(list, nullptr), nullptr);
    EXPECT_EQ(ktlist_erase(list, list), nullptr) << "the head is not an element";
    EXPECT_EQ(ktlist_count(list), 1u);
    ktlist_clear(nullptr);
    ktlist_dispose(nullptr);
    EXPECT_EQ(ktlist_count(nullptr), 0u);
    ktlist_dispose(list);
}

} // namespace
