// What a client asks of the broker: one message in, answers out.
#pragma once

#include "broker/client.h"

namespace bus {

// Not a status: somebody else, or a later turn, sends it.
constexpr int request_answered_later = -1;

// Handles one message of a client. The client may be doomed afterwards.
void request_handle(client& self, const message& request);

// Sends an answer under the request's own seq and peer.
void request_answer(client& self, const message& request, int type, const blob_writer& body);
void request_send_status(client& self, const message_header& request, int status);

} // namespace bus
