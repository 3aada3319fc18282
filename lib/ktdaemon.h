/* ktdaemon: detaching into the background and the locked pid file that keeps one instance. */
#ifndef KTDAEMON_H
#define KTDAEMON_H

#ifdef __cplusplus
extern "C" {
#endif

/* Forks twice around setsid so the result is no session leader; 0 in the detached process,
 * -1 on failure. Each parent leaves with _exit(0). Closes 0, 1 and 2 for the caller to reopen.
 * `name` is not used. */
int kt_daemonize(const char *name);

/* Creates and locks "/var/run/<name>.pid" and writes the pid into it; the open descriptor,
 * which the caller keeps for the life of the process, or -1 (another instance holds it). */
int kt_create_pid_file(const char *name);

#ifdef __cplusplus
}
#endif

#endif
