// ktmnglist: elements copied in on insert and freed on erase, so no caller's memory is shared.
#include "lib/ktmnglist.h"

#include <cstdlib>
#include <cstring>

namespace {

ktmnglist_elem *elem_of(ktmngiterator node) {
    return static_cast<ktmnglist_elem *>(node->data);
}

} // namespace

extern "C" {

ktmnglist *ktmnglist_create(ktmnglist_free_fn on_free) {
    auto *mlist = static_cast<ktmnglist *>(std::calloc(1, sizeof(ktmnglist)));
    if (mlist == nullptr)
        return nullptr;
    mlist->list = ktlist_create();
    if (mlist->list == nullptr) {
        std::free(mlist);
        return nullptr;
    }
    mlist->on_free = on_free;
    return mlist;
}

ktmngiterator ktmnglist_insert(ktmnglist *mlist, ktmngiterator pos, const void *data,
                               uint32_t size) {
    if (mlist == nullptr || pos == nullptr || data == nullptr)
        return nullptr;
    auto *elem = static_cast<ktmnglist_elem *>(std::malloc(sizeof(ktmnglist_elem)));
    if (elem == nullptr)
        return nullptr;
    // malloc(0) may return null; one spare byte keeps an empty element distinguishable.
    elem->buffer = std::malloc(size == 0 ? 1 : size);
    if (elem->buffer == nullptr) {
        std::free(elem);
        return nullptr;
    }
    std::memcpy(elem->buffer, data, size);
    elem->size = size;
    ktmngiterator node = ktlist_insert(mlist->list, pos, elem);
    if (node == nullptr) {
        std::free(elem->buffer);
        std::free(elem);
    }
    return node;
}

ktmngiterator ktmnglist_erase(ktmnglist *mlist, ktmngiterator node) {
    // The head is no element: its data word is the count, not a wrapper to free.
    if (mlist == nullptr || node == nullptr || node == mlist->list)
        return nullptr;
    if (ktmnglist_elem *elem = elem_of(node)) {
        if (elem->buffer != nullptr) {
            if (mlist->on_free != nullptr)
                mlist->on_free(elem->buffer);
            std::free(elem->buffer);
        }
        std::free(elem);
        node->data = nullptr;
    }
    return ktlist_erase(mlist->list, node);
}

void ktmnglist_clear(ktmnglist *mlist) {
    if (mlist == nullptr)
        return;
    for (ktmngiterator node = mlist->list->next; node != mlist->list;)
        node = ktmnglist_erase(mlist, node);
}

void ktmnglist_free(ktmnglist *mlist) {
    if (mlist == nullptr)
        return;
    ktmnglist_clear(mlist);
    ktlist_dispose(mlist->list);
    std::free(mlist);
}

uintptr_t ktmnglist_length(const ktmnglist *mlist) {
    return mlist == nullptr ? 0 : ktlist_count(mlist->list);
}

int64_t ktmngiterator_get_data(ktmngiterator node, void *out, uint32_t outsize) {
    if (node == nullptr || out == nullptr)
        return -1;
    if (outsize == 0)
        return 0;
    const ktmnglist_elem *elem = elem_of(node);
    if (elem == nullptr)
        return -1;
    std::memcpy(out, elem->buffer, elem->size < outsize ? elem->size : outsize);
    return elem->size;
}

void *ktmngiterator_get_ptr(ktmngiterator node) {
    if (node == nullptr || elem_of(node) == nullptr)
        return nullptr;
    return elem_of(node)->buffer;
}

} // extern "C"
