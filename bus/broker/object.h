// Objects, and the types (signatures) that they share.
#pragma once

#include "broker/client.h"

namespace bus {

struct object_type {
    id_node id;
    unsigned users;
    blob_attr* signature; // its own copy of the SIGNATURE attribute
};

struct object {
    id_node id;
    avl_node by_path; // its key is the path; null for an object without one
    list_head of_owner;

    client* owner;
    object_type* type; // or null

    list_head watches; // for events
    list_head calls;   // it is to answer
    uint16_t event_seq;
    uint32_t last_event; // broker::event when it was told last
};

[[nodiscard]] inline const char* object_path(const object& self) {
    return static_cast<const char*>(self.by_path.key);
}

[[nodiscard]] object* object_find(const broker& bus, uint32_t id);

// ADD_OBJECT, REMOVE_OBJECT: answer with data and return the status.
[[nodiscard]] int object_add(client& owner, const message& request, blob_attr* const* attrs);
[[nodiscard]] int object_remove(client& owner, const message& request, blob_attr* const* attrs);

// Frees all objects of a client. Who waits for one of them is told, and listeners are.
void object_free_all(client& owner);

} // namespace bus
