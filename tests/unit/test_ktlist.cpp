// Tests of ktlist: the counting head, insert-before, erase-returning-next and null arguments.
#include "lib/ktlist.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Items = std::vector<uintptr_t>;

// The elements walked forward and backward (so both links are checked) against the count.
Items contents(ktlist *list) {
    Items forward, backward;
    for (ktlist_node *n = list->next, *b = list->prev; n != list; n = n->next, b = b->prev)
        forward.push_back(reinterpret_cast<uintptr_t>(n->data)),
            backward.insert(backward.begin(), reinterpret_cast<uintptr_t>(b->data));
    EXPECT_EQ(forward, backward);
    EXPECT_EQ(ktlist_count(list), forward.size()) << "the head's data word counts";
    return forward;
}

TEST(List, InsertBeforeEraseReturningNextAndNullArguments) {
    ktlist *list = ktlist_create(), *other = ktlist_create();
    ASSERT_TRUE(list && contents(list).empty());
    for (uintptr_t v : {1, 3, 0}) // the head as position appends; null data is an element
        ktlist_insert(list, list, reinterpret_cast<void *>(v));
    ktlist_insert(list, list->next->next, reinterpret_cast<void *>(2));
    ktlist_insert(list, list->next, reinterpret_cast<void *>(4));
    EXPECT_EQ(contents(list), (Items{4, 1, 2, 3, 0}));
    // The walk-and-delete idiom; erasing the last element hands back the head, ending the walk.
    for (ktlist_node *n = list->next; n != list;)
        n = reinterpret_cast<uintptr_t>(n->data) % 2 == 0 ? ktlist_erase(list, n) : n->next;
    EXPECT_EQ(contents(list), (Items{1, 3}));
    ktlist_clear(list);

    // Erasing another list's node from this empty one, or a head, changes neither list.
    ktlist_node *foreign = ktlist_insert(other, other, reinterpret_cast<void *>(9));
    EXPECT_TRUE(!ktlist_erase(list, foreign) && !ktlist_erase(other, other));
    EXPECT_TRUE(!ktlist_insert(nullptr, other, foreign) && !ktlist_insert(other, nullptr, foreign));
    EXPECT_TRUE(!ktlist_erase(nullptr, foreign) && !ktlist_erase(other, nullptr));
    EXPECT_TRUE(contents(list).empty() && contents(other) == Items{9} && !ktlist_count(nullptr));
    ktlist_clear(nullptr);
    ktlist_dispose(list);
    ktlist_dispose(other);
}

} // namespace
