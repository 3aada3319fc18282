/* mount_thread: the one thread that mounts and unmounts, its context, and its request loop. */
#ifndef MOUNT_MOUNT_THREAD_H
#define MOUNT_MOUNT_THREAD_H

#include <pthread.h>

#include "config/sysconf.h"
#include "lib/ktipc.h"
#include "registry/drivename.h"
#include "registry/mntmg.h"
#include "registry/sddb.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What the mount thread works with; made and filled by the daemon's main context before the
 * thread starts, and never freed. Every handler of the engine takes it. */
typedef struct mount_thread_ctx {
    int *running; /* the daemon's run flag: the loop ends once it reads 0 */
    int result;   /* what the loop returned, stored by the thread */
    mntmg *queue;
    sddb *devices;
    ktipc *ipc; /* replies to clients' mount and unmount requests go out on it */
    pthread_t thread;
    const hotplugd_settings *settings;
    int write_rom;       /* -w: new drive letters are stored to the ROM device */
    int fixed_drive;     /* -f: drive letters remembered per serial, released on removal */
    int no_force_select; /* no trial mounts of partitions whose file system is unknown */
    drive_letter_table *drive_letter_table;
} mount_thread_ctx;

/* Reaps one ended child of the daemon that nobody waits for (a program the engine left running
 * past its time limit), as the request server does once a pass; but not while the mount thread
 * runs an outside program and waits for it, whose exit status the reaping would steal.
 * waitpid's result, or 0 when it did not look. Any thread. */
int mount_reap_child(void);

/* Starts the mount thread on `ctx` (default attributes, the handle in ctx->thread), which runs
 * mnt_thread_loop and stores its result. 0, or -1 when the context, its running flag, queue or
 * database is null, or the thread cannot be made. */
int mount_thread_run(mount_thread_ctx *ctx);

/* Carries out queued requests one at a time in queue order until *ctx->running reads 0, then
 * unmounts every partition (with the dirty-page guard, without replying). Returns 0, or -1 for
 * a null context, run flag or queue. */
int mnt_thread_loop(mount_thread_ctx *ctx);

#ifdef __cplusplus
}
#endif

#endif
