/* mntmg: the queue of mount requests handed from the request server to the mount thread. */
#ifndef REGISTRY_MNTMG_H
#define REGISTRY_MNTMG_H

#include <pthread.h>

#include "lib/ktmnglist.h"
#include "registry/records.h"

#ifdef __cplusplus
extern "C" {
#endif

/* First in, first out copies of mntmg_record; `mutex` guards `list`, and `ready` is signalled
 * whenever a request is queued. */
typedef struct mntmg {
    pthread_mutex_t mutex;
    ktmnglist *list;
    pthread_cond_t ready;
} mntmg;

/* New empty queue, or 0 when its lock or list cannot be made. */
mntmg *mntmg_initialize(void);

/* Frees the queue and every request still in it. Null is ignored. No thread may use it any more. */
void mntmg_free(mntmg *queue);

/* Appends a copy of `record` and wakes a waiting consumer; 0, or -1 for a null argument or no
 * memory (the request is then lost). Never waits beyond the lock. */
int mntmg_setdata(mntmg *queue, const mntmg_record *record);

/* Takes the oldest request into `out`. 0: carry it out; 2: a later request of another kind for
 * the same disk, or for all disks, supersedes it: drop it; 1: nothing to do (empty queue, or a
 * malformed element was discarded); -1: null argument. */
int mntmg_getdata(mntmg *queue, mntmg_record *out);

/* Number of queued requests, or -1 for null. */
int mntmg_getlen(mntmg *queue);

/* Waits until the queue holds a request or `timeout_ms` milliseconds have passed (a negative
 * limit waits for ever); the number queued, 0 when the time ran out on an empty queue, or -1
 * for null or a clock or wait that fails. Takes nothing: mntmg_getdata follows.
 * Measured on the monotonic clock, so setting the wall clock neither cuts nor stretches it. */
int mntmg_wait(mntmg *queue, long timeout_ms);

/* Waits without a time limit until the queue holds a request or `*running` is 0, which whoever
 * clears it tells with mntmg_wake; the number queued, or -1 for null. An idle mount thread
 * waits here and is never woken for nothing. */
int mntmg_wait_running(mntmg *queue, const int *running);

/* Wakes every mntmg_wait_running to look at its flag again; 0, or -1 for null or when the lock
 * stays taken for a tenth of a second. It only tries the lock, so a signal handler may call it
 * even when the thread it interrupted holds the lock. */
int mntmg_wake(mntmg *queue);

#ifdef __cplusplus
}
#endif

#endif
