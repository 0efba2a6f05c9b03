#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

// A block of bytes from the plain allocator, freed at the end of its scope.
struct block_deleter {
    void operator()(uint8_t* block) const { free(block); }
};
using block_ptr = std::unique_ptr<uint8_t, block_deleter>;
