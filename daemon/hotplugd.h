/* hotplugd: the daemon's main context, which owns everything the two threads share. */
#ifndef DAEMON_HOTPLUGD_H
#define DAEMON_HOTPLUGD_H

#include "config/sysconf.h"
#include "daemon/receive.h"
#include "lib/ktipc.h"
#include "mount/mount_thread.h"
#include "registry/drivename.h"
#include "registry/mntmg.h"
#include "registry/sddb.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Zeroed at the start of main and kept on its stack for the life of the process; the objects
 * it points to are made during start-up and never freed. */
typedef struct hotplugd_context {
    int running;     /* 1 while the daemon runs; both loops poll it through a pointer */
    int daemon_mode; /* -D */
    int pid_fd;      /* the locked pid file, -1 until made */
    hotplugd_settings settings;
    drive_letter_table drive_letter_table;
    mount_thread_ctx mount_args;
    receive_thread_args receive_args;
    mntmg *queue;
    struct sddb *sddb;
    ktipc *ipc; /* the server channel "hotplugd"; null once closed */
} hotplugd_context;

#ifdef __cplusplus
}
#endif

#endif
