#pragma once

#include <cstddef>
#include <cstdint>

// Reading single options of the router's configuration (libuci, /etc/config). Threads: any, one
// at a time; every reading works on a UCI context of its own.

struct uci_context;

// Reads the option at a dotted path such as "system.service_port.http_port" over the text in
// `out`, `size` bytes. Returns 0, or -1 with a message on the log or, from libuci, on standard
// error; `out` is then untouched.
//
// Only the value's characters are copied, no terminator: what `out` held beyond them stays, so a
// value shorter than the default keeps the default's tail ("1.2" over "9.9.9" gives "1.2.9"), and
// the caller provides a terminated text. A value that does not fit is cut to `size` - 1.
int readUCI(const char* str, char* out, size_t size);

// What was read of one option, good for as long as the files that libuci reads for it, committed
// and staged, stay as they were. Zeroed at first; one for each option. Threads: one at a time.
struct uci_file_state_t {
    uint64_t inode; // 0 for a file that does not exist
    int64_t size;
    int64_t modified; // nanoseconds of the wall clock, as the next
    int64_t changed;

    bool operator==(const uci_file_state_t&) const = default;
};

struct uci_cache_t {
    uci_file_state_t files[3]; // committed, staged, and what newer libuci lays over both
    char value[32];
    bool isFilled;
};

// As readUCI, but reads again only when a file changed; a value is cut to 31 characters.
int readUCI(const char* str, char* out, size_t size, uci_cache_t* cache);

template <size_t SIZE>
int readUCI(const char* str, char (&out)[SIZE]) {
    return readUCI(str, out, SIZE);
}

// Steps that the module's tests reach.
namespace internal {

// readUCI in a context that may hold the package already.
int _read_option(uci_context* context, const char* str, char* out, size_t size);

} // namespace internal
