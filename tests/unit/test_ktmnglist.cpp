// Tests of ktmnglist: private copies, the iterator's size report, on_free and null arguments.
#include "lib/ktmnglist.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

namespace {

std::vector<int> freed; // the first byte of each copy handed to on_free

TEST(MngList, CopiesSizesFreeingAndNullArguments) {
    ktmnglist *mlist =
        ktmnglist_create([](void *buffer) { freed.push_back(*static_cast<uint8_t *>(buffer)); });
    std::array<unsigned char, 416> one, two, three, out;
    one.fill(1), two.fill(2), three.fill(3);
    ktmngiterator first = ktmnglist_insert(mlist, mlist->list, one.data(), one.size());
    ktmngiterator last = ktmnglist_insert(mlist, mlist->list, three.data(), three.size());
    ktmngiterator second = ktmnglist_insert(mlist, last, two.data(), 8);
    one.fill(9);                              // the caller's record is not the list's copy
    std::vector<std::array<int64_t, 3>> seen; // size reported, last byte copied, first in place
    for (ktmngiterator it = mlist->list->next; it != mlist->list; it = it->next) {
        int64_t n = ktmngiterator_get_data(it, out.data(), out.size());
        seen.push_back({n, out.at(n - 1), *static_cast<uint8_t *>(ktmngiterator_get_ptr(it))});
    }
    EXPECT_EQ(seen, (std::vector<std::array<int64_t, 3>>{{416, 1, 1}, {8, 2, 2}, {416, 3, 3}}));
    EXPECT_EQ(ktmngiterator_get_data(first, out.data(), 3), 416) << "a short buffer: 3 copied";
    EXPECT_TRUE(out[2] == 1 && out[3] == 3 && ktmngiterator_get_data(first, out.data(), 0) == 0);

    EXPECT_EQ(ktmnglist_erase(mlist, first), second);
    EXPECT_TRUE(freed == std::vector<int>{1} && ktmnglist_length(mlist) == 2);
    EXPECT_EQ(ktmnglist_erase(mlist, last), mlist->list) << "the head after the last";
    ktmngiterator bare = ktlist_insert(mlist->list, mlist->list, nullptr); // holds no element
    EXPECT_TRUE(ktmngiterator_get_data(bare, &out, 1) == -1 && !ktmngiterator_get_ptr(bare));
    EXPECT_TRUE(!ktmnglist_erase(nullptr, second) && !ktmnglist_erase(mlist, nullptr) &&
                !ktmngiterator_get_ptr(nullptr) && !ktmnglist_erase(mlist, mlist->list));
    EXPECT_TRUE(ktmngiterator_get_data(nullptr, &out, 1) == -1 &&
                ktmngiterator_get_data(second, nullptr, 1) == -1 && !ktmnglist_length(nullptr));
    ktmnglist_clear(mlist);
    EXPECT_EQ(freed, (std::vector<int>{1, 3, 2})) << "the bare node is erased without a call";
    EXPECT_TRUE(!ktmnglist_insert(nullptr, mlist->list, &out, 1) &&
                !ktmnglist_insert(mlist, mlist->list, nullptr, 1));
    ktmnglist_free(nullptr);
    ktmnglist_free(mlist);
}

} // namespace
