#include "wire/message.h"

#include <sys/socket.h>
#include <sys/uio.h>

namespace bus {

namespace {

void encode_header(uint8_t* out, const message_header& header) {
    out[0] = wire_version;
    out[1] = header.type;
    out[2] = static_cast<uint8_t>(header.seq >> 8);
    out[3] = static_cast<uint8_t>(header.seq);
    out[4] = static_cast<uint8_t>(header.peer >> 24);
    out[5] = static_cast<uint8_t>(header.peer >> 16);
    out[6] = static_cast<uint8_t>(header.peer >> 8);
    out[7] = static_cast<uint8_t>(header.peer);
}

uint32_t decode_u32(const uint8_t* bytes) {
    return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

} // namespace

message::message(message&& other) noexcept
    : header(other.header), body(other.body), memory(other.memory) {
    other.body = nullptr;
    other.memory = nullptr;
}

message& message::operator=(message&& other) noexcept {
    if (this != &other) {
        free(memory);
        header = other.header;
        body = other.body;
        memory = other.memory;
        other.body = nullptr;
        other.memory = nullptr;
    }
    return *this;
}

message::~message() {
    free(memory);
}

size_t message_length(const uint8_t* bytes) {
    const uint32_t head = decode_u32(bytes + header_bytes);
    if (bytes[0] != wire_version || (head & ~uint32_t{BLOB_ATTR_LEN_MASK}) != 0) {
        return 0;
    }
    if (head < sizeof(blob_attr) || head > body_bytes_max || head % BLOB_ATTR_ALIGN != 0) {
        return 0;
    }
    return header_bytes + head;
}

message_header decode_header(const uint8_t* bytes) {
    return {bytes[1], static_cast<uint16_t>(bytes[2] << 8 | bytes[3]), decode_u32(bytes + 4)};
}

ssize_t send_message_part(int fd, const message_header& header, const blob_attr* body,
                          size_t offset) {
    uint8_t head[header_bytes];
    encode_header(head, header);
    iovec parts[2] = {{head, sizeof(head)}, {const_cast<blob_attr*>(body), blob_raw_len(body)}};
    for (iovec& part : parts) {
        const size_t skipped = offset < part.iov_len ? offset : part.iov_len;
        part.iov_base = static_cast<uint8_t*>(part.iov_base) + skipped;
        part.iov_len -= skipped;
        offset -= skipped;
    }
    msghdr socket_message = {};
    socket_message.msg_iov = parts;
    socket_message.msg_iovlen = ARRAY_SIZE(parts);
    for (;;) {
        const ssize_t sent = sendmsg(fd, &socket_message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            return sent;
        }
        if (errno != EINTR) {
            return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
        }
    }
}

void copy_message_part(uint8_t* out, const message_header& header, const blob_attr* body,
                       size_t offset) {
    uint8_t head[header_bytes];
    encode_header(head, header);
    size_t body_offset = 0;
    if (offset < sizeof(head)) {
        memcpy(out, head + offset, sizeof(head) - offset);
        out += sizeof(head) - offset;
    } else {
        body_offset = offset - sizeof(head);
    }
    memcpy(out, reinterpret_cast<const uint8_t*>(body) + body_offset,
           blob_raw_len(body) - body_offset);
}

} // namespace bus
