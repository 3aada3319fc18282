/* ktmnglist: a ktlist that owns a private copy of every element, and its node iterator. */
#ifndef KTMNGLIST_H
#define KTMNGLIST_H

#include <stdint.h>

#include "lib/ktlist.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What each node's data points to: the element's byte count and its heap copy. */
typedef struct ktmnglist_elem {
    uint32_t size;
    void *buffer;
} ktmnglist_elem;

/* Called with an element's copy just before the copy is freed. */
typedef void (*ktmnglist_free_fn)(void *buffer);

typedef struct ktmnglist {
    ktlist *list;
    ktmnglist_free_fn on_free;
} ktmnglist;

/* An iterator is a node: start at list->next, step with ->next, stop back at the head. */
typedef ktlist_node *ktmngiterator;

/* New empty managed list (on_free may be 0), or 0 when out of memory. Not thread-safe. */
ktmnglist *ktmnglist_create(ktmnglist_free_fn on_free);

/* Inserts a copy of `size` bytes of `data` before `pos`; the new node, or 0. The caller keeps
 * `data`. */
ktmngiterator ktmnglist_insert(ktmnglist *mlist, ktmngiterator pos, const void *data,
                               uint32_t size);

/* Frees the element at `node`; the following node (the head after the last), or 0. */
ktmngiterator ktmnglist_erase(ktmnglist *mlist, ktmngiterator node);

/* Erases every element and keeps the list. Null is ignored. */
void ktmnglist_clear(ktmnglist *mlist);

/* Erases every element and frees the list. Null is ignored. */
void ktmnglist_free(ktmnglist *mlist);

/* Number of elements; 0 for a null list. */
uintptr_t ktmnglist_length(const ktmnglist *mlist);

/* Copies min(size, outsize) bytes out and returns the element's full size, which callers check
 * against the size they expect; 0 when outsize is 0; -1 for a null argument or an empty node. */
int64_t ktmngiterator_get_data(ktmngiterator node, void *out, uint32_t outsize);

/* The element's own buffer, for reading and changing it in place under the user's lock; 0 when
 * the node holds nothing. */
void *ktmngiterator_get_ptr(ktmngiterator node);

#ifdef __cplusplus
}
#endif

#endif
