// ktmap: a ktlist of caller-owned pairs plus the compare function that finds them.
#include "lib/ktmap.h"

#include <cstdlib>

extern "C" {

ktmap *ktmap_create(ktmap_compare_fn compare) {
    auto *map = static_cast<ktmap *>(std::calloc(1, sizeof(ktmap)));
    if (map == nullptr)
        return nullptr;
    map->list = ktlist_create();
    if (map->list == nullptr) {
        std::free(map);
        return nullptr;
    }
    map->compare = compare;
    return map;
}

void ktmap_dispose(ktmap *map) {
    if (map == nullptr)
        return;
    ktlist_dispose(map->list);
    std::free(map);
}

ktlist_node *ktmap_find(const ktmap *map, const char *key) {
    if (map == nullptr || map->list == nullptr || key == nullptr)
        return nullptr;
    if (map->compare == nullptr)
        return map->list;
    for (ktlist_node *node = map->list->next; node != map->list; node = node->next) {
        const auto *pair = static_cast<const ktpair *>(node->data);
        if (pair != nullptr && map->compare(pair->key, key) == 0)
            return node;
    }
    return map->list;
}

} // extern "C"
