#pragma once

#include <cstddef>

// Reading single options of the router's configuration (libuci, /etc/config). Threads: any; every
// call works on a UCI context of its own.

// Reads the option at a dotted path such as "system.service_port.http_port" over the text in
// `out`, `size` bytes. Returns 0, or -1 with a message on the log or, from libuci, on standard
// error; `out` is then untouched.
//
// Only the value's characters are copied, no terminator: what `out` held beyond them stays, so a
// value shorter than the default keeps the default's tail ("1.2" over "9.9.9" gives "1.2.9"), and
// the caller provides a terminated text. A value that does not fit is cut to `size` - 1.
int readUCI(const char* str, char* out, size_t size);

template <size_t SIZE>
int readUCI(const char* str, char (&out)[SIZE]) {
    return readUCI(str, out, SIZE);
}
