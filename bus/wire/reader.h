// Turns the byte stream of a socket into messages.
//
// Many small messages are read at once into one small buffer. A large one is read into a buffer of
// its own that grows with the bytes that really arrive, whatever length its head claims, and that
// is handed to the message at the end, so that nothing large stays behind.
//
// A reader belongs to one connection and is touched by the thread that runs uloop.
#pragma once

#include "wire/message.h"

namespace bus {

struct reader {
    uint8_t* data = nullptr;
    size_t capacity = 0;
    size_t start = 0; // of what was not taken yet
    size_t end = 0;
};

enum class read_result { bytes, nothing, closed };
enum class take_result { message, incomplete, failed };

// Reads once from a socket, without blocking. `closed` also stands for errors. Call it only after
// reader_take said that what is buffered is incomplete.
//
// Descriptors that travel beside the bytes are not asked for, and so closed by the kernel.
[[nodiscard]] read_result reader_fill(reader& in, int fd);

// Moves the next complete message to `out`. `failed` (no valid message, or no memory) means that
// the rest of the stream cannot be understood: the connection must end.
[[nodiscard]] take_result reader_take(reader& in, message& out);

// Forgets what was read and releases the memory.
void reader_reset(reader& in);

} // namespace bus
