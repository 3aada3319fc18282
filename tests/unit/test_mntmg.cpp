// Tests of the mount request queue: the supersede rule, malformed elements, waiting for work.
#include "registry/mntmg.h"
#include "tests/helpers/scratch.h"

#include <thread>

using namespace std::chrono_literals;

// A request as kind and target ("4b" unmount sdb, "3*" mount all, "1B" add sdb1), and a tag.
mntmg_record request(const char *code, uint32_t tag) {
    mntmg_record r{};
    std::tie(r.kind, r.minor, r.extra0) = std::make_tuple(
        code[0] - '0', code[1] == '*' ? 416 : ((code[1] | 32) - 'a') * 16 + (code[1] < 'a'), tag);
    return r;
}

struct QueueTest : ::testing::Test {
    mntmg *queue = mntmg_initialize();
    ~QueueTest() override { mntmg_free(queue); }
    // Each take's result until the queue is empty; "x" for a request taken out of turn.
    std::string drain() {
        std::string results;
        mntmg_record out;
        for (uint32_t tag = 1; mntmg_getlen(queue) > 0;) {
            int rc = mntmg_getdata(queue, &out);
            results += rc != 1 && out.extra0 != tag++ ? 'x' : static_cast<char>('0' + rc);
        }
        return results;
    }
};

// Elements not a request long (queued only by a fault): dropped at the head, unread behind.
TEST_F(QueueTest, SupersedeRuleMalformedElementsWaitsAndNulls) {
    const char *cases[][2] = {{"3b4*", "20"}, {"4*3b", "00"}, {"1B2B", "00"},
                              {"3b3b", "00"}, {"3b2b", "20"}, {"3b3c4b", "200"}};
    for (auto [queued, results] : cases) {
        for (uint32_t i = 0; queued[2 * i] != '\0'; ++i) {
            mntmg_record r = request(queued + 2 * i, i + 1);
            ASSERT_EQ(mntmg_setdata(queue, &r), 0);
        }
        EXPECT_EQ(drain(), results) << queued;
    }
    mntmg_record good = request("4b", 1), later = request("3b", 2);
    unsigned char longer[420] = {};
    std::memcpy(longer, &later, sizeof later); // read as a request, it would supersede "4b"
    ktmnglist_insert(queue->list, queue->list->list, longer, 100);
    ASSERT_EQ(mntmg_setdata(queue, &good), 0);
    ktmnglist_insert(queue->list, queue->list->list, longer, sizeof longer);
    EXPECT_EQ(drain(), "101");
    mntmg_record out = request("9z", 9);
    int running = 1;
    EXPECT_TRUE(mntmg_getdata(queue, &out) == 1 && out.extra0 == 9) << "empty: untouched";
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(mntmg_wait(queue, 0) == 0 && mntmg_wait(queue, 150) == 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 150ms);
    // A request ends a timed wait at once; a cleared flag with a wake ends one without a limit.
    std::thread other([&] {
        std::this_thread::sleep_for(100ms);
        mntmg_setdata(queue, &out);
        std::this_thread::sleep_for(100ms);
        __atomic_store_n(&running, 0, __ATOMIC_SEQ_CST);
        while (mntmg_wake(queue) != 0) {
        }
    });
    start = std::chrono::steady_clock::now();
    EXPECT_TRUE(mntmg_wait(queue, 20000) == 1 && std::chrono::steady_clock::now() - start < 10s);
    EXPECT_TRUE(mntmg_wait_running(queue, &running) == 1 && mntmg_getlen(queue) == 1 &&
                mntmg_getdata(queue, &out) == 0)
        << "waits take none";
    EXPECT_EQ(mntmg_wait_running(queue, &running), 0);
    other.join();
    EXPECT_TRUE(mntmg_setdata(nullptr, &out) == -1 && mntmg_getdata(queue, nullptr) == -1 &&
                mntmg_wait(nullptr, 0) == -1 && mntmg_wait_running(queue, nullptr) == -1 &&
                mntmg_wake(nullptr) == -1 && pthread_mutex_lock(&queue->mutex) == 0 &&
                mntmg_wake(queue) == -1); // the last: a waiter that never lets go
    pthread_mutex_unlock(&queue->mutex);
    mntmg_free(nullptr);
}
