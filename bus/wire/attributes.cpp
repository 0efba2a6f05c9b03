#include "wire/attributes.h"

namespace bus {

namespace {

// Twice what the JSON parser admits; bounds the recursion here and in whoever prints the data.
constexpr int depth_max = 64;

constexpr blob_attr_info unused = {BLOB_ATTR_UNSPEC, 0, 0, nullptr};
constexpr blob_attr_info number = {BLOB_ATTR_INT32, 0, 0, nullptr};
constexpr blob_attr_info flag = {BLOB_ATTR_INT8, 0, 0, nullptr};
constexpr blob_attr_info text = {BLOB_ATTR_STRING, 0, 0, nullptr};
constexpr blob_attr_info fields = {BLOB_ATTR_NESTED, 0, 0, nullptr};

// In the order of enum attribute.
constexpr blob_attr_info attribute_types[] = {
    unused, number, text, number, text,   number, fields,
    fields, number, flag, flag,   fields, text,   text,
};
static_assert(ARRAY_SIZE(attribute_types) == attr_count);

// In the order of enum blobmsg_type. libubox's check lets a number be longer than it is.
constexpr int any_size = -1;
constexpr int field_sizes[] = {0, any_size, any_size, any_size, 8, 4, 2, 1, 8};
static_assert(ARRAY_SIZE(field_sizes) == BLOBMSG_TYPE_LAST + 1);

// Whether an attribute lies within the `left` bytes from it, padding included.
bool fits(const blob_attr* attr, size_t left) {
    if (left < sizeof(blob_attr)) {
        return false;
    }
    const size_t raw = be32_to_cpu(attr->id_len) & BLOB_ATTR_LEN_MASK;
    return raw >= sizeof(blob_attr) && blob_pad_len(attr) <= left;
}

bool has_its_size(const blob_attr* field) {
    const int size = field_sizes[blobmsg_type(field)];
    return size == any_size || blobmsg_data_len(field) == static_cast<size_t>(size);
}

bool fields_are_sound(const blob_attr* first, size_t left, int depth) {
    if (depth > depth_max) {
        return false;
    }
    while (left > 0) {
        if (!fits(first, left) || !blobmsg_check_attr_len(first, false, left) ||
            !has_its_size(first)) {
            return false;
        }
        const int type = blobmsg_type(first);
        if (type == BLOBMSG_TYPE_TABLE || type == BLOBMSG_TYPE_ARRAY) {
            const blob_attr* inner = static_cast<const blob_attr*>(blobmsg_data(first));
            if (!fields_are_sound(inner, blobmsg_data_len(first), depth + 1)) {
                return false;
            }
        }
        left -= blob_pad_len(first);
        first = blob_next(first);
    }
    return true;
}

bool attribute_is_sound(const blob_attr* attr) {
    const blob_attr_info& info = attribute_types[blob_id(attr)];
    const size_t length = blob_len(attr);
    if (info.type == BLOB_ATTR_NESTED) {
        // Readers of an attribute that is marked as a named field skip a name, past its end.
        return !blob_is_extended(attr) &&
               fields_are_sound(static_cast<const blob_attr*>(blob_data(attr)), length, 1);
    }
    // Numbers are as long as their type, texts end in a zero byte.
    return blob_check_type(blob_data(attr), static_cast<unsigned>(length),
                           static_cast<int>(info.type));
}

// blob_parse_untrusted passes over what it cannot use. A peer that sends such a thing is to hear
// of it, so every attribute is looked at first.
parse_result check(const blob_attr* body) {
    parse_result result = parse_result::ok;
    const blob_attr* attr = static_cast<const blob_attr*>(blob_data(body));
    for (size_t left = blob_len(body); left > 0; attr = blob_next(attr)) {
        if (!fits(attr, left)) {
            return parse_result::malformed;
        }
        const unsigned id = blob_id(attr);
        if (id > 0 && id < attr_count && !attribute_is_sound(attr)) {
            result = parse_result::bad_attribute;
        }
        left -= blob_pad_len(attr);
    }
    return result;
}

} // namespace

int compare_ids(const void* a, const void* b, void*) {
    const uint32_t left = *static_cast<const uint32_t*>(a);
    const uint32_t right = *static_cast<const uint32_t*>(b);
    return left < right ? -1 : left > right;
}

parse_result parse_attributes(blob_attr* body, blob_attr* (&attrs)[attr_count]) {
    memset(attrs, 0, sizeof(attrs));
    const parse_result result = check(body);
    if (result == parse_result::ok) {
        blob_parse_untrusted(body, blob_raw_len(body), attrs, attribute_types, attr_count);
    }
    return result;
}

uint32_t attribute_u32(const blob_attr* attr) {
    return attr ? blob_get_u32(attr) : 0;
}

bool attribute_flag(const blob_attr* attr) {
    return attr && blob_get_u8(attr) != 0;
}

const char* attribute_text(const blob_attr* attr) {
    return attr ? blob_get_string(attr) : nullptr;
}

bool put_table(blob_writer& out, int id, const blob_attr* table) {
    const void* fields = table ? blob_data(table) : nullptr;
    const unsigned length = table ? static_cast<unsigned>(blob_len(table)) : 0;
    return blob_put(&out.buf, id, fields, length) != nullptr;
}

bool put_text(blob_writer& out, int id, const char* text) {
    return blob_put_string(&out.buf, id, text) != nullptr;
}

bool put_u32(blob_writer& out, int id, uint32_t value) {
    return blob_put_u32(&out.buf, id, value) != nullptr;
}

} // namespace bus
