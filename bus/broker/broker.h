// The broker: one process, one thread, one uloop. Everything under broker/ runs there.
//
//     broker ── clients (by id) ── objects, lookups under way, calls that they wait for
//            ── objects (by id, by path) ── watches, calls that they are to answer
//            ── types (by id)
//
// A client is never freed while its messages are handled or sent: it is doomed, and a timer of its
// own frees it in the next turn of uloop.
#pragma once

#include "wire/attributes.h"

namespace bus {

struct broker {
    uloop_fd listener;
    uloop_timeout relisten; // accepts again after descriptors ran out
    char* path;             // of the listening socket

    uid_t uid; // a client of this user, or of uid 0, may do anything

    avl_tree clients; // by id
    avl_tree objects; // by id
    avl_tree paths;   // objects that have one, by name
    avl_tree types;   // by id
    avl_tree calls;   // forwarded and unanswered
    list_head watches;

    uint32_t event; // the number of the event that is being sent
};

// Listens at `path`, in place of a socket there that nobody serves any more; everybody may
// connect. Call uloop_init first. On failure prints one line to standard error and returns false;
// nothing is left behind.
[[nodiscard]] bool broker_open(broker& self, const char* path);

// Drops all clients, removes the socket and releases everything.
void broker_close(broker& self);

} // namespace bus
