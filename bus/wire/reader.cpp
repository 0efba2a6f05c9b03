#include "wire/reader.h"

#include <sys/socket.h>
#include <utility>

namespace bus {

namespace {

// Holds any everyday message; what an idle connection keeps.
constexpr size_t small_capacity = 4096;

// The bytes that the buffer is to hold in the end: the rest of a large message and not a byte of
// the next one, or as many small ones as there is room for.
size_t wanted_capacity(const reader& in) {
    if (in.end - in.start < prologue_bytes) {
        return small_capacity;
    }
    const size_t length = message_length(in.data + in.start);
    return length > small_capacity ? length : small_capacity;
}

bool make_room(reader& in, size_t wanted) {
    if (in.start > 0) {
        memmove(in.data, in.data + in.start, in.end - in.start);
        in.end -= in.start;
        in.start = 0;
    }
    if (in.end < in.capacity) {
        return true;
    }
    size_t capacity = in.capacity == 0 ? small_capacity : 2 * in.capacity;
    capacity = capacity < wanted ? capacity : wanted;
    uint8_t* data = static_cast<uint8_t*>(realloc(in.data, capacity));
    if (!data) {
        return false;
    }
    in.data = data;
    in.capacity = capacity;
    return true;
}

void hand_over(reader& in, message& out) {
    out.memory = in.data;
    in = {};
}

bool copy_out(reader& in, size_t length, message& out) {
    out.memory = malloc(length);
    if (!out.memory) {
        return false;
    }
    memcpy(out.memory, in.data + in.start, length);
    in.start += length;
    if (in.start == in.end) {
        in.start = in.end = 0;
    }
    return true;
}

} // namespace

read_result reader_fill(reader& in, int fd) {
    const size_t wanted = wanted_capacity(in);
    if (!make_room(in, wanted)) {
        return read_result::closed;
    }
    for (;;) {
        const size_t room = (wanted < in.capacity ? wanted : in.capacity) - in.end;
        const ssize_t got = recv(fd, in.data + in.end, room, MSG_DONTWAIT);
        if (got > 0) {
            in.end += static_cast<size_t>(got);
            return read_result::bytes;
        }
        if (got == 0) {
            return read_result::closed;
        }
        if (errno != EINTR) {
            const bool empty = errno == EAGAIN || errno == EWOULDBLOCK;
            return empty ? read_result::nothing : read_result::closed;
        }
    }
}

take_result reader_take(reader& in, message& out) {
    const size_t buffered = in.end - in.start;
    if (buffered < prologue_bytes) {
        return take_result::incomplete;
    }
    const uint8_t* bytes = in.data + in.start;
    const size_t length = message_length(bytes);
    if (length == 0) {
        return take_result::failed;
    }
    if (buffered < length) {
        return take_result::incomplete;
    }
    message taken;
    taken.header = decode_header(bytes);
    if (length > small_capacity) {
        hand_over(in, taken);
    } else if (!copy_out(in, length, taken)) {
        return take_result::failed;
    }
    taken.body = reinterpret_cast<blob_attr*>(static_cast<uint8_t*>(taken.memory) + header_bytes);
    out = std::move(taken);
    return take_result::message;
}

void reader_reset(reader& in) {
    free(in.data);
    in = {};
}

} // namespace bus
