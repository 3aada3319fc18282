/* sysconf: the daemon's settings, loaded once at start-up from its settings file. */
#ifndef SYSCONF_H
#define SYSCONF_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Read-only after start-up. Text fields are filled up to their width, so a value as long as
 * its field has no terminating NUL; zero the whole record before loading. */
typedef struct hotplugd_settings {
    char share_dir[1024];        /* SHAREDIR: mount points are made below it */
    char tmp_dir[1024];          /* TMPDIR: device nodes and the configuration rewrite */
    char prog[1024];             /* PROG: the event program; empty when missing or not executable */
    char drive_name_format[256]; /* DRVNAME: name pattern with a volume label; holds "%D" */
    char fallback_name_format[128]; /* VLABEL: name pattern without a label; holds "%D" */
    char rom_device[1024];          /* set by the daemon when ROM writing is on, never read here */
    uint32_t mount_gid;             /* MNTGID: group id of the mounted file systems */
    uint32_t mount_delay;           /* DMOUNT: seconds by which an added device is delayed */
    uint32_t max_part;              /* MAXPART: maximum partition count */
    uint32_t use_volume_label;      /* 1 when drive_name_format holds "%V" */
} hotplugd_settings;

/* Fills `settings` from the settings file at `path` (keys without a section). 0, or -1 when the
 * file cannot be read, a required key is missing, DRVNAME is empty or a number does not parse;
 * the record may then be partly filled. Logs nothing. Main thread, before other threads. */
int load_sysconf(const char *path, hotplugd_settings *settings);

#ifdef __cplusplus
}
#endif

#endif
