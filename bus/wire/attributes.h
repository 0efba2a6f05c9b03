// The attributes of message bodies, and the checks that come before anybody reads one. Nothing
// that a peer sent is read before it went through here. No state; any thread.
#pragma once

#include "wire/message.h"

namespace bus {

enum attribute : int {
    attr_status = 1,
    attr_objpath,
    attr_objid,
    attr_method,
    attr_objtype,
    attr_signature,
    attr_data,
    attr_target,
    attr_active,
    attr_no_reply,
    attr_subscribers,
    attr_user,
    attr_group,
    attr_count
};

// Compares two uint32_t, for an avl_tree whose keys are ids.
int compare_ids(const void* a, const void* b, void* unused);

// Object ids of the broker itself; all ids that it draws are above reserved_ids.
constexpr uint32_t object_events = 1;
constexpr uint32_t reserved_ids = 1024;

enum class parse_result {
    ok,
    bad_attribute, // a known attribute holds something else than its type; all of `attrs` is null
    malformed,     // not a sequence of attributes at all
};

// The attributes of a body by id, null for those that are absent; unknown ones are passed over.
// Strings are terminated inside their attribute; nested data is a well-formed list of blobmsg
// fields, at most 64 deep. The body must be as long as its own head says.
[[nodiscard]] parse_result parse_attributes(blob_attr* body, blob_attr* (&attrs)[attr_count]);

// Reads what parse_attributes found; the defaults stand for an absent attribute.
[[nodiscard]] uint32_t attribute_u32(const blob_attr* attr);
[[nodiscard]] bool attribute_flag(const blob_attr* attr);
[[nodiscard]] const char* attribute_text(const blob_attr* attr);

// Puts the fields of `table` (a blob_buf's head, or an attribute that went through
// parse_attributes; null for none) into the attribute `id`. False without memory.
[[nodiscard]] bool put_table(blob_writer& out, int id, const blob_attr* table);

// Puts the strings and numbers of a body. False without memory.
[[nodiscard]] bool put_text(blob_writer& out, int id, const char* text);
[[nodiscard]] bool put_u32(blob_writer& out, int id, uint32_t value);

} // namespace bus
