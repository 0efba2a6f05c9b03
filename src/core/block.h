#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

// The size of the pieces in which bytes are moved, both ways: one TLS record's worth.
constexpr size_t CRC_DATA_BUF_SIZE = 16384;

// A block of bytes from the plain allocator, freed at the end of its scope.
struct block_deleter {
    void operator()(uint8_t* block) const { free(block); }
};
using block_ptr = std::unique_ptr<uint8_t, block_deleter>;
