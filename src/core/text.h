#pragma once

#include <cstddef>

// Copies of texts and bytes in fresh allocations that the caller frees; null when memory is short.
// Threads: any.

// A copy of a terminated text.
char* cloud_string_dup(const char* text);

// A copy of `n` bytes, terminated by one zero byte more, whether or not the bytes hold a
// terminator themselves.
char* cloud_string_ndup(const void* bytes, size_t n);
