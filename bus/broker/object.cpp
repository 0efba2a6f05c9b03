#include "broker/object.h"

#include "broker/call.h"
#include "broker/event.h"
#include "broker/request.h"

namespace bus {

namespace {

// The largest number that stands for an argument's type in a method's policy.
constexpr uint32_t policy_type_max = BLOBMSG_CAST_INT64;

bool method_is_sound(blob_attr* method) {
    if (blobmsg_type(method) != BLOBMSG_TYPE_TABLE || !blob_is_extended(method)) {
        return false;
    }
    blob_attr* argument;
    size_t left;
    blobmsg_for_each_attr(argument, method, left) {
        if (blobmsg_type(argument) != BLOBMSG_TYPE_INT32 ||
            blobmsg_data_len(argument) != sizeof(uint32_t) ||
            blobmsg_get_u32(argument) > policy_type_max) {
            return false;
        }
    }
    return true;
}

bool signature_is_sound(blob_attr* signature) {
    blob_attr* method;
    size_t left;
    blob_for_each_attr(method, signature, left) {
        if (!method_is_sound(method)) {
            return false;
        }
    }
    return true;
}

void type_release(broker& bus, object_type* type) {
    if (!type || --type->users > 0) {
        return;
    }
    avl_delete(&bus.types, &type->id.avl);
    free(type->signature);
    free(type);
}

object_type* type_create(broker& bus, const blob_attr* signature) {
    object_type* type = static_cast<object_type*>(calloc(1, sizeof(object_type)));
    if (!type) {
        return nullptr;
    }
    type->users = 1;
    type->signature = blob_memdup(signature);
    if (!type->signature || !id_insert(bus.types, type->id)) {
        free(type->signature);
        free(type);
        return nullptr;
    }
    return type;
}

// The type that an ADD_OBJECT names or describes, taken once; null in *type when it does neither.
int type_acquire(broker& bus, blob_attr* const* attrs, object_type** type) {
    *type = nullptr;
    if (attrs[attr_objtype]) {
        id_node* known = id_find(bus.types, attribute_u32(attrs[attr_objtype]));
        if (!known) {
            return UBUS_STATUS_INVALID_ARGUMENT;
        }
        *type = container_of(known, object_type, id);
        (*type)->users++;
        return UBUS_STATUS_OK;
    }
    if (!attrs[attr_signature]) {
        return UBUS_STATUS_OK;
    }
    if (!signature_is_sound(attrs[attr_signature])) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    *type = type_create(bus, attrs[attr_signature]);
    return *type ? UBUS_STATUS_OK : UBUS_STATUS_NO_MEMORY;
}

// Takes the object out of every tree and list and frees it. The path is the caller's to free.
void object_free(object* self) {
    broker& bus = *self->owner->bus;
    if (self->id.value != 0) {
        avl_delete(&bus.objects, &self->id.avl);
    }
    list_del(&self->of_owner);
    event_forget_object(*self);
    call_abandon(*self);
    type_release(bus, self->type);
    free(self);
}

// Frees a registered object and tells listeners.
void object_retire(object* self) {
    broker& bus = *self->owner->bus;
    const uint32_t id = self->id.value;
    char* path = static_cast<char*>(const_cast<void*>(self->by_path.key));
    if (path) {
        avl_delete(&bus.paths, &self->by_path);
    }
    object_free(self);
    if (path) {
        event_object_gone(bus, id, path);
        free(path);
    }
}

// Takes the type over, whether it succeeds or not.
object* object_create(client& owner, object_type* type, const char* path) {
    object* self = static_cast<object*>(calloc(1, sizeof(object)));
    if (!self) {
        type_release(*owner.bus, type);
        return nullptr;
    }
    self->owner = &owner;
    self->type = type;
    INIT_LIST_HEAD(&self->watches);
    INIT_LIST_HEAD(&self->calls);
    list_add_tail(&self->of_owner, &owner.objects);
    char* own_path = path ? strdup(path) : nullptr;
    if ((path && !own_path) || !id_insert(owner.bus->objects, self->id)) {
        free(own_path);
        object_free(self);
        return nullptr;
    }
    if (path) {
        self->by_path.key = own_path;
        avl_insert(&owner.bus->paths, &self->by_path);
    }
    return self;
}

// Whether what LOOKUP and events tell of an object is no larger than a message may be.
bool can_be_told(const object_type* type, const char* path) {
    constexpr size_t other_attributes = 128; // ids, lengths, padding, an event's type
    const size_t signature = type ? blob_raw_len(type->signature) : 0;
    return (path ? strlen(path) : 0) + signature + other_attributes <= body_bytes_max;
}

bool answer_add(client& owner, const message& request, const object& added, bool with_type) {
    blob_writer answer;
    if (!answer.ready || !put_u32(answer, attr_objid, added.id.value) ||
        (with_type && !put_u32(answer, attr_objtype, added.type->id.value))) {
        return false;
    }
    request_answer(owner, request, UBUS_MSG_DATA, answer);
    return true;
}

} // namespace

object* object_find(const broker& bus, uint32_t id) {
    id_node* node = id_find(bus.objects, id);
    return node ? container_of(node, object, id) : nullptr;
}

int object_add(client& owner, const message& request, blob_attr* const* attrs) {
    if (!owner.privileged) {
        return UBUS_STATUS_PERMISSION_DENIED;
    }
    broker& bus = *owner.bus;
    const char* path = attribute_text(attrs[attr_objpath]);
    if (path && avl_find(&bus.paths, path)) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    object_type* type;
    const int status = type_acquire(bus, attrs, &type);
    if (status != UBUS_STATUS_OK) {
        return status;
    }
    if (!can_be_told(type, path)) {
        type_release(bus, type);
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    object* added = object_create(owner, type, path);
    if (!added) {
        return UBUS_STATUS_NO_MEMORY;
    }
    if (!answer_add(owner, request, *added, type && attrs[attr_signature])) {
        object_retire(added);
        return UBUS_STATUS_NO_MEMORY;
    }
    if (path) {
        event_object_added(bus, added->id.value, path);
    }
    return UBUS_STATUS_OK;
}

int object_remove(client& owner, const message& request, blob_attr* const* attrs) {
    if (!attrs[attr_objid]) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    object* removed = object_find(*owner.bus, attribute_u32(attrs[attr_objid]));
    if (!removed || !owner.privileged) {
        return UBUS_STATUS_NOT_FOUND; // who sees no object is not to learn of one here
    }
    if (removed->owner != &owner) {
        return UBUS_STATUS_PERMISSION_DENIED;
    }
    blob_writer answer;
    const bool last = removed->type && removed->type->users == 1;
    if (!answer.ready || !put_u32(answer, attr_objid, removed->id.value) ||
        (last && !put_u32(answer, attr_objtype, removed->type->id.value))) {
        return UBUS_STATUS_NO_MEMORY;
    }
    request_answer(owner, request, UBUS_MSG_DATA, answer);
    object_retire(removed);
    return UBUS_STATUS_OK;
}

void object_free_all(client& owner) {
    while (!list_empty(&owner.objects)) {
        object_retire(list_first_entry(&owner.objects, object, of_owner));
    }
}

} // namespace bus
