#include "core/text.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>

#include "support/failing_calls.h"

namespace {

struct free_deleter {
    void operator()(char* text) const { free(text); }
};
using text_ptr = std::unique_ptr<char, free_deleter>;

TEST(StringDup, CopiesTheTextIntoAnAllocationOfItsOwn) {
    const char original[] = "relay.example";
    text_ptr copy(cloud_string_dup(original));
    EXPECT_STREQ(copy.get(), "relay.example");
    EXPECT_NE(copy.get(), original);
}

TEST(StringDup, CopiesAnEmptyText) {
    text_ptr copy(cloud_string_dup(""));
    EXPECT_STREQ(copy.get(), "");
}

TEST(StringDup, IsNullWhenMemoryIsShort) {
    fail_call failure("malloc");
    EXPECT_EQ(cloud_string_dup("text"), nullptr);
    EXPECT_TRUE(failure.happened());
}

TEST(StringNdup, TerminatesACopyOfBytesThatHoldNoTerminator) {
    // Exactly as large as the copy reads, so that one byte more would be noticed.
    std::unique_ptr<char[]> bytes(new char[4]{'a', 'b', 'c', 'd'});
    text_ptr copy(cloud_string_ndup(bytes.get(), 4));
    EXPECT_STREQ(copy.get(), "abcd");
}

TEST(StringNdup, OfNothingIsAnEmptyText) {
    text_ptr copy(cloud_string_ndup("text", 0));
    EXPECT_STREQ(copy.get(), "");
}

TEST(StringNdup, CopiesAllBytesIncludingTerminatorsAmongThem) {
    text_ptr copy(cloud_string_ndup("a\0b\0c", 5));
    EXPECT_EQ(memcmp(copy.get(), "a\0b\0c\0", 6), 0);
}

TEST(StringNdup, CutsALongerText) {
    text_ptr copy(cloud_string_ndup("heartbeat", 5));
    EXPECT_STREQ(copy.get(), "heart");
}

TEST(StringNdup, IsNullWhenMemoryIsShort) {
    fail_call failure("malloc");
    EXPECT_EQ(cloud_string_ndup("text", 4), nullptr);
    EXPECT_TRUE(failure.happened());
}

} // namespace
