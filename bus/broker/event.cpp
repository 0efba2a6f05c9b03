#include "broker/event.h"

namespace bus {

namespace {

// An object's wish to be told of events of one type, or of all that begin with it.
struct watch {
    list_head of_broker;
    list_head of_object;
    object* listener;
    size_t length;
    bool prefix;
    char pattern[]; // without the '*'
};

bool matches(const watch& wish, const char* type) {
    return wish.prefix ? strncmp(type, wish.pattern, wish.length) == 0
                       : strcmp(type, wish.pattern) == 0;
}

bool is_known(const object& listener, const char* pattern, size_t length, bool prefix) {
    watch* wish;
    list_for_each_entry(wish, &listener.watches, of_object) {
        if (wish->prefix == prefix && wish->length == length &&
            memcmp(wish->pattern, pattern, length) == 0) {
            return true;
        }
    }
    return false;
}

int watch_add(object& listener, const char* pattern) {
    size_t length = strlen(pattern);
    const bool prefix = length > 0 && pattern[length - 1] == '*';
    length -= prefix;
    if (is_known(listener, pattern, length, prefix)) {
        return UBUS_STATUS_OK;
    }
    watch* wish = static_cast<watch*>(calloc(1, sizeof(watch) + length + 1));
    if (!wish) {
        return UBUS_STATUS_NO_MEMORY;
    }
    wish->listener = &listener;
    wish->length = length;
    wish->prefix = prefix;
    memcpy(wish->pattern, pattern, length);
    list_add_tail(&wish->of_broker, &listener.owner->bus->watches);
    list_add_tail(&wish->of_object, &listener.watches);
    return UBUS_STATUS_OK;
}

void tell(object& listener, const char* type, const blob_attr* fields, size_t length) {
    blob_writer body;
    if (!body.ready || !put_u32(body, attr_objid, listener.id.value) ||
        !put_text(body, attr_method, type) ||
        !blob_put(&body.buf, attr_data, fields, static_cast<unsigned>(length))) {
        return;
    }
    const message_header header = {UBUS_MSG_INVOKE, ++listener.event_seq, 0};
    client_send(*listener.owner, header, body.buf.head);
}

// Tells each listener once, however many of its patterns match.
void send_event(broker& bus, const char* type, const blob_attr* fields, size_t length) {
    bus.event++;
    watch* wish;
    list_for_each_entry(wish, &bus.watches, of_broker) {
        object& listener = *wish->listener;
        if (listener.last_event != bus.event && matches(*wish, type)) {
            listener.last_event = bus.event;
            tell(listener, type, fields, length);
        }
    }
}

int invoke_register(client& caller, blob_attr* arguments) {
    constexpr blobmsg_policy policy[] = {{"object", BLOBMSG_TYPE_INT32},
                                         {"pattern", BLOBMSG_TYPE_STRING}};
    blob_attr* found[ARRAY_SIZE(policy)];
    blobmsg_parse(policy, ARRAY_SIZE(policy), found, blob_data(arguments),
                  static_cast<unsigned>(blob_len(arguments)));
    if (!found[0] || !found[1]) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    object* listener = object_find(*caller.bus, blobmsg_get_u32(found[0]));
    if (!listener) {
        return UBUS_STATUS_NOT_FOUND;
    }
    if (listener->owner != &caller) {
        return UBUS_STATUS_PERMISSION_DENIED;
    }
    return watch_add(*listener, blobmsg_get_string(found[1]));
}

int invoke_send(client& caller, blob_attr* arguments) {
    constexpr blobmsg_policy policy[] = {{"id", BLOBMSG_TYPE_STRING}, {"data", BLOBMSG_TYPE_TABLE}};
    blob_attr* found[ARRAY_SIZE(policy)];
    blobmsg_parse(policy, ARRAY_SIZE(policy), found, blob_data(arguments),
                  static_cast<unsigned>(blob_len(arguments)));
    if (!found[0] || !found[1]) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    send_event(*caller.bus, blobmsg_get_string(found[0]),
               static_cast<const blob_attr*>(blobmsg_data(found[1])), blobmsg_data_len(found[1]));
    return UBUS_STATUS_OK;
}

void send_object_event(broker& bus, const char* type, uint32_t id, const char* path) {
    blob_writer data;
    if (!data.ready || blobmsg_add_u32(&data.buf, "id", id) != 0 ||
        blobmsg_add_string(&data.buf, "path", path) != 0) {
        return;
    }
    send_event(bus, type, static_cast<const blob_attr*>(blob_data(data.buf.head)),
               blob_len(data.buf.head));
}

} // namespace

int event_invoke(client& caller, blob_attr* const* attrs) {
    const char* method = attribute_text(attrs[attr_method]);
    const bool registers = strcmp(method, "register") == 0;
    if (!registers && strcmp(method, "send") != 0) {
        return UBUS_STATUS_METHOD_NOT_FOUND;
    }
    if (!attrs[attr_data]) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    return registers ? invoke_register(caller, attrs[attr_data])
                     : invoke_send(caller, attrs[attr_data]);
}

void event_object_added(broker& bus, uint32_t id, const char* path) {
    send_object_event(bus, "ubus.object.add", id, path);
}

void event_object_gone(broker& bus, uint32_t id, const char* path) {
    send_object_event(bus, "ubus.object.remove", id, path);
}

void event_forget_object(object& listener) {
    watch* wish;
    watch* next;
    list_for_each_entry_safe(wish, next, &listener.watches, of_object) {
        list_del(&wish->of_broker);
        list_del(&wish->of_object);
        free(wish);
    }
}

} // namespace bus
