// LOOKUP. A long list is sent as the client reads it: a lookup stops when the socket is full and
// goes on from the last path when all is written, so that no list outgrows a client's queue.
#pragma once

#include "broker/client.h"

namespace bus {

// Begins a lookup. Returns a status, or request_answered_later.
[[nodiscard]] int lookup_start(client& self, const message& request, blob_attr* const* attrs);

// The client's queue is empty: goes on with what was stopped.
void lookup_resume(client& self);

void lookup_free_all(client& self);

} // namespace bus
