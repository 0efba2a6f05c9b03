#include "broker/id.h"

#include <sys/random.h>

namespace bus {

void id_tree_init(avl_tree& tree) {
    avl_init(&tree, compare_ids, false, nullptr);
}

bool id_insert(avl_tree& tree, id_node& node) {
    node.avl.key = &node.value;
    do {
        if (getrandom(&node.value, sizeof(node.value), 0) != sizeof(node.value)) {
            node.value = 0;
            return false;
        }
    } while (node.value <= reserved_ids || avl_insert(&tree, &node.avl) != 0);
    return true;
}

id_node* id_find(const avl_tree& tree, uint32_t value) {
    id_node* node;
    return avl_find_element(&tree, &value, node, avl);
}

} // namespace bus
