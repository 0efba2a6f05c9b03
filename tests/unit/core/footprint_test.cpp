#include "core/footprint.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>

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

TEST(AvailableMemory, OfAnEmptyReportIsUnlimited) {
    shown_file memory(MEMORY_INFO, "");
    EXPECT_EQ(available_memory(), SIZE_MAX);
}

TEST(AvailableMemory, BeyondWhatASizeHoldsIsUnlimited) {
    shown_file memory(MEMORY_INFO, "MemAvailable: 18446744073709551615 kB\n");
    EXPECT_EQ(available_memory(), SIZE_MAX);
}

TEST(AvailableMemory, WithoutADescriptorToAskIsUnlimited) {
    rlimit usual = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    rlimit none = {0, usual.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    size_t available = available_memory();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
    EXPECT_EQ(available, SIZE_MAX);
}

TEST(AvailableMemory, OfThisMachineIsPlausible) {
    EXPECT_GT(available_memory(), 1024u * 1024);
    if (sizeof(size_t) > sizeof(uint32_t)) { // else the machine may have more than it counts
        EXPECT_LT(available_memory(), SIZE_MAX);
    }
}

} // namespace
