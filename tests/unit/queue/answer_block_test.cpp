#include "queue/answer_block.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "core/footprint.h"
#include "support/failing_calls.h"
#include "support/memory_limit.h"
#include "support/namespaces.h"
#include "support/resident_memory.h"

namespace {

const bool isPrivate = private_namespaces();

constexpr size_t PIECE = 16384;
constexpr size_t HEADER = 12;
constexpr size_t MIB = 1024 * 1024;
constexpr size_t RESERVE_KIB = 4096; // what an answer leaves to the rest of the router
constexpr char MEMORY_INFO[] = "/proc/meminfo";

std::string memory_info(size_t availableKib) {
    return "MemTotal:       65536 kB\nMemFree:            0 kB\nMemAvailable:   " +
           std::to_string(availableKib) + " kB\n";
}

class answer_block : public testing::Test {
protected:
    // The large blocks of the daemon are mapped each by itself.
    static void SetUpTestSuite() { set_up_memory(); }

    void SetUp() override { ASSERT_TRUE(answer_block_init(&block)); }

    // Takes bytes into account, as much at once as there is room for. Writes them only when asked
    // to: memory that nobody writes costs nothing.
    bool add(size_t count, bool isWritten = false) {
        while (count > 0) {
            size_t some = std::min(count, answer_block_room(block));
            if (some == 0) {
                ADD_FAILURE() << "the block is full";
                return false;
            }
            if (isWritten) {
                memset(answer_block_end(block), 'x', some);
            }
            if (!answer_block_add(&block, some)) {
                return false;
            }
            count -= some;
        }
        return true;
    }

    answer_block_t block = {};
};

TEST_F(answer_block, starts_as_one_zeroed_piece_with_room_for_a_header) {
    block.bytes.reset();
    auto* used = static_cast<uint8_t*>(malloc(PIECE)); // what the allocator may hand out next
    memset(used, 0xFF, PIECE);
    free(used);
    ASSERT_TRUE(answer_block_init(&block));
    EXPECT_EQ(block.size, PIECE);
    EXPECT_EQ(block.reserved, PIECE);
    EXPECT_EQ(block.length, HEADER);
    EXPECT_EQ(answer_block_end(block), block.bytes.get() + HEADER);
    EXPECT_EQ(answer_block_room(block), PIECE - HEADER);
    EXPECT_TRUE(std::all_of(block.bytes.get(), block.bytes.get() + PIECE,
                            [](uint8_t byte) { return byte == 0; }));
}

TEST_F(answer_block, is_not_made_without_memory) {
    fail_call noMemory("calloc");
    answer_block_t other = {};
    EXPECT_FALSE(answer_block_init(&other));
    EXPECT_TRUE(noMemory.happened());
}

TEST_F(answer_block, grows_once_when_16372_bytes_fill_it_and_not_before) {
    counted_calls growths("realloc");
    EXPECT_TRUE(add(16371));
    EXPECT_EQ(growths.count(), 0);
    EXPECT_EQ(block.size, PIECE);
    EXPECT_EQ(answer_block_room(block), 1u);
    EXPECT_TRUE(add(1));
    EXPECT_EQ(growths.count(), 1);
    EXPECT_EQ(block.size, 2 * PIECE);
    EXPECT_EQ(answer_block_room(block), PIECE);
}

TEST_F(answer_block, keeps_what_came_when_it_grows) {
    EXPECT_TRUE(add(MIB, true));
    EXPECT_TRUE(std::all_of(block.bytes.get(), block.bytes.get() + HEADER,
                            [](uint8_t byte) { return byte == 0; }));
    EXPECT_TRUE(std::all_of(block.bytes.get() + HEADER, answer_block_end(block),
                            [](uint8_t byte) { return byte == 'x'; }));
}

TEST_F(answer_block, accounts_pieces_and_reserves_far_ahead) {
    counted_calls growths("realloc");
    for (size_t piece = 0; piece < MIB / PIECE; piece++) {
        EXPECT_TRUE(add(PIECE));
        EXPECT_EQ(block.size, (piece + 2) * PIECE);
        EXPECT_GE(block.reserved, block.size);
    }
    EXPECT_EQ(block.length, HEADER + MIB);
    EXPECT_EQ(block.reserved, 2 * MIB);
    EXPECT_EQ(growths.count(), 4); // 16 KiB to 32, to 64, to 1024, to 2048
}

// --- The router's memory

TEST_F(answer_block, leaves_the_router_its_reserve) {
    {
        shown_file low(MEMORY_INFO, memory_info(RESERVE_KIB + PIECE / 1024));
        EXPECT_TRUE(add(PIECE - HEADER));
        EXPECT_EQ(block.reserved, 2 * PIECE);
    }
    for (size_t available : {RESERVE_KIB + PIECE / 1024 - 1, RESERVE_KIB, size_t{0}}) {
        answer_block_t other = {};
        ASSERT_TRUE(answer_block_init(&other));
        shown_file lower(MEMORY_INFO, memory_info(available));
        EXPECT_FALSE(answer_block_add(&other, PIECE - HEADER)) << available;
        EXPECT_EQ(other.reserved, PIECE);
    }
}

TEST_F(answer_block, reserves_no_more_than_the_router_can_spare) {
    ASSERT_TRUE(add(MIB - HEADER - 1));
    ASSERT_EQ(block.reserved, MIB);
    shown_file low(MEMORY_INFO, memory_info(RESERVE_KIB + 100)); // 6 pieces and a bit
    EXPECT_TRUE(add(1));
    EXPECT_EQ(block.reserved, MIB + 6 * PIECE);
}

TEST_F(answer_block, looks_at_the_routers_memory_only_to_reserve_more) {
    ASSERT_TRUE(add(MIB));
    ASSERT_EQ(block.reserved, 2 * MIB);
    shown_file none(MEMORY_INFO, memory_info(0));
    EXPECT_TRUE(add(MIB - HEADER - 1));
    EXPECT_EQ(block.size, 2 * MIB);
    EXPECT_FALSE(add(1));
}

// --- Address space

TEST_F(answer_block, takes_half_a_step_where_a_whole_one_is_not_to_be_had) {
    ASSERT_TRUE(add(MIB - HEADER - 1));
    fail_call noSpace("realloc");
    EXPECT_TRUE(add(1));
    EXPECT_TRUE(noSpace.happened());
    EXPECT_EQ(block.reserved, MIB + MIB / 2);
    EXPECT_EQ(block.size, MIB + PIECE);
}

TEST_F(answer_block, does_not_try_one_piece_twice) {
    fail_call noSpace("realloc");
    EXPECT_FALSE(add(PIECE - HEADER)); // twice as much is one piece more
    EXPECT_TRUE(noSpace.happened());
}

TEST_F(answer_block, uses_a_limited_address_space_to_its_end) {
    shown_file plenty(MEMORY_INFO, memory_info(100 * MIB));
    memory_limit limit; // a quarter of a gigabyte is left
    if (!limit.works()) {
        GTEST_SKIP() << "the sanitizers' address space cannot be limited";
    }
    EXPECT_TRUE(add(200 * MIB)); // 128 MiB were reserved, and 256 are not to be had
    EXPECT_LT(block.reserved, 256 * MIB);
    EXPECT_FALSE(add(100 * MIB));
}

// --- Blocks that are kept for the next answer

TEST_F(answer_block, is_kept_for_an_answer_that_follows_at_once) {
    ASSERT_TRUE(add(MIB));
    const uint8_t* bytes = block.bytes.get();
    answer_block_retire(&block);
    answer_block_release_kept(false);
    ASSERT_TRUE(answer_block_init(&block));
    EXPECT_EQ(block.bytes.get(), bytes);
    EXPECT_EQ(block.reserved, 2 * MIB);
    EXPECT_EQ(block.length, HEADER);
    EXPECT_EQ(block.size, PIECE);
}

TEST_F(answer_block, is_given_back_when_no_answer_follows_for_200_milliseconds) {
    for (bool isAtOnce : {false, true}) {
        ASSERT_TRUE(add(MIB));
        moved_clock clock;
        clock.stop();
        answer_block_retire(&block);
        clock.move(isAtOnce ? 0 : 200);
        answer_block_release_kept(isAtOnce);
        ASSERT_TRUE(answer_block_init(&block));
        EXPECT_EQ(block.reserved, PIECE);
    }
}

TEST_F(answer_block, that_is_very_large_or_very_small_is_not_kept) {
    for (size_t size : {size_t{1}, 3 * MIB}) {
        ASSERT_TRUE(add(size));
        answer_block_retire(&block);
        ASSERT_TRUE(answer_block_init(&block));
        EXPECT_EQ(block.reserved, PIECE);
    }
}

TEST_F(answer_block, holds_no_more_than_a_packet_can_carry) {
    constexpr size_t LARGEST = INT_MAX / PIECE * PIECE;
    // As after many growths; what is added is not written.
    block.reserved = LARGEST + PIECE;
    block.size = LARGEST - PIECE;
    block.length = block.size - 1;
    EXPECT_TRUE(answer_block_add(&block, 1));
    EXPECT_EQ(block.size, LARGEST);
    EXPECT_TRUE(answer_block_add(&block, PIECE - 1));
    EXPECT_FALSE(answer_block_add(&block, 1));
}

// The router has little memory: a large answer costs its size once, also while it grows, also where
// the kernel backs it with huge pages.
TEST_F(answer_block, of_64_megabytes_grows_in_place) {
    if (!resident_memory_is_our_own()) {
        GTEST_SKIP() << "the allocator has costs of its own";
    }
    constexpr size_t SIZE_KIB = 64 * 1024;
    constexpr size_t ALLOWANCE_KIB = 4 * 1024; // two huge pages
    reset_resident_peak();
    size_t before = resident_kib();
    ASSERT_TRUE(add(SIZE_KIB * 1024, true));
    size_t cost = resident_peak_kib() - before;
    EXPECT_GE(cost, SIZE_KIB - ALLOWANCE_KIB); // or the measure is none
    EXPECT_LE(cost, SIZE_KIB + ALLOWANCE_KIB);
    block.bytes.reset();
    EXPECT_LT(resident_kib(), before + ALLOWANCE_KIB);
}

} // namespace
