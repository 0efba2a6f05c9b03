// Ids that the broker draws at random, so that nobody meets a stranger under an old id.
#pragma once

#include "wire/attributes.h"

namespace bus {

struct id_node {
    avl_node avl;
    uint32_t value;
};

void id_tree_init(avl_tree& tree);

// Draws an unused id above reserved_ids and inserts the node under it. False, and the id 0, when
// the kernel gives no random numbers.
[[nodiscard]] bool id_insert(avl_tree& tree, id_node& node);

// The node with an id, or null.
[[nodiscard]] id_node* id_find(const avl_tree& tree, uint32_t value);

} // namespace bus
