// ktlist: insert-before and erase-returning-next on a counting sentinel head.
#include "lib/ktlist.h"

#include <cstdlib>

namespace {

uintptr_t count_of(const ktlist *list) {
    return reinterpret_cast<uintptr_t>(list->data);
}

void set_count(ktlist *list, uintptr_t count) {
    list->data = reinterpret_cast<void *>(count);
}

} // namespace

extern "C" {

ktlist *ktlist_create(void) {
    auto *head = static_cast<ktlist *>(std::malloc(sizeof(ktlist)));
    if (head == nullptr)
        return nullptr;
    head->next = head;
    head->prev = head;
    set_count(head, 0);
    return head;
}

ktlist_node *ktlist_insert(ktlist *list, ktlist_node *pos, void *data) {
    if (list == nullptr || pos == nullptr)
        return nullptr;
    auto *node = static_cast<ktlist_node *>(std::malloc(sizeof(ktlist_node)));
    if (node == nullptr)
        return nullptr;
    node->data = data;
    node->next = pos;
    node->prev = pos->prev;
    pos->prev->next = node;
    pos->prev = node;
    set_count(list, count_of(list) + 1);
    return node;
}

ktlist_node *ktlist_erase(ktlist *list, ktlist_node *node) {
    // The head is never an element: erasing it would leave the list without its sentinel.
    if (list == nullptr || node == nullptr || count_of(list) == 0 || node == list)
        return nullptr;
    ktlist_node *following = node->next;
    node->prev->next = node->next;
    node->next->prev = node->prev;
    set_count(list, count_of(list) - 1);
    std::free(node);
    return following;
}

void ktlist_clear(ktlist *list) {
    if (list == nullptr)
        return;
    for (ktlist_node *node = list->next; node != list;)
        node = ktlist_erase(list, node);
}

void ktlist_dispose(ktlist *list) {
    if (list == nullptr)
        return;
    ktlist_clear(list);
    std::free(list);
}

uintptr_t ktlist_count(const ktlist *list) {
    return list == nullptr ? 0 : count_of(list);
}

} // extern "C"
