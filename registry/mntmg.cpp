// mntmg: the mount request queue, with the supersede rule applied when a request is taken.
#include "registry/mntmg.h"

#include "lib/kt_internal.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>

namespace {

// Holds the queue's mutex for one call. The lock of a default mutex cannot fail (errors come
// only from error-checking and robust ones), so there is nothing to check.
class Locked {
  public:
    explicit Locked(pthread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~Locked() { pthread_mutex_unlock(&mutex_); }
    Locked(const Locked &) = delete;
    Locked &operator=(const Locked &) = delete;

  private:
    pthread_mutex_t &mutex_;
};

// The request at `node`, or null when the element is not exactly one record long.
const mntmg_record *request_at(ktmngiterator node) {
    const auto *elem = static_cast<const ktmnglist_elem *>(node->data);
    if (elem == nullptr || elem->size != sizeof(mntmg_record))
        return nullptr;
    return static_cast<const mntmg_record *>(elem->buffer);
}

bool is_hotplug_event(int32_t kind) {
    return kind == MNTMG_KIND_ADD || kind == MNTMG_KIND_REMOVE;
}

// A later request supersedes a client command when its kind differs and it is for the same
// identifier or for every disk. Only the later request is tested for "every disk", on purpose:
// a queued "all" command survives a later command for one disk, so a client that unmounts
// everything and then mounts one disk back gets both carried out, in that order.
bool supersedes(const mntmg_record &later, const mntmg_record &taken) {
    return (later.minor == taken.minor || later.minor == MNTMG_ALL_DEVICES) &&
           later.kind != taken.kind;
}

int init_monotonic_cond(pthread_cond_t *cond) {
    pthread_condattr_t attr;
    if (pthread_condattr_init(&attr) != 0)
        return -1;
    int rc = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    if (rc == 0)
        rc = pthread_cond_init(cond, &attr);
    pthread_condattr_destroy(&attr);
    return rc == 0 ? 0 : -1;
}

bool deadline_after(long timeout_ms, timespec *deadline) {
    if (clock_gettime(CLOCK_MONOTONIC, deadline) != 0)
        return false;
    deadline->tv_sec += static_cast<time_t>(timeout_ms / 1000);
    deadline->tv_nsec += (timeout_ms % 1000) * 1000000L;
    if (deadline->tv_nsec >= 1000000000L) {
        deadline->tv_sec += 1;
        deadline->tv_nsec -= 1000000000L;
    }
    return true;
}

} // namespace

extern "C" {

mntmg *mntmg_initialize(void) {
    auto *queue = static_cast<mntmg *>(std::calloc(1, sizeof(mntmg)));
    if (queue == nullptr)
        return nullptr;
    if (pthread_mutex_init(&queue->mutex, nullptr) == 0) {
        if (init_monotonic_cond(&queue->ready) == 0) {
            queue->list = ktmnglist_create(nullptr);
            if (queue->list != nullptr)
                return queue;
            pthread_cond_destroy(&queue->ready);
        }
        pthread_mutex_destroy(&queue->mutex);
    }
    std::free(queue);
    return nullptr;
}

void mntmg_free(mntmg *queue) {
    if (queue == nullptr)
        return;
    pthread_mutex_destroy(&queue->mutex);
    pthread_cond_destroy(&queue->ready);
    ktmnglist_free(queue->list);
    std::free(queue);
}

int mntmg_setdata(mntmg *queue, const mntmg_record *record) {
    if (queue == nullptr || record == nullptr)
        return -1;
    Locked lock(queue->mutex);
    if (ktmnglist_insert(queue->list, queue->list->list, record, sizeof *record) == nullptr)
        return -1;
    pthread_cond_broadcast(&queue->ready);
    return 0;
}

int mntmg_getdata(mntmg *queue, mntmg_record *out) {
    if (queue == nullptr || out == nullptr)
        return -1;
    Locked lock(queue->mutex);
    ktlist *head = queue->list->list;
    if (head->next == head)
        return 1;

    int64_t size = ktmngiterator_get_data(head->next, out, sizeof *out);
    ktmnglist_erase(queue->list, head->next);
    if (size != static_cast<int64_t>(sizeof *out))
        return 1;
    if (is_hotplug_event(out->kind))
        return 0;

    for (ktmngiterator node = head->next; node != head; node = node->next) {
        const mntmg_record *later = request_at(node);
        if (later != nullptr && supersedes(*later, *out))
            return 2;
    }
    return 0;
}

int mntmg_getlen(mntmg *queue) {
    if (queue == nullptr)
        return -1;
    Locked lock(queue->mutex);
    return static_cast<int>(ktmnglist_length(queue->list));
}

int mntmg_wait_running(mntmg *queue, const int *running) {
    if (queue == nullptr || running == nullptr)
        return -1;
    Locked lock(queue->mutex);
    // The flag is read under the lock, which mntmg_wake takes after it is cleared: a wake is
    // never lost between the look and the wait. Like the lock, the wait cannot fail here.
    while (ktmnglist_length(queue->list) == 0 && kt::load_flag(running) != 0)
        pthread_cond_wait(&queue->ready, &queue->mutex);
    return static_cast<int>(ktmnglist_length(queue->list));
}

int mntmg_wake(mntmg *queue) {
    if (queue == nullptr)
        return -1;
    // The waiter holds the lock between its look at the flag and its wait: a single failed try
    // could fall in there and leave it asleep for good. It lets go within microseconds, so the
    // lock is tried for a while; only a holder that a signal interrupted keeps it longer.
    const timespec pause{0, 1000000};
    for (int tries = 0; tries < 100; ++tries) {
        if (pthread_mutex_trylock(&queue->mutex) == 0) {
            pthread_cond_broadcast(&queue->ready);
            pthread_mutex_unlock(&queue->mutex);
            return 0;
        }
        nanosleep(&pause, nullptr);
    }
    return -1;
}

int mntmg_wait(mntmg *queue, long timeout_ms) {
    if (queue == nullptr)
        return -1;
    timespec deadline{};
    if (timeout_ms >= 0 && !deadline_after(timeout_ms, &deadline))
        return -1;
    Locked lock(queue->mutex);
    while (ktmnglist_length(queue->list) == 0) {
        int rc = timeout_ms < 0 ? pthread_cond_wait(&queue->ready, &queue->mutex)
                                : pthread_cond_timedwait(&queue->ready, &queue->mutex, &deadline);
        if (rc == ETIMEDOUT)
            break;
        // A wait that cannot go on: the caller falls back to sleeping rather than spin.
        if (rc != 0)
            return -1;
    }
    return static_cast<int>(ktmnglist_length(queue->list));
}

} // extern "C"
