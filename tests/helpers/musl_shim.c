/* musl_shim: what Debian's glibc-built libstdc++.a asks of the C library beyond what musl has;
 * linked into the test programs of musl builds only (the shipped programs use no libstdc++). */
#include <stdint.h>
#include <sys/random.h>

/* 0: libstdc++ then always uses atomic reference counts, right with threads or without. */
char __libc_single_threaded = 0;

/* No fast lookup: the unwinder falls back to its own search (GoogleTest catches exceptions). */
struct dl_find_object;
int _dl_find_object(void *pc, struct dl_find_object *result) {
    (void)pc;
    (void)result;
    return -1;
}

uint32_t arc4random(void) {
    uint32_t value = 0;
    getrandom(&value, sizeof value, 0);
    return value;
}
