#include "client/internal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <utility>

namespace bus {

namespace {

// We are on the main thread: a broker that is stuck must not keep it for ever. One greets at once,
// and never stops reading.
constexpr int hello_timeout_ms = 5000;
constexpr int send_timeout_ms = 10000;

// False when nothing happened in that time. A signal counts as something: callers look and wait
// again.
bool wait_for(int fd, short events, int milliseconds) {
    pollfd waited = {fd, events, 0};
    const int ready = poll(&waited, 1, milliseconds);
    return ready > 0 || (ready < 0 && errno == EINTR);
}

// Requests end here and now. connection_lost is left to the read handler, which uloop calls for
// the dead socket: a program that waits in the middle of something must not find its connection
// replaced when it gets its status.
void mark_lost(ubus_context* ctx) {
    connection& self = connection_of(ctx);
    self.lost = true;
    ctx->sock.eof = true;
    reader_reset(self.in);
    serve_forget(ctx);
    request_end_all(ctx, UBUS_STATUS_TIMEOUT);
}

void dispatch(ubus_context* ctx, message received) {
    switch (received.header.type) {
    case UBUS_MSG_STATUS:
    case UBUS_MSG_DATA:
        request_answer(ctx, received);
        break;
    case UBUS_MSG_INVOKE:
        serve_call(ctx, std::move(received));
        break;
    default:
        break; // nothing that was asked for
    }
}

// Reads once. False when there was nothing to read or the connection is lost.
bool read_once(ubus_context* ctx) {
    connection& self = connection_of(ctx);
    if (self.lost) {
        return false;
    }
    switch (reader_fill(self.in, ctx->sock.fd)) {
    case read_result::nothing:
        return false;
    case read_result::closed:
        mark_lost(ctx);
        return false;
    case read_result::bytes:
        break;
    }
    transport_dispatch(ctx);
    return true;
}

bool read_hello(ubus_context* ctx) {
    uint8_t hello[prologue_bytes];
    size_t have = 0;
    while (have < sizeof(hello)) {
        if (!wait_for(ctx->sock.fd, POLLIN, hello_timeout_ms)) {
            return false;
        }
        // Not a byte more: what follows belongs to the reader.
        const ssize_t got = recv(ctx->sock.fd, hello + have, sizeof(hello) - have, MSG_DONTWAIT);
        if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        have += static_cast<size_t>(got);
    }
    const message_header header = decode_header(hello);
    if (header.type != UBUS_MSG_HELLO || message_length(hello) != sizeof(hello)) {
        return false;
    }
    ctx->local_id = header.peer;
    return true;
}

void close_socket(ubus_context* ctx) {
    uloop_fd_delete(&ctx->sock);
    if (ctx->sock.fd >= 0) {
        close(ctx->sock.fd);
        ctx->sock.fd = -1;
    }
}

} // namespace

bool transport_open(ubus_context* ctx, const char* path) {
    const int fd = usock(USOCK_UNIX, path ? path : UBUS_UNIX_SOCKET, nullptr);
    if (fd < 0) {
        return false;
    }
    ctx->sock.fd = fd;
    ctx->sock.eof = false;
    ctx->sock.error = false;
    if (!read_hello(ctx) || fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK) < 0 ||
        fcntl(fd, F_SETFD, FD_CLOEXEC) < 0) {
        close_socket(ctx);
        return false;
    }
    connection_of(ctx).lost = false;
    return true;
}

void transport_close(ubus_context* ctx) {
    close_socket(ctx);
    mark_lost(ctx);
}

int transport_send(ubus_context* ctx, const message_header& header, const blob_attr* body) {
    if (blob_raw_len(body) > body_bytes_max) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    const size_t size = header_bytes + blob_raw_len(body);
    size_t sent = 0;
    while (sent < size) {
        if (connection_of(ctx).lost) {
            return UBUS_STATUS_CONNECTION_FAILED;
        }
        const ssize_t taken = send_message_part(ctx->sock.fd, header, body, sent);
        if (taken < 0) {
            return UBUS_STATUS_CONNECTION_FAILED; // the read handler notices it too
        }
        if (taken == 0 && !wait_for(ctx->sock.fd, POLLOUT, send_timeout_ms)) {
            shutdown(ctx->sock.fd, SHUT_RDWR); // half a message cannot be taken back
            return UBUS_STATUS_CONNECTION_FAILED;
        }
        sent += static_cast<size_t>(taken);
    }
    return UBUS_STATUS_OK;
}

void transport_dispatch(ubus_context* ctx) {
    connection& self = connection_of(ctx);
    for (;;) {
        message received;
        switch (reader_take(self.in, received)) {
        case take_result::message:
            dispatch(ctx, std::move(received));
            break;
        case take_result::incomplete:
            return;
        case take_result::failed:
            mark_lost(ctx);
            return;
        }
    }
}

void transport_wait(ubus_context* ctx, int milliseconds) {
    if (wait_for(ctx->sock.fd, POLLIN, milliseconds)) {
        read_once(ctx);
    }
}

void transport_readable(uloop_fd* sock, unsigned) {
    ubus_context* ctx = container_of(sock, ubus_context, sock);
    // A socket whose peer hung up was taken out of uloop before this call: there is no other one.
    while (read_once(ctx) && !sock->registered) {
    }
    serve_kept(ctx);
    if (connection_of(ctx).lost) {
        uloop_fd_delete(sock);
        ctx->connection_lost(ctx);
    }
}

} // namespace bus
