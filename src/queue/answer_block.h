#pragma once

#include <cstddef>

#include "core/block.h"

// The growing block that an answer of the web server is read into, room for its packet's header in
// front. Its size is accounted in pieces of CRC_DATA_BUF_SIZE; the memory behind it is reserved
// ahead, twice as much each time, so that a large answer needs few system calls. Reserved memory
// costs nothing until bytes come.
//
// Owner: whoever reads the answer. Threads: one at a time.

struct answer_block_t {
    block_ptr bytes;
    size_t length;   // bytes held, the header's included
    size_t size;     // accounted: `length` rounded up to whole pieces, at least one byte more
    size_t reserved; // what `bytes` really has
};

// Makes a zeroed block of one piece. False when memory is short.
bool answer_block_init(answer_block_t* block);

// Where the next bytes go, and how many may come at once; at least one.
uint8_t* answer_block_end(const answer_block_t& block);
size_t answer_block_room(const answer_block_t& block);

// Takes `count` bytes into account that were written at the end, and grows the block when they
// fill it. False when it cannot grow: memory is short, the router as a whole would have less than
// a small reserve left, or no packet could carry more.
bool answer_block_add(answer_block_t* block, size_t count);
