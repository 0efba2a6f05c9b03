// What the modules of the client library share. Main thread only, as libubus.h.
//
// transport  bytes in and out, loss of the connection
// request    our requests: sequence numbers, answers, waiting
// serve      calls to our objects: kept, dispatched to methods, answered
#pragma once

#include "wire/attributes.h"
#include "wire/reader.h"

namespace bus {

// The context that programs see, and what they do not. Made by ubus_connect.
struct connection {
    ubus_context ctx; // first: a pointer to it is a pointer to this
    reader in;
    bool lost;    // the peer is gone, or sends nonsense; connection_lost is due or was called
    bool serving; // a kept call is being handled
};

inline connection& connection_of(ubus_context* ctx) {
    return *container_of(ctx, connection, ctx);
}

// transport

// Connects ctx->sock to the broker and learns local_id. False leaves no socket behind.
[[nodiscard]] bool transport_open(ubus_context* ctx, const char* path);

// Closes the socket, out of uloop first, and ends every request with UBUS_STATUS_TIMEOUT.
void transport_close(ubus_context* ctx);

// Sends a whole message, waiting while the socket is full. Returns a status.
[[nodiscard]] int transport_send(ubus_context* ctx, const message_header& header,
                                 const blob_attr* body);

// Hands every complete message that was read already to whom it concerns.
void transport_dispatch(ubus_context* ctx);

// Waits up to `milliseconds` (-1: without end) for bytes, reads once and dispatches. The wait may
// end early for a signal.
void transport_wait(ubus_context* ctx, int milliseconds);

// uloop's callback for ctx->sock.
void transport_readable(uloop_fd* sock, unsigned events);

// request

// A blocking call under way, from before its request is sent: calls to our objects are kept as long
// as there is one, and scheduled when the last one ends. From its beginning on SIGINT, SIGTERM and
// uloop_end end the wait; that uloop was ended before it does not.
class blocking_call {
public:
    explicit blocking_call(ubus_context* ctx);
    ~blocking_call();
    blocking_call(const blocking_call&) = delete;
    blocking_call& operator=(const blocking_call&) = delete;

private:
    ubus_context* m_ctx;
    bool m_was_cancelled;
};

// Sends a request for an object (0: the broker itself), beginning `req`. Returns a status.
[[nodiscard]] int request_start(ubus_context* ctx, ubus_request* req, int type, uint32_t peer,
                                const blob_attr* body);

// Takes in an answer: a message of type STATUS or DATA.
void request_answer(ubus_context* ctx, const message& answer);

// Ends all pending requests with a status.
void request_end_all(ubus_context* ctx, int status);

// serve

// Takes in a call; it is handled at once unless somebody waits or another is being handled.
void serve_call(ubus_context* ctx, message call);

// Handles the kept calls, unless somebody waits.
void serve_kept(ubus_context* ctx);

// Forgets the kept calls.
void serve_forget(ubus_context* ctx);

// object

// Whether the object is registered on this connection.
[[nodiscard]] bool object_is_registered(ubus_context* ctx, const ubus_object* obj);

// Registers all objects of the context on a new connection. The status of the first refused.
[[nodiscard]] int object_register_all(ubus_context* ctx);

} // namespace bus
