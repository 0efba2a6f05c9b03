#include "client/internal.h"

#include <new>

using namespace bus;

namespace {

void on_pending_timer(uloop_timeout* timer) {
    serve_kept(container_of(timer, ubus_context, pending_timer));
}

void end_uloop(ubus_context*) {
    uloop_end();
}

} // namespace

extern "C" {

ubus_context* ubus_connect(const char* path) {
    void* memory = malloc(sizeof(connection));
    if (!memory) {
        return nullptr;
    }
    connection* self = new (memory) connection{};
    ubus_context* ctx = &self->ctx;
    INIT_LIST_HEAD(&ctx->requests);
    INIT_LIST_HEAD(&ctx->pending);
    avl_init(&ctx->objects, compare_ids, false, nullptr);
    ctx->sock.fd = -1;
    ctx->sock.cb = transport_readable;
    ctx->pending_timer.cb = on_pending_timer;
    ctx->connection_lost = end_uloop;
    if (uloop_init() < 0 || !transport_open(ctx, path)) {
        free(self);
        return nullptr;
    }
    return ctx;
}

int ubus_reconnect(ubus_context* ctx, const char* path) {
    transport_close(ctx);
    if (!transport_open(ctx, path)) {
        return UBUS_STATUS_CONNECTION_FAILED;
    }
    return object_register_all(ctx);
}

void ubus_free(ubus_context* ctx) {
    if (!ctx) {
        return;
    }
    ubus_request* req;
    ubus_request* next;
    list_for_each_entry_safe(req, next, &ctx->requests, list) {
        list_del_init(&req->list);
    }
    uloop_timeout_cancel(&ctx->pending_timer);
    transport_close(ctx);
    free(&connection_of(ctx));
}

void ubus_add_uloop(ubus_context* ctx) {
    uloop_fd_add(&ctx->sock, ULOOP_READ | ULOOP_BLOCKING);
}

} // extern "C"
