// Bytes for a client whose socket is full.
#pragma once

#include "wire/message.h"

namespace bus {

struct out_queue {
    list_head chunks;
    size_t bytes; // in all chunks, unsent
};

void out_queue_init(out_queue& out);
void out_queue_free(out_queue& out);

// Queues a message without its first `sent` bytes. False when that would put more than 1 MiB into
// the queue, or without memory. A message of which a part was sent is let in whatever its size, and
// so is one that finds the queue empty: any legal message can reach a client that reads.
[[nodiscard]] bool out_queue_push(out_queue& out, const message_header& header,
                                  const blob_attr* body, size_t sent);

// Sends what the socket takes. False when the connection is broken.
[[nodiscard]] bool out_queue_flush(out_queue& out, int fd);

} // namespace bus
