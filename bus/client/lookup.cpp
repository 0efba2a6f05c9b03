#include "client/internal.h"

using namespace bus;

namespace {

struct lookup {
    ubus_context* ctx;
    ubus_lookup_handler_t cb;
    void* priv;
};

void tell(ubus_request* req, int, blob_attr* msg) {
    const lookup* asked = static_cast<const lookup*>(req->priv);
    blob_attr* attrs[attr_count];
    if (parse_attributes(msg, attrs) != parse_result::ok || !attrs[attr_objid] ||
        !attrs[attr_objpath] || !attrs[attr_objtype]) {
        return;
    }
    ubus_object_data obj = {};
    obj.id = attribute_u32(attrs[attr_objid]);
    obj.path = attribute_text(attrs[attr_objpath]);
    obj.type_id = attribute_u32(attrs[attr_objtype]);
    obj.signature = attrs[attr_signature];
    asked->cb(asked->ctx, &obj, asked->priv);
}

struct wanted_id {
    bool found;
    uint32_t id;
};

void take_first(ubus_context*, ubus_object_data* obj, void* priv) {
    wanted_id* wanted = static_cast<wanted_id*>(priv);
    if (!wanted->found) {
        *wanted = {true, obj->id};
    }
}

} // namespace

extern "C" {

int ubus_lookup(ubus_context* ctx, const char* path, ubus_lookup_handler_t cb, void* priv) {
    blob_writer body;
    if (!body.ready || (path && !put_text(body, attr_objpath, path))) {
        return UBUS_STATUS_NO_MEMORY;
    }
    const blocking_call call(ctx);
    ubus_request req;
    const int status = request_start(ctx, &req, UBUS_MSG_LOOKUP, 0, body.buf.head);
    if (status != UBUS_STATUS_OK) {
        return status;
    }
    lookup asked = {ctx, cb, priv};
    req.raw_data_cb = tell;
    req.priv = &asked;
    return ubus_complete_request(ctx, &req, 0);
}

int ubus_lookup_id(ubus_context* ctx, const char* path, uint32_t* id) {
    wanted_id wanted = {false, 0};
    const int status = ubus_lookup(ctx, path, take_first, &wanted);
    if (status != UBUS_STATUS_OK) {
        return status;
    }
    if (!wanted.found) {
        return UBUS_STATUS_NOT_FOUND;
    }
    *id = wanted.id;
    return UBUS_STATUS_OK;
}

} // extern "C"
