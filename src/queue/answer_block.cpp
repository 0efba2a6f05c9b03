#include "queue/answer_block.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

#include "core/clock.h"
#include "core/footprint.h"
#include "transport/packet_header.h"

namespace {

constexpr size_t MIB = 1048576;

// What an answer leaves to the rest of the router: enough for its web server to end a request.
constexpr size_t MEMORY_RESERVE = 4 * MIB;
// Blocks up to the first size come from the heap; the next one is mapped, and large at once.
constexpr size_t HEAP_BLOCK = MIB / 16;
constexpr size_t MAPPED_BLOCK = MIB;
constexpr size_t HUGE_BLOCK = 4 * MIB; // from here on huge pages save most page faults

constexpr size_t LARGEST_KEPT = 2 * MIB;
constexpr int64_t KEPT_MS = 200; // the session's turn: an idle session holds none

answer_block_t kept = {};
int64_t keptSince = 0;

// How much larger the reservation may become: as much again, but no more than the router has left.
size_t _next_step(size_t reserved) {
    size_t available = available_memory();
    size_t spare = available > MEMORY_RESERVE ? available - MEMORY_RESERVE : 0;
    bool leavesHeap = reserved >= HEAP_BLOCK && reserved < MAPPED_BLOCK;
    size_t step = leavesHeap ? MAPPED_BLOCK - reserved : reserved;
    return std::min(step, spare / CRC_DATA_BUF_SIZE * CRC_DATA_BUF_SIZE);
}

// For the whole mapping of the block, the allocator's own bytes included: a mapping of which only a
// part wants huge pages is two for the kernel, and could not be enlarged without a copy.
void _ask_for_huge_pages(uint8_t* bytes, size_t size) {
    uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    uintptr_t begin = reinterpret_cast<uintptr_t>(bytes) & ~(page - 1);
    size_t length = reinterpret_cast<uintptr_t>(bytes) + size - begin; // madvise() rounds it up
    madvise(reinterpret_cast<void*>(begin), length, MADV_HUGEPAGE);    // refused: as before
}

bool _reserve(answer_block_t* block, size_t reserved) {
    void* grown = realloc(block->bytes.get(), reserved);
    if (grown == nullptr) {
        return false;
    }
    static_cast<void>(block->bytes.release());
    block->bytes.reset(static_cast<uint8_t*>(grown));
    block->reserved = reserved;
    if (reserved >= HUGE_BLOCK) {
        _ask_for_huge_pages(block->bytes.get(), reserved);
    }
    return true;
}

// Where address space is limited, half of a step may be had when all of it is not.
bool _reserve_more(answer_block_t* block) {
    size_t step = _next_step(block->reserved);
    while (step > 0 && !_reserve(block, block->reserved + step)) {
        step = step / 2 / CRC_DATA_BUF_SIZE * CRC_DATA_BUF_SIZE;
    }
    return step > 0;
}

} // namespace

bool answer_block_init(answer_block_t* block) {
    *block = std::move(kept);
    if (block->bytes == nullptr) {
        block->bytes.reset(static_cast<uint8_t*>(calloc(1, CRC_DATA_BUF_SIZE)));
        block->reserved = CRC_DATA_BUF_SIZE;
    }
    block->length = PACKET_HEADER_SIZE;
    block->size = CRC_DATA_BUF_SIZE;
    return block->bytes != nullptr;
}

void answer_block_retire(answer_block_t* block) {
    if (block->reserved > CRC_DATA_BUF_SIZE && block->reserved <= LARGEST_KEPT) {
        kept = std::move(*block);
        keptSince = cloud_now_ms();
    }
    block->bytes.reset();
}

void answer_block_release_kept(bool atOnce) {
    if (kept.bytes != nullptr && (atOnce || cloud_now_ms() - keptSince >= KEPT_MS)) {
        kept.bytes.reset();
    }
}

uint8_t* answer_block_end(const answer_block_t& block) {
    return block.bytes.get() + block.length;
}

size_t answer_block_room(const answer_block_t& block) {
    return block.reserved - block.length;
}

bool answer_block_add(answer_block_t* block, size_t count) {
    block->length += count;
    while (block->size <= block->length) {
        if (block->size > INT_MAX - CRC_DATA_BUF_SIZE) {
            return false;
        }
        if (block->size == block->reserved && !_reserve_more(block)) {
            return false;
        }
        block->size += CRC_DATA_BUF_SIZE;
    }
    return true;
}
