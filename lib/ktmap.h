/* ktmap: insertion-ordered key/value pairs kept in a ktlist, searched with a compare function. */
#ifndef KTMAP_H
#define KTMAP_H

#include "lib/ktlist.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The element type: the map neither copies nor frees a pair, its key or its value. */
typedef struct ktpair {
    char *key;
    char *value;
} ktpair;

/* Returns 0 when the element's key matches the search key, as strcmp does. */
typedef int (*ktmap_compare_fn)(const char *element_key, const char *key);

typedef struct ktmap {
    ktmap_compare_fn compare;
    ktlist *list;
} ktmap;

/* New empty map, or 0 when out of memory. Add pairs with ktlist_insert(map->list, map->list,
 * &pair). */
ktmap *ktmap_create(ktmap_compare_fn compare);

/* Frees the map and its list; the pairs stay with their owner. Null is ignored. */
void ktmap_dispose(ktmap *map);

/* First node whose pair matches `key`, else the head (the end marker); 0 for a null argument. */
ktlist_node *ktmap_find(const ktmap *map, const char *key);

#ifdef __cplusplus
}
#endif

#endif
