// proc internals shared with the tests: the command-line splitter and the read wait's limit.
#ifndef PROC_INTERNAL_H
#define PROC_INTERNAL_H

#include <sys/time.h>

// Splits `text` in place into words: separators are blank and line feed only; a quote opens a
// word when a partner of the same kind follows that no backslash precedes; backslashes stay.
// Returns a malloc'd, null-terminated vector of pointers into `text` (free() it), or null when
// out of memory. Plain C work only, so the child between fork and exec may call it.
char **proc_split_words(char *text);

// The select limit of a timed read: whole seconds, and the whole limit again as microseconds.
timeval proc_read_limit(unsigned int timeout_ms);

#endif
