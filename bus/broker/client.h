// A connection to the broker: who it is, what it still has to read, and its end.
#pragma once

#include "broker/broker.h"
#include "broker/id.h"
#include "broker/out_queue.h"
#include "wire/reader.h"

namespace bus {

struct client {
    id_node id;
    broker* bus;

    uloop_fd sock;
    uloop_timeout reaper; // frees the client after it was doomed
    bool doomed;
    bool deaf; // reads no more: gets nothing, but what it sent before is handled still

    reader in;
    out_queue out;

    char* user; // names, or numbers in text where the system has no name
    char* group;
    bool privileged;

    list_head objects; // its own
    list_head lookups; // under way
    list_head calls;   // it waits for
};

// Takes a connected socket in and greets. Closes it when there is no memory.
void client_accept(broker& bus, int fd);

// Sends a message or queues it. False when it was dropped: the client is going, or is too slow.
bool client_send(client& self, const message_header& header, const blob_attr* body);

// Has the client freed in the next turn of uloop; nothing is read from or sent to it any more.
void client_doom(client& self);

// Drops a client at once, with its objects and whatever it waits for.
void client_free(client* self);

} // namespace bus
