#include "broker/request.h"

#include "broker/call.h"
#include "broker/event.h"
#include "broker/lookup.h"
#include "broker/object.h"

namespace bus {

namespace {

int ping(client& self, const message& request) {
    const message_header header = {UBUS_MSG_DATA, request.header.seq, request.header.peer};
    client_send(self, header, request.body);
    return UBUS_STATUS_OK;
}

int invoke(client& self, const message& request, blob_attr* const* attrs) {
    if (!self.privileged) {
        return UBUS_STATUS_PERMISSION_DENIED;
    }
    if (!attrs[attr_objid] || !attrs[attr_method]) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    if (attribute_u32(attrs[attr_objid]) == object_events) {
        return event_invoke(self, attrs);
    }
    return call_forward(self, request, attrs);
}

int serve(client& self, const message& request, blob_attr* const* attrs) {
    switch (request.header.type) {
    case UBUS_MSG_PING:
        return ping(self, request);
    case UBUS_MSG_LOOKUP:
        return lookup_start(self, request, attrs);
    case UBUS_MSG_INVOKE:
        return invoke(self, request, attrs);
    case UBUS_MSG_ADD_OBJECT:
        return object_add(self, request, attrs);
    case UBUS_MSG_REMOVE_OBJECT:
        return object_remove(self, request, attrs);
    case UBUS_MSG_SUBSCRIBE:
    case UBUS_MSG_UNSUBSCRIBE:
    case UBUS_MSG_NOTIFY:
    case UBUS_MSG_MONITOR:
        return UBUS_STATUS_NOT_SUPPORTED;
    default:
        return UBUS_STATUS_INVALID_COMMAND;
    }
}

} // namespace

void request_handle(client& self, const message& request) {
    blob_attr* attrs[attr_count];
    const parse_result parsed = parse_attributes(request.body, attrs);
    if (parsed == parse_result::malformed) {
        client_doom(self);
        return;
    }
    const uint8_t type = request.header.type;
    if (type == UBUS_MSG_STATUS || type == UBUS_MSG_DATA) {
        call_answer(self, request, attrs);
        return;
    }
    const int status =
        parsed == parse_result::ok ? serve(self, request, attrs) : UBUS_STATUS_INVALID_ARGUMENT;
    if (status != request_answered_later) {
        request_send_status(self, request.header, status);
    }
}

void request_answer(client& self, const message& request, int type, const blob_writer& body) {
    const message_header header = {static_cast<uint8_t>(type), request.header.seq,
                                   request.header.peer};
    client_send(self, header, body.buf.head);
}

void request_send_status(client& self, const message_header& request, int status) {
    blob_writer body;
    if (!body.ready || !put_u32(body, attr_status, static_cast<uint32_t>(status))) {
        client_doom(self); // a caller without a status would wait for its whole time-out
        return;
    }
    client_send(self, {UBUS_MSG_STATUS, request.seq, request.peer}, body.buf.head);
}

} // namespace bus
