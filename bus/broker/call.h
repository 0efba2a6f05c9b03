// Calls from one client to an object of another, from the forwarding until the status.
//
// The broker remembers each call only to end it when the object goes without having answered: the
// caller then gets UBUS_STATUS_TIMEOUT. The same status tells of an expired wait and of a lost
// connection, and says what holds: nobody knows whether the method ran. UBUS_STATUS_NOT_FOUND would
// claim that it did not.
#pragma once

#include "broker/object.h"

namespace bus {

void call_tree_init(avl_tree& calls);

// INVOKE of a client's object: forwards it. Returns a status, or request_answered_later.
[[nodiscard]] int call_forward(client& caller, const message& request, blob_attr* const* attrs);

// STATUS or DATA of an owner: passes it on to the caller; drops what is not about one of the
// owner's objects, or for nobody.
void call_answer(client& owner, const message& answer, blob_attr* const* attrs);

// The object goes: whoever waits for it is told.
void call_abandon(object& callee);

// The caller goes.
void call_forget_caller(client& caller);

} // namespace bus
