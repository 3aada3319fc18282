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

// A request told apart from the others by `tag`.
mntmg_record request(int32_t kind, uint16_t minor, uint32_t tag) {
    mntmg_record r;
    std::memset(&r, 0, sizeof r);
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
    ~QueueTest() override { mntmg_free(queue); }

    // Puts an element of any length straight on the list, as nothing but a fault could.
    void put_raw(const void *bytes, uint32_t size) {
        ASSERT_EQ(pthread_mutex_lock(&queue->mutex), 0);
        ktmnglist_insert(queue->list, queue->list->list, bytes, size);
        pthread_mutex_unlock(&queue->mutex);
    }

    // Takes until the queue is empty: the result and the tag of each take.
    std::vector<std::pair<int, uint32_t>> drain() {
        std::vector<std::pair<int, uint32_t>> taken;
        mntmg_record out;
        while (mntmg_getlen(queue) > 0) {
            int rc = mntmg_getdata(queue, &out);
            taken.emplace_back(rc, rc == 1 ? 0 : out.extra0);
        }
        return taken;
    }
};

constexpr int add = MNTMG_KIND_ADD, remove_ = MNTMG_KIND_REMOVE, mount = MNTMG_KIND_MOUNT,
              unmount = MNTMG_KIND_UNMOUNT;
constexpr uint16_t sdb = 16, sdb1 = 17, sdc = 32, all = MNTMG_ALL_DEVICES;

TEST_F(QueueTest, LaterRequestOfAnotherKindSupersedes) {
    using Taken = std::vector<std::pair<int, uint32_t>>;
    struct Case {
        const char *what;
        std::vector<mntmg_record> queued;
        Taken taken;
    } cases[] = {
        {"unmount sdb, mount sdb",
         {request(unmount, sdb, 1), request(mount, sdb, 2)},
         {{2, 1}, {0, 2}}},
        {"mount sdb, unmount all",
         {request(mount, sdb, 1), request(unmount, all, 2)},
         {{2, 1}, {0, 2}}},
        {"unmount all survives a later mount sdb: only the later minor is compared with 416",
         {request(unmount, all, 1), request(mount, sdb, 2)},
         {{0, 1}, {0, 2}}},
        {"mount all, unmount all",
         {request(mount, all, 1), request(unmount, all, 2)},
         {{2, 1}, {0, 2}}},
        {"hotplug events are never superseded",
         {request(add, sdb1, 1), request(remove_, sdb1, 2)},
         {{0, 1}, {0, 2}}},
        {"same kind, same disk: both run",
         {request(mount, sdb, 1), request(mount, sdb, 2)},
         {{0, 1}, {0, 2}}},
        {"another disk does not supersede",
         {request(mount, sdb, 1), request(unmount, sdc, 2)},
         {{0, 1}, {0, 2}}},
        {"a hotplug event for the same identifier supersedes a client command",
         {request(mount, sdb, 1), request(remove_, sdb, 2)},
         {{2, 1}, {0, 2}}},
        {"a partition's event is another identifier than its disk",
         {request(mount, sdb, 1), request(remove_, sdb1, 2)},
         {{0, 1}, {0, 2}}},
        {"the superseding request may lie deeper in the queue",
         {request(mount, sdb, 1), request(mount, sdc, 2), request(unmount, sdb, 3)},
         {{2, 1}, {0, 2}, {0, 3}}},
        {"mount, unmount, mount of one disk",
         {request(mount, sdb, 1), request(unmount, sdb, 2), request(mount, sdb, 3)},
         {{2, 1}, {2, 2}, {0, 3}}},
    };
    for (const Case &c : cases) {
        for (const mntmg_record &r : c.queued)
            ASSERT_EQ(mntmg_setdata(queue, &r), 0);
        EXPECT_EQ(mntmg_getlen(queue), static_cast<int>(c.queued.size()));
        EXPECT_EQ(drain(), c.taken) << c.what;
    }
}

TEST_F(QueueTest, TakesWholeCopiesInOrder) {
    mntmg_record first = request(mount, sdb, 7);
    std::memset(&first.reply_addr, 0x5a, sizeof first.reply_addr);
    first.reply_addr_len = 23;
    first.due_sec = 1700000000;
    first.due_usec = 999999;
    mntmg_record second = request(add, sdb1, 8);
    std::snprintf(second.usb_path, sizeof second.usb_path, "%s", "/sys/devices/usb1/1-1");
    ASSERT_EQ(mntmg_setdata(queue, &first), 0);
    ASSERT_EQ(mntmg_setdata(queue, &second), 0);
    first.kind = remove_; // the queue holds its own copy

    mntmg_record out;
    ASSERT_EQ(mntmg_getdata(queue, &out), 0);
    first.kind = mount;
    EXPECT_EQ(std::memcmp(&out, &first, sizeof out), 0);
    ASSERT_EQ(mntmg_getdata(queue, &out), 0);
    EXPECT_EQ(std::memcmp(&out, &second, sizeof out), 0);
}

TEST_F(QueueTest, EmptyQueueLeavesOutputUntouched) {
    mntmg_record out = request(99, 99, 99), before = out;
    EXPECT_EQ(mntmg_getdata(queue, &out), 1);
    EXPECT_EQ(std::memcmp(&out, &before, sizeof out), 0);
    EXPECT_EQ(mntmg_getlen(queue), 0);
}

TEST_F(QueueTest, MalformedElementsAreDroppedOrSkipped) {
    // At the head, too short or too long: taken off and reported as nothing to do.
    unsigned char shorter[100], longer[420];
    std::memset(shorter, 0x33, sizeof shorter);
    mntmg_record good = request(add, sdb1, 5);
    std::memcpy(longer, &good, sizeof good);
    put_raw(shorter, sizeof shorter);
    put_raw(longer, sizeof longer);
    ASSERT_EQ(mntmg_setdata(queue, &good), 0);
    EXPECT_EQ(drain(), (std::vector<std::pair<int, uint32_t>>{{1, 0}, {1, 0}, {0, 5}}));

    // Behind a client command: not looked at, even when its bytes would supersede.
    mntmg_record unmount_sdb = request(unmount, sdb, 1);
    mntmg_record mount_sdb = request(mount, sdb, 2);
    std::memcpy(longer, &mount_sdb, sizeof mount_sdb);
    ASSERT_EQ(mntmg_setdata(queue, &unmount_sdb), 0);
    put_raw(longer, sizeof longer);
    put_raw(&mount_sdb, 8); // kind and minor only
    EXPECT_EQ(drain(), (std::vector<std::pair<int, uint32_t>>{{0, 1}, {1, 0}, {1, 0}}));
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

TEST(Queue, FreeReleasesQueuedRequests) {
    mntmg *other = mntmg_initialize();
    ASSERT_NE(other, nullptr);
    mntmg_record r = request(add, sdb1, 1);
    for (int i = 0; i < 3; ++i)
        mntmg_setdata(other, &r);
    mntmg_free(other); // the sanitizer build reports anything left behind
}

TEST_F(QueueTest, WaitReturnsAtOnceWhenRequestsAreQueued) {
    mntmg_record r = request(add, sdb1, 1);
    mntmg_setdata(queue, &r);
    mntmg_setdata(queue, &r);
    Clock::time_point start = Clock::now();
    EXPECT_EQ(mntmg_wait(queue, 10000), 2);
    EXPECT_EQ(mntmg_wait(queue, -1), 2);
    EXPECT_LT(elapsed_ms(start), 1000);
    EXPECT_EQ(mntmg_getlen(queue), 2) << "waiting takes nothing";
}

TEST_F(QueueTest, WaitTimesOutOnAnEmptyQueue) {
    EXPECT_EQ(mntmg_wait(queue, 0), 0);
    Clock::time_point start = Clock::now();
    EXPECT_EQ(mntmg_wait(queue, 150), 0);
    long waited = elapsed_ms(start);
    EXPECT_GE(waited, 149);
    EXPECT_LT(waited, 5000);
}

TEST_F(QueueTest, WaitWakesWhenARequestArrives) {
    for (long limit : {10000L, -1L}) {
        std::thread producer([this] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            mntmg_record r = request(add, sdb1, 1);
            mntmg_setdata(queue, &r);
        });
        Clock::time_point start = Clock::now();
        EXPECT_EQ(mntmg_wait(queue, limit), 1) << "limit " << limit;
        EXPECT_LT(elapsed_ms(start), 5000) << "woken, not timed out";
        producer.join();
        mntmg_record out;
        EXPECT_EQ(mntmg_getdata(queue, &out), 0);
    }
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

    uint32_t expected = 0, mismatches = 0, other_results = 0, idle_waits = 0;
    mntmg_record out;
    while (expected < total && idle_waits < 20) {
        if (mntmg_wait(queue, 500) == 0) {
            ++idle_waits;
            continue;
        }
        int rc = mntmg_getdata(queue, &out);
        if (rc != 0) {
            ++other_results;
            continue;
        }
        mntmg_record want = nth(expected++);
        if (std::memcmp(&out, &want, sizeof out) != 0)
            ++mismatches;
    }
    producer.join();
    EXPECT_FALSE(producer_failed);
    EXPECT_EQ(expected, total);
    EXPECT_EQ(mismatches, 0u);
    EXPECT_EQ(other_results, 0u);
    EXPECT_EQ(mntmg_getlen(queue), 0);
}

} // namespace
