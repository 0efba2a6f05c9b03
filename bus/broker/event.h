// Events: who wants to be told of what, and the telling.
#pragma once

#include "broker/object.h"

namespace bus {

// INVOKE of the broker's event object: `register` and `send`. Returns the status.
[[nodiscard]] int event_invoke(client& caller, blob_attr* const* attrs);

// Tells listeners of an object that has a path.
void event_object_added(broker& bus, uint32_t id, const char* path);
void event_object_gone(broker& bus, uint32_t id, const char* path);

// The object goes; so do its patterns.
void event_forget_object(object& listener);

} // namespace bus
