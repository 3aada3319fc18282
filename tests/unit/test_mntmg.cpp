// Tests of the mount request queue: order, the supersede rule, malformed elements, two threads.
#include "registry/mntmg.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// A request told apart from the others by `tag`; its other bytes are set too, so that a copy
// of part of the record shows.
mntmg_record request(int32_t kind, uint16_t minor, uint32_t tag) {
    mntmg_record r;
    std::memset(&r, 0x5a, sizeof r);
    r.kind = kind;
    r.minor = minor;
    r.extra0 = tag;
    return r;
}

long elapsed_ms(Clock::time_point since) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

struct QueueTest : ::testing::Test {
    mntmg *queue = mntmg_initialize();
    ~QueueTest() override { mntmg_free(queue); } // the sanitizer build sees what is left behind

    // Puts an element of any length straight on the list, as nothing but a fault could.
    void put_raw(const void *bytes, uint32_t size) {
        ktmnglist_insert(queue->list, queue->list->list, bytes, size);
    }

    // Takes until the queue is empty: the result of each take, and -tag for a request that
    // comes out of turn.
    std::vector<int> drain() {
        std::vector<int> results;
        mntmg_record out;
        uint32_t tag = 1;
        while (mntmg_getlen(queue) > 0) {
            int rc = mntmg_getdata(queue, &out);
            if (rc != 1 && out.extra0 != tag++)
                rc = -static_cast<int>(out.extra0);
            results.push_back(rc);
        }
        return results;
    }
};

constexpr int add = MNTMG_KIND_ADD, remove_ = MNTMG_KIND_REMOVE, mount = MNTMG_KIND_MOUNT,
              unmount = MNTMG_KIND_UNMOUNT;
constexpr uint16_t sdb = 16, sdb1 = 17, sdc = 32, all = MNTMG_ALL_DEVICES;

TEST_F(QueueTest, LaterRequestOfAnotherKindSupersedes) {
    // Requests queued in order, and what each take says: 0 carry it out, 2 superseded.
    struct Case {
        std::vector<std::pair<int, uint16_t>> queued;
        std::vector<int> results;
    } cases[] = {
        {{{unmount, sdb}, {mount, sdb}}, {2, 0}},
        {{{mount, sdb}, {unmount, all}}, {2, 0}},
        {{{unmount, all}, {mount, sdb}}, {0, 0}},  // only the later minor is compared with 416
        {{{add, sdb1}, {remove_, sdb1}}, {0, 0}},  // hotplug events are never superseded
        {{{mount, sdb}, {mount, sdb}}, {0, 0}},    // same kind, same disk
        {{{mount, sdb}, {unmount, sdc}}, {0, 0}},  // another disk
        {{{mount, sdb}, {remove_, sdb}}, {2, 0}},  // an event for the same identifier
        {{{mount, sdb}, {remove_, sdb1}}, {0, 0}}, // a partition is another identifier
        {{{mount, sdb}, {mount, sdc}, {unmount, sdb}}, {2, 0, 0}}, // deeper in the queue
        {{{mount, sdb}, {unmount, sdb}, {mount, sdb}}, {2, 2, 0}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(&c - cases);
        uint32_t tag = 1;
        for (auto [kind, minor] : c.queued) {
            mntmg_record r = request(kind, minor, tag++);
            ASSERT_EQ(mntmg_setdata(queue, &r), 0);
        }
        EXPECT_EQ(mntmg_getlen(queue), static_cast<int>(c.queued.size()));
        EXPECT_EQ(drain(), c.results);
    }
}

TEST_F(QueueTest, MalformedElementsAreDroppedOrSkipped) {
    mntmg_record out = request(99, 99, 99), before = out;
    EXPECT_EQ(mntmg_getdata(queue, &out), 1) << "empty";
    EXPECT_EQ(std::memcmp(&out, &before, sizeof out), 0);

    // At the head, too short or too long: taken off and reported as nothing to do.
    unsigned char shorter[100], longer[420];
    std::memset(shorter, 0x33, sizeof shorter);
    mntmg_record good = request(add, sdb1, 1);
    std::memcpy(longer, &good, sizeof good);
    put_raw(shorter, sizeof shorter);
    put_raw(longer, sizeof longer);
    ASSERT_EQ(mntmg_setdata(queue, &good), 0);
    EXPECT_EQ(drain(), (std::vector<int>{1, 1, 0}));

    // Behind a client command: not looked at, even when its bytes would supersede.
    mntmg_record unmount_sdb = request(unmount, sdb, 1), mount_sdb = request(mount, sdb, 2);
    std::memcpy(longer, &mount_sdb, sizeof mount_sdb);
    ASSERT_EQ(mntmg_setdata(queue, &unmount_sdb), 0);
    put_raw(longer, sizeof longer);
    put_raw(&mount_sdb, 8); // kind and minor only
    EXPECT_EQ(drain(), (std::vector<int>{0, 1, 1}));
}

TEST_F(QueueTest, NullArgumentsFail) {
    mntmg_record r = request(add, sdb1, 1);
    EXPECT_EQ(mntmg_setdata(nullptr, &r), -1);
    EXPECT_EQ(mntmg_setdata(queue, nullptr), -1);
    EXPECT_EQ(mntmg_getdata(nullptr, &r), -1);
    EXPECT_EQ(mntmg_getdata(queue, nullptr), -1);
    EXPECT_EQ(mntmg_getlen(nullptr), -1);
    EXPECT_EQ(mntmg_wait(nullptr, 0), -1);
    EXPECT_EQ(mntmg_getlen(queue), 0);
    mntmg_free(nullptr);
}

// The consumer below also waits, with a limit, on a queue that fills while it waits.
TEST_F(QueueTest, WaitTimesOutOrWakesForARequest) {
    Clock::time_point start = Clock::now();
    EXPECT_EQ(mntmg_wait(queue, 150), 0);
    EXPECT_GE(elapsed_ms(start), 149);

    std::thread producer([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        mntmg_record r = request(add, sdb1, 1);
        mntmg_setdata(queue, &r);
    });
    start = Clock::now();
    EXPECT_EQ(mntmg_wait(queue, 10000), 1);
    EXPECT_LT(elapsed_ms(start), 5000) << "woken by the request, long before the limit";
    producer.join();
    EXPECT_EQ(mntmg_getlen(queue), 1) << "waiting takes nothing";
}

TEST_F(QueueTest, ProducerAndConsumerThreadsLoseNothing) {
    constexpr uint32_t total = 100000;
    // Mostly hotplug events, with a client command now and then whose take walks the queue;
    // nothing here supersedes anything, so every request must come out, once and in order.
    auto nth = [](uint32_t i) {
        if (i % 1000 == 999)
            return request(mount, sdb, i);
        return request(i % 2 ? remove_ : add, sdb1, i);
    };
    std::atomic<bool> producer_failed{false};
    std::thread producer([&] {
        for (uint32_t i = 0; i < total; ++i) {
            mntmg_record r = nth(i);
            if (mntmg_setdata(queue, &r) != 0)
                producer_failed = true;
        }
    });

    uint32_t taken = 0, wrong = 0;
    mntmg_record out;
    while (taken < total && mntmg_wait(queue, 10000) > 0) {
        mntmg_record want = nth(taken++);
        if (mntmg_getdata(queue, &out) != 0 || std::memcmp(&out, &want, sizeof out) != 0)
            ++wrong;
    }
    producer.join();
    EXPECT_FALSE(producer_failed);
    EXPECT_EQ(taken, total);
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(mntmg_getlen(queue), 0);
}

} // namespace
