/* proc: starting an outside program without a shell, reading its output, waiting with a limit. */
#ifndef PROC_H
#define PROC_H

#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Flags of proc_create: where the child's standard streams go. Only one pipe is ever made, so
 * PROC_STDOUT_PIPE | PROC_STDIN_PIPE joins the child's output to its own input. */
#define PROC_STDOUT_PIPE 0x01 /* output into a pipe read through `out` */
#define PROC_STDIN_PIPE 0x02  /* input from a pipe written through `in` */
#define PROC_STDOUT_NULL 0x10 /* output to "/dev/null"; refused with PROC_STDOUT_PIPE */
#define PROC_STDERR_NULL 0x40 /* error output to "/dev/null" */

/* A started child. Belongs to the thread that made it; freed by proc_free_ktprocess. */
typedef struct ktprocess {
    pid_t pid;
    FILE *in;  /* feeds the child's standard input; only with PROC_STDIN_PIPE */
    FILE *out; /* carries the child's standard output; only with PROC_STDOUT_PIPE */
} ktprocess;

/* Starts the printf-formatted command line, split into words (blanks and line feeds; quotes
 * group words; backslashes stay), through the search path. The record, or null for a null
 * format, PROC_STDOUT_PIPE with PROC_STDOUT_NULL, or a failed allocation, pipe or fork. A
 * program that cannot be run exits with status 255. The child is reaped only by
 * proc_wait_exittm; SIGCHLD must not be ignored by the process. */
ktprocess *proc_create(int flags, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* Closes `in` and `out` and frees the record, without waiting for or signalling the child;
 * always 0 (null is ignored). */
int proc_free_ktprocess(ktprocess *proc);

/* Polls for the child's end every 100 ms for up to *timeout_ms (no limit for a null pointer),
 * never signalling it; `options` are waitpid's, WNOHANG always added. Writes back the time
 * spent in whole 100 ms steps (the sub-step remainder of the limit is not counted). Returns the
 * pid once reaped, storing in *status (if given) the exit code, or the raw wait status when a
 * signal ended or stopped it; 0 while it still runs; -1 on error or a null record. */
int proc_wait_exittm(ktprocess *proc, int options, unsigned int *timeout_ms, int *status);

/* Reads the child's output byte by byte into `buf` until a NUL, any byte of `delims` (consumed,
 * not stored) or `size` bytes. Terminates the text unless it filled `buf`. The count, or -1 for
 * a bad argument, a read error or an output that ended before anything was stored. */
int proc_readd_stdout(ktprocess *proc, char *buf, int32_t size, const char *delims);

/* As proc_readd_stdout when `delims` is given; without it one block read of up to `size` bytes
 * (it returns once `size` bytes or the end of the output arrived), not terminated. With a limit,
 * first waits for the pipe to become readable: 0 on time-out. Note that the wait is
 * *timeout_ms / 1000 seconds plus *timeout_ms milliseconds, and that it
 * looks at the pipe, not at bytes an earlier delimited read left buffered in `out`. -1 on
 * error or at the end of the output. */
int proc_readd_stdout_tm(ktprocess *proc, char *buf, int32_t size, const char *delims,
                         unsigned int *timeout_ms);

/* Writes printf-formatted text to the child's standard input and flushes it; what vfprintf
 * returned, or -1 for a null argument or no `in`. */
int proc_write_stdin(ktprocess *proc, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

#ifdef __cplusplus
}
#endif

#endif
