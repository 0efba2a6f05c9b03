#include "tool/print.h"

#include <memory>

#include "wire/platform.h"

namespace bus {

namespace {

struct free_memory {
    void operator()(void* memory) const { free(memory); }
};
using text = std::unique_ptr<char, free_memory>;

bool is_all_printed = true;

// Whether memory sufficed for the text.
bool is_made(const text& json) {
    is_all_printed = is_all_printed && json;
    return json != nullptr;
}

constexpr int one_line = -1;
constexpr int from_column_0 = 0;

const char* argument_type(void*, blob_attr* argument) {
    if (blobmsg_type(argument) != BLOBMSG_TYPE_INT32) {
        return nullptr; // a method: has its arguments asked for one by one
    }
    switch (blobmsg_get_u32(argument)) {
    case BLOBMSG_TYPE_ARRAY:
        return "\"Array\"";
    case BLOBMSG_TYPE_TABLE:
        return "\"Table\"";
    case BLOBMSG_TYPE_STRING:
        return "\"String\"";
    case BLOBMSG_TYPE_INT64:
    case BLOBMSG_TYPE_INT32:
    case BLOBMSG_TYPE_INT16:
    case BLOBMSG_CAST_INT64:
        return "\"Integer\"";
    case BLOBMSG_TYPE_BOOL:
        return "\"Boolean\"";
    case BLOBMSG_TYPE_DOUBLE:
        return "\"Double\"";
    default:
        return "\"(unknown)\"";
    }
}

} // namespace

void print_object(const ubus_object_data& obj, bool verbose) {
    if (!verbose) {
        printf("%s\n", obj.path);
        return;
    }
    printf("'%s' @%08x\n", obj.path, obj.id);
    blob_attr* method;
    size_t left;
    blob_for_each_attr(method, obj.signature, left) {
        const text line(
            blobmsg_format_json_with_cb(method, false, argument_type, nullptr, one_line));
        if (is_made(line)) {
            printf("\t%s\n", line.get());
        }
    }
}

void print_answer(const blob_attr* table, bool simple) {
    blob_attr* fields = const_cast<blob_attr*>(table);
    const text json(blobmsg_format_json_indent(fields, true, simple ? one_line : from_column_0));
    if (is_made(json)) {
        printf("%s\n", json.get());
    }
}

void print_event(const char* type, const blob_attr* table) {
    const text json(blobmsg_format_json(const_cast<blob_attr*>(table), true));
    if (is_made(json)) {
        printf("{ \"%s\": %s }\n", type, json.get());
    }
    fflush(stdout); // whoever listens waits for it
}

bool printed_all() {
    return is_all_printed;
}

} // namespace bus
