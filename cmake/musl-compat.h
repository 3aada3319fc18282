/* musl-compat: the glibc names that libstdc++'s glibc-configured headers use, for musl builds. */
#ifndef HOTPLUGD_MUSL_COMPAT_H
#define HOTPLUGD_MUSL_COMPAT_H

#define __GLIBC_PREREQ(major, minor) 0

#ifdef __cplusplus
#include <locale.h>
#include <pthread.h>
#include <time.h>

typedef locale_t __locale_t;

/* glibc's character class bits, which musl's __ctype_b_loc table follows. */
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
#define HOTPLUGD_ISBIT(bit) (1 << (bit))
#else
#define HOTPLUGD_ISBIT(bit) ((bit) < 8 ? ((1 << (bit)) << 8) : ((1 << (bit)) >> 8))
#endif
enum {
    _ISupper = HOTPLUGD_ISBIT(0),
    _ISlower = HOTPLUGD_ISBIT(1),
    _ISalpha = HOTPLUGD_ISBIT(2),
    _ISdigit = HOTPLUGD_ISBIT(3),
    _ISxdigit = HOTPLUGD_ISBIT(4),
    _ISspace = HOTPLUGD_ISBIT(5),
    _ISprint = HOTPLUGD_ISBIT(6),
    _ISgraph = HOTPLUGD_ISBIT(7),
    _ISblank = HOTPLUGD_ISBIT(8),
    _IScntrl = HOTPLUGD_ISBIT(9),
    _ISpunct = HOTPLUGD_ISBIT(10),
    _ISalnum = HOTPLUGD_ISBIT(11)
};

/* Declared for libstdc++'s <mutex>; only the tests' GoogleTest reaches them. */
extern "C" int pthread_cond_clockwait(pthread_cond_t *, pthread_mutex_t *, clockid_t,
                                      const struct timespec *);
extern "C" int pthread_mutex_clocklock(pthread_mutex_t *, clockid_t, const struct timespec *);
#endif

#endif
