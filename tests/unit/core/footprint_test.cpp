#include "core/footprint.h"

#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

namespace {

// Resident pages of files: code and constants of the program and its libraries.
long resident_file_pages() {
    long total = 0;
    long resident = 0;
    long shared = 0;
    std::ifstream("/proc/self/statm") >> total >> resident >> shared;
    return shared;
}

TEST(Footprint, AnIdleProcessGivesItsCodePagesBackAndRunsOn) {
    std::string heap(100000, 'x');
    long before = resident_file_pages();
    release_idle_memory();
    EXPECT_LT(resident_file_pages(), before);
    EXPECT_EQ(heap, std::string(100000, 'x'));
    EXPECT_EQ(strtol("42", nullptr, 10), 42); // code that was given back runs again
}

} // namespace
