#include "broker/call.h"

#include "broker/request.h"

namespace bus {

namespace {

struct call_key {
    uint32_t caller;
    uint32_t callee;
    uint16_t seq;
};

struct call {
    avl_node avl;
    list_head of_caller;
    list_head of_callee;
    call_key key;
    client* caller;
};

int compare_calls(const void* a, const void* b, void*) {
    const call_key& left = *static_cast<const call_key*>(a);
    const call_key& right = *static_cast<const call_key*>(b);
    if (left.caller != right.caller) {
        return left.caller < right.caller ? -1 : 1;
    }
    if (left.callee != right.callee) {
        return left.callee < right.callee ? -1 : 1;
    }
    return left.seq < right.seq ? -1 : left.seq > right.seq;
}

call* find(broker& bus, const call_key& key) {
    call* found;
    return avl_find_element(&bus.calls, &key, found, avl);
}

void forget(call* done) {
    avl_delete(&done->caller->bus->calls, &done->avl);
    list_del(&done->of_caller);
    list_del(&done->of_callee);
    free(done);
}

// A caller that uses a number again before its answer came has one call under that number.
bool remember(client& caller, object& callee, uint16_t seq) {
    const call_key key = {caller.id.value, callee.id.value, seq};
    if (find(*caller.bus, key)) {
        return true;
    }
    call* open = static_cast<call*>(calloc(1, sizeof(call)));
    if (!open) {
        return false;
    }
    open->key = key;
    open->caller = &caller;
    open->avl.key = &open->key;
    avl_insert(&caller.bus->calls, &open->avl);
    list_add_tail(&open->of_caller, &caller.calls);
    list_add_tail(&open->of_callee, &callee.calls);
    return true;
}

void forget(client& caller, const object& callee, uint16_t seq) {
    call* open = find(*caller.bus, {caller.id.value, callee.id.value, seq});
    if (open) {
        forget(open);
    }
}

bool put_call(blob_writer& out, const client& caller, const object& callee,
              blob_attr* const* attrs) {
    return out.ready && put_u32(out, attr_objid, callee.id.value) &&
           put_text(out, attr_method, attribute_text(attrs[attr_method])) &&
           put_text(out, attr_user, caller.user) && put_text(out, attr_group, caller.group) &&
           put_table(out, attr_data, attrs[attr_data]) &&
           (!attribute_flag(attrs[attr_no_reply]) || blob_put_u8(&out.buf, attr_no_reply, 1));
}

} // namespace

void call_tree_init(avl_tree& calls) {
    avl_init(&calls, compare_calls, false, nullptr);
}

int call_forward(client& caller, const message& request, blob_attr* const* attrs) {
    object* callee = object_find(*caller.bus, attribute_u32(attrs[attr_objid]));
    if (!callee) {
        return UBUS_STATUS_NOT_FOUND;
    }
    blob_writer body;
    if (!put_call(body, caller, *callee, attrs)) {
        return UBUS_STATUS_NO_MEMORY;
    }
    if (blob_raw_len(body.buf.head) > body_bytes_max) { // with the names of user and group
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    const uint16_t seq = request.header.seq;
    const bool answered = !attribute_flag(attrs[attr_no_reply]);
    if (answered && !remember(caller, *callee, seq)) {
        return UBUS_STATUS_NO_MEMORY;
    }
    const message_header header = {UBUS_MSG_INVOKE, seq, caller.id.value};
    if (!client_send(*callee->owner, header, body.buf.head)) {
        forget(caller, *callee, seq);
        return UBUS_STATUS_NO_DATA; // it does not read, or is just going
    }
    return request_answered_later;
}

void call_answer(client& owner, const message& answer, blob_attr* const* attrs) {
    const object* callee = object_find(*owner.bus, attribute_u32(attrs[attr_objid]));
    if (!callee || callee->owner != &owner) {
        return;
    }
    id_node* node = id_find(owner.bus->clients, answer.header.peer);
    if (!node) {
        return;
    }
    client& caller = *container_of(node, client, id);
    const message_header header = {answer.header.type, answer.header.seq, callee->id.value};
    if (answer.header.type == UBUS_MSG_STATUS) {
        forget(caller, *callee, answer.header.seq);
    }
    client_send(caller, header, answer.body);
}

void call_abandon(object& callee) {
    while (!list_empty(&callee.calls)) {
        call* open = list_first_entry(&callee.calls, call, of_callee);
        blob_writer body;
        if (body.ready && put_u32(body, attr_status, UBUS_STATUS_TIMEOUT) &&
            put_u32(body, attr_objid, open->key.callee)) {
            const message_header header = {UBUS_MSG_STATUS, open->key.seq, open->key.callee};
            client_send(*open->caller, header, body.buf.head);
        }
        forget(open);
    }
}

void call_forget_caller(client& caller) {
    while (!list_empty(&caller.calls)) {
        forget(list_first_entry(&caller.calls, call, of_caller));
    }
}

} // namespace bus
