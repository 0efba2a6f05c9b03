#include "broker/lookup.h"

#include "broker/object.h"
#include "broker/request.h"

namespace bus {

namespace {

// What a client may have stopped at a time; it asks for one after the other, as a rule.
constexpr int lookups_max = 16;

struct lookup {
    list_head of_client;
    message_header request;
    char* pattern; // without the '*'
    bool prefix;
    bool named; // a path was given: to match nothing is a failure
    bool found;
    char* last; // the path of the last object that was sent, null before the first
};

void lookup_free(lookup* self) {
    list_del(&self->of_client);
    free(self->pattern);
    free(self->last);
    free(self);
}

bool matches(const lookup& self, const object& candidate) {
    const char* path = object_path(candidate);
    return self.prefix ? strncmp(path, self.pattern, strlen(self.pattern)) == 0
                       : strcmp(path, self.pattern) == 0;
}

object* successor(const broker& bus, object* self) {
    const bool last = self->by_path.list.next == &bus.paths.list_head;
    return last ? nullptr : avl_next_element(self, by_path);
}

// The first object in name order that may match and was not sent yet.
object* first_object(const broker& bus, const lookup& self) {
    const char* from = self.last ? self.last : self.pattern;
    object* first = avl_find_ge_element(&bus.paths, from, first, by_path);
    if (first && self.last && strcmp(object_path(*first), self.last) == 0) {
        return successor(bus, first);
    }
    return first;
}

// Stops after `last`, or where it stood when that is null.
int stop(lookup& self, const object* last) {
    char* path = last ? strdup(object_path(*last)) : self.last;
    if (last && !path) {
        return UBUS_STATUS_NO_MEMORY;
    }
    if (path != self.last) {
        free(self.last);
        self.last = path;
    }
    return request_answered_later;
}

bool send_object(client& self, const lookup& asked, const object& listed) {
    blob_writer body;
    if (!body.ready || !put_text(body, attr_objpath, object_path(listed)) ||
        !put_u32(body, attr_objid, listed.id.value) ||
        !put_u32(body, attr_objtype, listed.type->id.value) ||
        !put_table(body, attr_signature, listed.type->signature)) {
        return false;
    }
    const message_header header = {UBUS_MSG_DATA, asked.request.seq, asked.request.peer};
    return client_send(self, header, body.buf.head);
}

// Sends objects until the socket is full or the end is reached. Returns the status for the end.
int send_some(client& self, lookup& asked) {
    const object* last = nullptr;
    object* next = first_object(*self.bus, asked);
    for (; next && matches(asked, *next); next = successor(*self.bus, next)) {
        if (self.out.bytes > 0) {
            return stop(asked, last);
        }
        last = next;
        if (!next->type) {
            continue;
        }
        asked.found = true;
        if (!send_object(self, asked, *next)) {
            return UBUS_STATUS_NO_MEMORY;
        }
    }
    return asked.named && !asked.found ? UBUS_STATUS_NOT_FOUND : UBUS_STATUS_OK;
}

// Goes on with a lookup. True when it is done.
bool proceed(client& self, lookup* asked) {
    const int status = send_some(self, *asked);
    if (status == request_answered_later) {
        return false;
    }
    request_send_status(self, asked->request, status);
    lookup_free(asked);
    return true;
}

lookup* lookup_create(client& self, const message& request, const char* path) {
    lookup* asked = static_cast<lookup*>(calloc(1, sizeof(lookup)));
    if (!asked) {
        return nullptr;
    }
    asked->request = request.header;
    asked->named = path != nullptr;
    const size_t length = path ? strlen(path) : 0;
    asked->prefix = !path || (length > 0 && path[length - 1] == '*');
    asked->pattern = strndup(path ? path : "", length - (path && asked->prefix));
    list_add_tail(&asked->of_client, &self.lookups);
    if (!asked->pattern) {
        lookup_free(asked);
        return nullptr;
    }
    return asked;
}

int count(const client& self) {
    int lookups = 0;
    list_head* each;
    list_for_each(each, &self.lookups) {
        lookups++;
    }
    return lookups;
}

} // namespace

int lookup_start(client& self, const message& request, blob_attr* const* attrs) {
    const char* path = attribute_text(attrs[attr_objpath]);
    if (!self.privileged) { // sees nothing
        return path ? UBUS_STATUS_NOT_FOUND : UBUS_STATUS_OK;
    }
    lookup* asked = count(self) < lookups_max ? lookup_create(self, request, path) : nullptr;
    if (!asked) {
        return UBUS_STATUS_NO_MEMORY;
    }
    proceed(self, asked);
    return request_answered_later;
}

void lookup_resume(client& self) {
    while (!list_empty(&self.lookups) && self.out.bytes == 0) {
        if (!proceed(self, list_first_entry(&self.lookups, lookup, of_client))) {
            return;
        }
    }
}

void lookup_free_all(client& self) {
    while (!list_empty(&self.lookups)) {
        lookup_free(list_first_entry(&self.lookups, lookup, of_client));
    }
}

} // namespace bus
