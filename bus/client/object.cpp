#include "client/internal.h"

namespace bus {

namespace {

bool put_method(blob_buf* out, const ubus_method& method) {
    void* table = blobmsg_open_table(out, method.name);
    if (!table) {
        return false;
    }
    for (int i = 0; i < method.n_policy; i++) {
        if (method.mask && !(method.mask & 1UL << i)) {
            continue;
        }
        const blobmsg_policy& argument = method.policy[i];
        if (blobmsg_add_u32(out, argument.name, argument.type) != 0) {
            return false;
        }
    }
    blobmsg_close_table(out, table);
    return true;
}

bool put_signature(blob_writer& out, const ubus_object_type& type) {
    void* signature = blob_nest_start(&out.buf, attr_signature);
    if (!signature) {
        return false;
    }
    for (int i = 0; i < type.n_methods; i++) {
        if (!put_method(&out.buf, type.methods[i])) {
            return false;
        }
    }
    blob_nest_end(&out.buf, signature);
    return true;
}

bool put_type(blob_writer& out, const ubus_object_type* type) {
    if (!type) {
        return true;
    }
    return type->id ? put_u32(out, attr_objtype, type->id) : put_signature(out, *type);
}

// The broker's answer to ADD_OBJECT. The object is ours from here on: the first call may stand
// behind the answer, in the same read.
void take_ids(ubus_request* req, int, blob_attr* msg) {
    ubus_object* obj = static_cast<ubus_object*>(req->priv);
    blob_attr* attrs[attr_count];
    if (obj->id != 0 || parse_attributes(msg, attrs) != parse_result::ok || !attrs[attr_objid]) {
        return;
    }
    obj->id = attribute_u32(attrs[attr_objid]);
    obj->avl.key = &obj->id;
    if (obj->id == 0 || avl_insert(&req->ctx->objects, &obj->avl) != 0) {
        obj->id = 0;
        return;
    }
    if (obj->type && attrs[attr_objtype]) {
        obj->type->id = attribute_u32(attrs[attr_objtype]);
    }
}

// The broker's answer to REMOVE_OBJECT.
void forget_type(ubus_request* req, int, blob_attr* msg) {
    ubus_object* obj = static_cast<ubus_object*>(req->priv);
    blob_attr* attrs[attr_count];
    if (obj->type && parse_attributes(msg, attrs) == parse_result::ok && attrs[attr_objtype]) {
        obj->type->id = 0;
    }
}

int send_and_wait(ubus_context* ctx, int type, const blob_writer& body, ubus_data_handler_t answer,
                  ubus_object* obj) {
    const blocking_call call(ctx);
    ubus_request req;
    const int status = request_start(ctx, &req, type, 0, body.buf.head);
    if (status != UBUS_STATUS_OK) {
        return status;
    }
    req.raw_data_cb = answer;
    req.priv = obj;
    return ubus_complete_request(ctx, &req, 0);
}

int ask_to_add(ubus_context* ctx, ubus_object* obj) {
    blob_writer body;
    if (!body.ready || (obj->name && !put_text(body, attr_objpath, obj->name)) ||
        !put_type(body, obj->type)) {
        return UBUS_STATUS_NO_MEMORY;
    }
    obj->id = 0;
    const int status = send_and_wait(ctx, UBUS_MSG_ADD_OBJECT, body, take_ids, obj);
    if (status != UBUS_STATUS_OK && obj->id != 0) {
        avl_delete(&ctx->objects, &obj->avl);
        obj->id = 0;
    }
    return status == UBUS_STATUS_OK && obj->id == 0 ? UBUS_STATUS_PARSE_ERROR : status;
}

int add(ubus_context* ctx, ubus_object* obj) {
    const bool known_type = obj->type && obj->type->id;
    int status = ask_to_add(ctx, obj);
    if (status == UBUS_STATUS_INVALID_ARGUMENT && known_type) {
        obj->type->id = 0; // left from an earlier context, perhaps: the type is static, as a rule
        status = ask_to_add(ctx, obj);
    }
    return status;
}

} // namespace

bool object_is_registered(ubus_context* ctx, const ubus_object* obj) {
    return obj->id != 0 && avl_find(&ctx->objects, &obj->id) == &obj->avl;
}

int object_register_all(ubus_context* ctx) {
    avl_tree old; // an object gets a new key, so each one moves to a new tree
    avl_init(&old, compare_ids, false, nullptr);
    ubus_object* obj;
    ubus_object* next;
    avl_for_each_element_safe(&ctx->objects, obj, avl, next) {
        avl_delete(&ctx->objects, &obj->avl);
        avl_insert(&old, &obj->avl);
        if (obj->type) {
            obj->type->id = 0;
        }
    }
    int status = UBUS_STATUS_OK;
    avl_for_each_element_safe(&old, obj, avl, next) {
        avl_delete(&old, &obj->avl);
        const uint32_t old_id = obj->id;
        const int refused = add(ctx, obj);
        if (refused) { // stays ours, for the next attempt
            obj->id = old_id;
            avl_insert(&ctx->objects, &obj->avl);
            status = status ? status : refused;
        }
    }
    return status;
}

} // namespace bus

using namespace bus;

extern "C" {

int ubus_add_object(ubus_context* ctx, ubus_object* obj) {
    if (object_is_registered(ctx, obj)) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    return add(ctx, obj);
}

int ubus_remove_object(ubus_context* ctx, ubus_object* obj) {
    if (!object_is_registered(ctx, obj)) {
        return UBUS_STATUS_NOT_FOUND;
    }
    blob_writer body;
    if (!body.ready || !put_u32(body, attr_objid, obj->id)) {
        return UBUS_STATUS_NO_MEMORY;
    }
    const int status = send_and_wait(ctx, UBUS_MSG_REMOVE_OBJECT, body, forget_type, obj);
    if (status == UBUS_STATUS_OK) {
        avl_delete(&ctx->objects, &obj->avl);
        obj->id = 0;
    }
    return status;
}

} // extern "C"
