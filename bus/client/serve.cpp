#include "client/internal.h"

#include <new>
#include <utility>

namespace bus {

namespace {

struct kept_call {
    list_head list;
    message call;
};

// Sends a STATUS or DATA about a call. Returns a status.
int send_about(ubus_context* ctx, const ubus_request_data& req, int type, const blob_writer& body) {
    return transport_send(ctx, {static_cast<uint8_t>(type), req.seq, req.peer}, body.buf.head);
}

// Best effort: when the connection breaks here, the caller hears of it from the broker.
void send_status(ubus_context* ctx, const ubus_request_data& req, int status) {
    blob_writer body;
    if (body.ready && put_u32(body, attr_status, static_cast<uint32_t>(status)) &&
        put_u32(body, attr_objid, req.object)) {
        (void)send_about(ctx, req, UBUS_MSG_STATUS, body);
    }
}

const ubus_method* find_method(const ubus_object* obj, const char* name) {
    for (int i = 0; i < obj->n_methods; i++) {
        const ubus_method* method = &obj->methods[i];
        if (!method->name || strcmp(method->name, name) == 0) {
            return method;
        }
    }
    return nullptr;
}

int call_method(ubus_context* ctx, ubus_request_data* req, blob_attr* const* attrs) {
    if (!attrs[attr_objid] || !attrs[attr_method]) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    ubus_object* obj;
    obj = avl_find_element(&ctx->objects, &req->object, obj, avl);
    if (!obj) {
        return UBUS_STATUS_NOT_FOUND;
    }
    const char* name = attribute_text(attrs[attr_method]);
    const ubus_method* method = find_method(obj, name);
    if (!method) {
        return UBUS_STATUS_METHOD_NOT_FOUND;
    }
    blob_attr none = {};
    blob_set_raw_len(&none, sizeof(none));
    blob_attr* arguments = attrs[attr_data] ? attrs[attr_data] : &none;
    return method->handler(ctx, obj, req, name, arguments);
}

void handle(ubus_context* ctx, const message& call) {
    blob_attr* attrs[attr_count];
    const parse_result parsed = parse_attributes(call.body, attrs);

    ubus_request_data req = {};
    req.object = attribute_u32(attrs[attr_objid]);
    req.peer = call.header.peer;
    req.seq = call.header.seq;
    req.acl.user = attribute_text(attrs[attr_user]);
    req.acl.group = attribute_text(attrs[attr_group]);

    const int status =
        parsed == parse_result::ok ? call_method(ctx, &req, attrs) : UBUS_STATUS_INVALID_ARGUMENT;
    if (!req.deferred && !attribute_flag(attrs[attr_no_reply])) {
        send_status(ctx, req, status);
    }
}

void drop(kept_call* kept) {
    list_del(&kept->list);
    kept->~kept_call();
    free(kept);
}

} // namespace

void serve_call(ubus_context* ctx, message call) {
    void* memory = malloc(sizeof(kept_call));
    if (!memory) {
        return;
    }
    kept_call* kept = new (memory) kept_call{{}, std::move(call)};
    list_add_tail(&kept->list, &ctx->pending);
    serve_kept(ctx);
}

void serve_kept(ubus_context* ctx) {
    connection& self = connection_of(ctx);
    if (self.serving || ctx->stack_depth > 0) {
        return;
    }
    self.serving = true;
    while (!list_empty(&ctx->pending)) {
        kept_call* kept = list_first_entry(&ctx->pending, kept_call, list);
        const message call = std::move(kept->call);
        drop(kept);
        handle(ctx, call);
    }
    self.serving = false;
}

void serve_forget(ubus_context* ctx) {
    while (!list_empty(&ctx->pending)) {
        drop(list_first_entry(&ctx->pending, kept_call, list));
    }
}

} // namespace bus

using namespace bus;

extern "C" {

int ubus_send_reply(ubus_context* ctx, ubus_request_data* req, blob_attr* msg) {
    blob_writer body;
    if (!body.ready || !put_u32(body, attr_objid, req->object) ||
        !put_table(body, attr_data, msg)) {
        return UBUS_STATUS_NO_MEMORY;
    }
    return send_about(ctx, *req, UBUS_MSG_DATA, body);
}

void ubus_defer_request(ubus_context*, ubus_request_data* req, ubus_request_data* new_req) {
    *new_req = *req;
    new_req->acl = {};
    req->deferred = true;
}

void ubus_complete_deferred_request(ubus_context* ctx, ubus_request_data* req, int ret) {
    send_status(ctx, *req, ret);
}

} // extern "C"
