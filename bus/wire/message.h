// What travels on a ubus socket: an 8-byte header, then one libubox blob, the body.
//
//     offset  bytes  field
//     0       1      version, 0
//     1       1      type (enum ubus_msg_type)
//     2       2      seq, big-endian: the sender's counter, the same in the answer
//     4       4      peer, big-endian: an object or client id, by type
//     8       4      the body's own head: id 0, length with these 4 bytes, big-endian
//
// No state; any thread.
#pragma once

#include "wire/platform.h"

namespace bus {

constexpr uint8_t wire_version = 0;
constexpr size_t header_bytes = 1 + 1 + 2 + 4;
constexpr size_t prologue_bytes = header_bytes + sizeof(blob_attr); // tells the whole length
constexpr size_t body_bytes_max = 1 << 20;

struct message_header {
    uint8_t type;
    uint16_t seq;
    uint32_t peer;
};

// A received message. Owns its memory; the body is aligned for blob_get_*().
struct message {
    message_header header = {};
    blob_attr* body = nullptr;
    void* memory = nullptr;

    message() = default;
    message(message&& other) noexcept;
    message& operator=(message&& other) noexcept;
    ~message();
};

// A blob under construction, begun with id 0. Test with `ready` before use: it is false without
// memory.
struct blob_writer {
    blob_buf buf = {};
    bool ready;

    blob_writer() : ready(blob_buf_init(&buf, 0) == 0) {}
    ~blob_writer() { blob_buf_free(&buf); }
    blob_writer(const blob_writer&) = delete;
    blob_writer& operator=(const blob_writer&) = delete;
};

// The length of a whole message whose first prologue_bytes stand at `bytes`, 0 when they begin no
// valid message: another version, a body head that is not of id 0, or whose length is below 4,
// above body_bytes_max or not a multiple of 4.
[[nodiscard]] size_t message_length(const uint8_t* bytes);

// The header at `bytes`, at least header_bytes long.
[[nodiscard]] message_header decode_header(const uint8_t* bytes);

// Sends what the socket takes of a message, leaving out its first `offset` bytes. Returns the
// count of bytes taken, 0 when the socket is full, -1 when the connection is broken.
[[nodiscard]] ssize_t send_message_part(int fd, const message_header& header, const blob_attr* body,
                                        size_t offset);

// The bytes of a message that are still to be sent, copied to `out` (message size - offset long).
void copy_message_part(uint8_t* out, const message_header& header, const blob_attr* body,
                       size_t offset);

} // namespace bus
