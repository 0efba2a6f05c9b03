#pragma once

#include <cstddef>

#include "core/block.h"

// The growing block that an answer of the web server is read into, room for its packet's header in
// front. Its size is accounted in pieces of CRC_DATA_BUF_SIZE; the memory behind it is reserved
// ahead, twice as much each time, so that a large answer needs few system calls. Reserved memory
// costs nothing until bytes come. Answers often follow each other at once, and touching fresh
// memory costs a tenth of relaying one, so the last block is kept for a moment.
//
// Owner: whoever reads the answer; the kept block is this module's. Threads: any, under one lock of
// the caller's for all calls.

struct answer_block_t {
    block_ptr bytes;
    size_t length;   // bytes held, the header's included
    size_t size;     // accounted: `length` rounded up to whole pieces, at least one byte more
    size_t reserved; // what `bytes` really has
};

// Makes a block: the kept one, or a zeroed one of one piece. False when memory is short.
bool answer_block_init(answer_block_t* block);

// Takes a block back that is not needed any more, to keep it if it is of moderate size.
void answer_block_retire(answer_block_t* block);

// Frees the kept block once it was not used for 200 ms, or `atOnce`.
void answer_block_release_kept(bool atOnce);

// Where the next bytes go, and how many may come at once; at least one.
uint8_t* answer_block_end(const answer_block_t& block);
size_t answer_block_room(const answer_block_t& block);

// Takes `count` bytes into account that were written at the end, and grows the block when they
// fill it. False when it cannot grow: memory is short, the router as a whole would have less than
// a small reserve left, or no packet could carry more.
bool answer_block_add(answer_block_t* block, size_t count);
