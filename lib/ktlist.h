/* ktlist: circular doubly linked list of untyped pointers with a counting sentinel head. */
#ifndef KTLIST_H
#define KTLIST_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * One node shape serves for elements and for the head. In an element node `data` is the
 * element pointer; in the head it holds the element count, so the length is read in
 * constant time (the mount queue's length is that word).
 */
typedef struct ktlist_node {
    struct ktlist_node *next;
    struct ktlist_node *prev;
    void *data;
} ktlist_node;

/* A list is its sentinel head. */
typedef ktlist_node ktlist;

/* New empty list, or 0 when out of memory. Not thread-safe: users lock around every call. */
ktlist *ktlist_create(void);

/* Links a new node holding `data` just before `pos` (pos == list appends); the node, or 0. */
ktlist_node *ktlist_insert(ktlist *list, ktlist_node *pos, void *data);

/* Unlinks and frees `node` (not its data); the node after it (the head after the last), or 0
 * when an argument is 0 or the list is empty. */
ktlist_node *ktlist_erase(ktlist *list, ktlist_node *node);

/* Erases every node; the data pointers are left to their owners. */
void ktlist_clear(ktlist *list);

/* Clears the list and frees its head. */
void ktlist_dispose(ktlist *list);

/* Element count kept in the head; 0 for a null list. */
uintptr_t ktlist_count(const ktlist *list);

#ifdef __cplusplus
}
#endif

#endif
