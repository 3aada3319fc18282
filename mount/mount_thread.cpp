// mount_thread: the thread that carries out queued requests one at a time, and its idle rules.
#include "mount/mount_thread.h"

#include "lib/kt_internal.h"
#include "mount/fsmount.h"
#include "mount/hooks.h"
#include "mount/mount_internal.h"
#include "mount/unmount.h"

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// How many outside programs the engine is waiting for, and the lock that also covers the other
// threads' reaping, so that none reaps while the engine has a child.
pthread_mutex_t children_lock = PTHREAD_MUTEX_INITIALIZER;
int children_waited;

// What happened since the queue was last idle.
enum batch_flags : unsigned { batch_mounted = 1, batch_unmounted = 2 };

// A request whose due time lies further ahead is carried out after this long all the same.
constexpr int64_t due_wait_cap_us = 5000000;
constexpr int64_t us_per_s = 1000000;

// Sleeps until the request is due, at most due_wait_cap_us; not at all when the clock fails.
void wait_until_due(const mntmg_record &request) {
    timeval now{};
    if (gettimeofday(&now, nullptr) != 0)
        return;
    int64_t wait = (static_cast<int64_t>(request.due_sec) - now.tv_sec) * us_per_s +
                   (static_cast<int64_t>(request.due_usec) - now.tv_usec);
    if (wait > due_wait_cap_us) {
        sleep(static_cast<unsigned>(due_wait_cap_us / us_per_s));
        usleep(0);
    } else if (wait >= 1) {
        sleep(static_cast<unsigned>(wait / us_per_s));
        usleep(static_cast<useconds_t>(wait % us_per_s));
    }
}

void run_hook(const mount_thread_ctx *ctx, int action) {
    if (ctx->settings == nullptr)
        return;
    kt::field_text prog(ctx->settings->prog);
    callprog(prog.c_str(), action);
}

void *thread_start(void *arg) {
    if (arg == nullptr)
        return nullptr;
    auto *ctx = static_cast<mount_thread_ctx *>(arg);
    ctx->result = mnt_thread_loop(ctx);
    return nullptr;
}

} // namespace

mount_engine::waited_child::waited_child() {
    pthread_mutex_lock(&children_lock);
    ++children_waited;
    pthread_mutex_unlock(&children_lock);
}

mount_engine::waited_child::~waited_child() {
    pthread_mutex_lock(&children_lock);
    --children_waited;
    pthread_mutex_unlock(&children_lock);
}

extern "C" {

int mount_reap_child(void) {
    pthread_mutex_lock(&children_lock);
    int reaped = children_waited == 0 ? waitpid(-1, nullptr, WNOHANG) : 0;
    pthread_mutex_unlock(&children_lock);
    return reaped;
}

int mount_thread_run(mount_thread_ctx *ctx) {
    if (ctx == nullptr || ctx->running == nullptr || ctx->queue == nullptr ||
        ctx->devices == nullptr)
        return -1;
    // Ctrl-C is for the main thread: its handler sleeps through the grace period, which is
    // this thread's time to unmount every disk. The new thread inherits the blocked signal.
    sigset_t block, old;
    sigemptyset(&block);
    sigaddset(&block, SIGINT);
    pthread_sigmask(SIG_BLOCK, &block, &old);
    int created = pthread_create(&ctx->thread, nullptr, thread_start, ctx);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    if (created != 0)
        return -1;
    // Nobody joins it: at a stop the daemon only gives it time (see the grace period).
    pthread_detach(ctx->thread);
    return 0;
}

int mnt_thread_loop(mount_thread_ctx *ctx) {
    if (ctx == nullptr || ctx->running == nullptr || ctx->queue == nullptr)
        return -1;
    unsigned batch = 0;
    bool after_removal = false;
    mntmg_record request{};
    while (kt::load_flag(ctx->running) != 0) {
        int taken = mntmg_getdata(ctx->queue, &request);
        if (taken == 1) {
            if (mntmg_getlen(ctx->queue) != 0)
                continue;
            if (batch == 0) {
                // Idle: woken at once by a new request or a stop, and not otherwise.
                mntmg_wait_running(ctx->queue, ctx->running);
                continue;
            }
            // A batch ends after a quiet second: the records become visible to clients, then
            // the event program hears of it, unless the batch removed a disk.
            sleep(1);
            mark_devices_valid(ctx->devices);
            batch = 0;
            if (after_removal) {
                std::printf("%s:after umount\n", "mnt_thread_loop");
                after_removal = false;
            } else {
                run_hook(ctx, HOOK_AFTERMNT);
            }
            continue;
        }
        // A request superseded by a later one is dropped; so is everything on a queue error,
        // which is tried again at once.
        if (taken != 0)
            continue;
        wait_until_due(request);
        if (request.kind == MNTMG_KIND_MOUNT || request.kind == MNTMG_KIND_UNMOUNT)
            run_hook(ctx, HOOK_BEFOREMNT);
        switch (request.kind) {
        case MNTMG_KIND_ADD:
            hotplug_mount(ctx, &request);
            batch |= batch_mounted;
            break;
        case MNTMG_KIND_REMOVE:
            hotplug_remove(ctx, &request);
            batch |= batch_unmounted;
            after_removal = true;
            break;
        case MNTMG_KIND_MOUNT:
            mount_disk(ctx, &request, 1);
            batch |= batch_mounted;
            break;
        case MNTMG_KIND_UNMOUNT:
            umount_disk(ctx, &request, 1);
            batch |= batch_unmounted;
            break;
        default:
            break;
        }
    }
    // Stopping: every disk is unmounted, with the guard. The request keeps the last client's
    // address, where a refusal is sent (see umount_disk).
    request.minor = MNTMG_ALL_DEVICES;
    umount_disk(ctx, &request, 0);
    return 0;
}

} // extern "C"
