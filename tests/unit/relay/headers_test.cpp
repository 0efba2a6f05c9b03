#include "front/headers.h"

#include <gtest/gtest.h>

namespace relay {
namespace {

// Whether a header of that name goes no further when a Connection header has that value.
bool is_hop_by_hop(std::string_view name, std::string_view connection) {
    std::vector<Header> headers = {{"Connection", connection}, {name, "x"}};
    drop_hop_by_hop(headers);
    return headers.empty();
}

TEST(HopByHop, HeadersAreTheStandardOnesAndThoseThatConnectionNames) {
    for (const char* name :
         {"Connection", "keep-alive", "PROXY-CONNECTION", "Proxy-Authenticate",
          "Proxy-Authorization", "TE", "Trailer", "Transfer-Encoding", "Upgrade"})
        EXPECT_TRUE(is_hop_by_hop(name, "")) << name;
    for (const char* name : {"Host", "Content-Length", "Cookie", "X", ""})
        EXPECT_FALSE(is_hop_by_hop(name, "close")) << name;
    EXPECT_TRUE(is_hop_by_hop("X-A", "close, x-a"));
    EXPECT_TRUE(is_hop_by_hop("X-A", " \tX-A ,close"));
    EXPECT_FALSE(is_hop_by_hop("X-A", "X-AB, AX-A"));
}

TEST(AppendHeader, WritesOneLine) {
    std::string head = "GET / HTTP/1.1\r\n";
    append_header(head, "Host", "router");
    EXPECT_EQ(head, "GET / HTTP/1.1\r\nHost: router\r\n");
}

} // namespace
} // namespace relay
