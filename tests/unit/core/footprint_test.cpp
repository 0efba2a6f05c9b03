#include "core/footprint.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <string>

#include "support/namespaces.h"

namespace {

const bool isPrivate = private_namespaces();

constexpr char MEMORY_INFO[] = "/proc/meminfo";

TEST(AvailableMemory, IsWhatTheKernelCallsAvailable) {
    shown_file memory(MEMORY_INFO, "MemTotal:         123456 kB\n"
                                   "MemFree:           23456 kB\n"
                                   "MemAvailable:      34567 kB\n"
                                   "Buffers:              12 kB\n");
    EXPECT_EQ(available_memory(), 34567u * 1024);
}

TEST(AvailableMemory, OfAKernelThatDoesNotTellIsUnlimited) {
    shown_file memory(MEMORY_INFO, "MemTotal:         123456 kB\n");
    EXPECT_EQ(available_memory(), SIZE_MAX);
}

TEST(AvailableMemory, OfThisMachineIsPlausible) {
    EXPECT_GT(available_memory(), 1024u * 1024);
    if (sizeof(size_t) > sizeof(uint32_t)) { // else the machine may have more than it counts
        EXPECT_LT(available_memory(), SIZE_MAX);
    }
}

} // namespace
