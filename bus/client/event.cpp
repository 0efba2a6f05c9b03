#include "client/internal.h"

using namespace bus;

namespace {

int on_event(ubus_context* ctx, ubus_object* obj, ubus_request_data*, const char* type,
             blob_attr* msg) {
    ubus_event_handler* ev = container_of(obj, ubus_event_handler, obj);
    ev->cb(ctx, ev, type, msg);
    return UBUS_STATUS_OK;
}

// An event comes as a call whose method is the event's type.
const ubus_method any_event = {nullptr, on_event, 0, 0, nullptr, 0};

} // namespace

extern "C" {

int ubus_register_event_handler(ubus_context* ctx, ubus_event_handler* ev, const char* pattern) {
    if (!object_is_registered(ctx, &ev->obj)) {
        ev->obj.methods = &any_event;
        ev->obj.n_methods = 1;
        const int status = ubus_add_object(ctx, &ev->obj);
        if (status != UBUS_STATUS_OK) {
            return status;
        }
    }
    blob_writer arguments;
    if (!arguments.ready || blobmsg_add_u32(&arguments.buf, "object", ev->obj.id) != 0 ||
        blobmsg_add_string(&arguments.buf, "pattern", pattern) != 0) {
        return UBUS_STATUS_NO_MEMORY;
    }
    return ubus_invoke(ctx, object_events, "register", arguments.buf.head, nullptr, nullptr, 0);
}

int ubus_send_event(ubus_context* ctx, const char* id, blob_attr* data) {
    const void* fields = data ? blob_data(data) : nullptr;
    const unsigned length = data ? static_cast<unsigned>(blob_len(data)) : 0;
    blob_writer arguments;
    if (!arguments.ready || blobmsg_add_string(&arguments.buf, "id", id) != 0 ||
        blobmsg_add_field(&arguments.buf, BLOBMSG_TYPE_TABLE, "data", fields, length) != 0) {
        return UBUS_STATUS_NO_MEMORY;
    }
    return ubus_invoke(ctx, object_events, "send", arguments.buf.head, nullptr, nullptr, 0);
}

} // extern "C"
