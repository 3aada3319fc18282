// Tests of ktmnglist: owned copies, the iterator's size reporting, and freeing.
#include "lib/ktmnglist.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

namespace {

using Record = std::array<unsigned char, 416>;

Record record_of(unsigned char fill) {
    Record r;
    r.fill(fill);
    return r;
}

std::vector<void *> freed;
void remember_free(void *buffer) {
    freed.push_back(buffer);
}

struct MngListTest : ::testing::Test {
    ktmnglist *mlist = ktmnglist_create(nullptr);
    ~MngListTest() override { ktmnglist_free(mlist); }
};

TEST_F(MngListTest, InsertKeepsAnIndependentCopy) {
    Record caller = record_of(0x11);
    ktmngiterator node = ktmnglist_insert(mlist, mlist->list, caller.data(), caller.size());
    ASSERT_NE(node, nullptr);
    caller.fill(0x22);

    Record out = record_of(0);
    EXPECT_EQ(ktmngiterator_get_data(node, out.data(), out.size()), 416);
    EXPECT_EQ(out, record_of(0x11));
    EXPECT_NE(ktmngiterator_get_ptr(node), caller.data());
    EXPECT_EQ(ktmnglist_length(mlist), 1u);
    EXPECT_EQ(ktlist_count(mlist->list), 1u);
}

TEST_F(MngListTest, GetDataCopiesAtMostOutsizeButReportsFullSize) {
    unsigned char small[] = {1, 2, 3, 4, 5, 6, 7, 8};
    ktmngiterator node = ktmnglist_insert(mlist, mlist->list, small, sizeof small);
    unsigned char out[8] = {};
    EXPECT_EQ(ktmngiterator_get_data(node, out, 3), 8);
    EXPECT_EQ(std::memcmp(out, small, 3), 0);
    EXPECT_EQ(out[3], 0) << "nothing beyond outsize is written";
    EXPECT_EQ(ktmngiterator_get_data(node, out, 0), 0);

    Record big = record_of(0);
    EXPECT_EQ(ktmngiterator_get_data(node, big.data(), big.size()), 8) << "shorter element";
    EXPECT_EQ(ktmngiterator_get_data(nullptr, out, 8), -1);
    EXPECT_EQ(ktmngiterator_get_data(node, nullptr, 8), -1);
}

TEST_F(MngListTest, PtrAllowsChangesInPlace) {
    Record r = record_of(0);
    ktmngiterator node = ktmnglist_insert(mlist, mlist->list, r.data(), r.size());
    static_cast<unsigned char *>(ktmngiterator_get_ptr(node))[0] = 0x7f;
    Record out;
    ktmngiterator_get_data(node, out.data(), out.size());
    EXPECT_EQ(out[0], 0x7f);
}

TEST_F(MngListTest, InsertBeforePositionKeepsOrder) {
    for (unsigned char v : {1, 3}) {
        Record r = record_of(v);
        ktmnglist_insert(mlist, mlist->list, r.data(), r.size());
    }
    Record two = record_of(2);
    ktmnglist_insert(mlist, mlist->list->next->next, two.data(), two.size());
    std::vector<unsigned char> order;
    for (ktmngiterator it = mlist->list->next; it != mlist->list; it = it->next)
        order.push_back(static_cast<unsigned char *>(ktmngiterator_get_ptr(it))[0]);
    EXPECT_EQ(order, (std::vector<unsigned char>{1, 2, 3}));
}

TEST(MngList, EraseCallsOnFreeAndReturnsFollower) {
    freed.clear();
    ktmnglist *mlist = ktmnglist_create(remember_free);
    int a = 1, b = 2;
    ktmngiterator first = ktmnglist_insert(mlist, mlist->list, &a, sizeof a);
    ktmngiterator second = ktmnglist_insert(mlist, mlist->list, &b, sizeof b);
    void *first_buffer = ktmngiterator_get_ptr(first);
    EXPECT_EQ(ktmnglist_erase(mlist, first), second);
    EXPECT_EQ(freed, std::vector<void *>{first_buffer});
    EXPECT_EQ(ktmnglist_erase(mlist, second), mlist->list);
    EXPECT_EQ(ktmnglist_erase(mlist, mlist->list), nullptr) << "the head is no element";

    ktmnglist_insert(mlist, mlist->list, &a, sizeof a);
    ktmnglist_insert(mlist, mlist->list, &b, sizeof b);
    ktmnglist_clear(mlist);
    EXPECT_EQ(freed.size(), 4u);
    EXPECT_EQ(ktmnglist_length(mlist), 0u);
    ktmnglist_free(mlist);
}

TEST(MngList, NullArgumentsAndFailedInsertLeaveListUnchanged) {
    ktmnglist *mlist = ktmnglist_create(nullptr);
    int v = 5;
    EXPECT_EQ(ktmnglist_insert(nullptr, mlist->list, &v, sizeof v), nullptr);
    EXPECT_EQ(ktmnglist_insert(mlist, nullptr, &v, sizeof v), nullptr);
    EXPECT_EQ(ktmnglist_insert(mlist, mlist->list, nullptr, sizeof v), nullptr);
    EXPECT_EQ(ktmnglist_length(mlist), 0u);
    EXPECT_EQ(ktmnglist_erase(nullptr, mlist->list), nullptr);
    EXPECT_EQ(ktmnglist_erase(mlist, nullptr), nullptr);
    EXPECT_EQ(ktmngiterator_get_ptr(nullptr), nullptr);
    ktmnglist_clear(nullptr);
    ktmnglist_free(nullptr);
    ktmnglist_free(mlist);
}

} // namespace
