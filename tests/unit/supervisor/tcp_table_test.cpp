#include "supervisor/tcp_table.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <string>

namespace {

// As the kernel prints an address: the number that its bytes make in this machine's memory.
std::string printed(const char* address) {
    char text[9];
    snprintf(text, sizeof text, "%08X", inet_addr(address));
    return text;
}

std::string row(const std::string& remote, const std::string& state, const std::string& inode) {
    return "  11: " + printed("10.7.1.2") + ":A1B2 " + remote + " " + state +
           " 00000000:00000000 02:000001AC 00000000     0        0 " + inode +
           " 2 0000000000000000 20 4 30 10 -1                      \n";
}

TEST(TcpRow, AnEstablishedConnectionIsRead) {
    tcp_row parsed = {};
    ASSERT_TRUE(
        tcp_row_parse(row(printed("10.99.0.1") + ":20FB", "01", "5923899").c_str(), &parsed));
    EXPECT_EQ(parsed.local_address, inet_addr("10.7.1.2"));
    EXPECT_EQ(parsed.remote_address, inet_addr("10.99.0.1"));
    EXPECT_EQ(parsed.remote_port, 8443);
    EXPECT_TRUE(parsed.established);
    EXPECT_EQ(parsed.inode, 5923899U);
}

TEST(TcpRow, OtherStatesAreNotEstablished) {
    for (const char* state : {"02", "06", "08", "0A", "0C"}) {
        tcp_row parsed = {};
        ASSERT_TRUE(
            tcp_row_parse(row(printed("10.99.0.1") + ":01BB", state, "1").c_str(), &parsed));
        EXPECT_FALSE(parsed.established) << state;
    }
}

TEST(TcpRow, HighPortsAndInodesAreWhole) {
    tcp_row parsed = {};
    ASSERT_TRUE(tcp_row_parse(
        row(printed("10.99.0.1") + ":FFFF", "01", "18446744073709551615").c_str(), &parsed));
    EXPECT_EQ(parsed.remote_port, 65535);
    EXPECT_EQ(parsed.inode, UINT64_MAX);
}

TEST(TcpRow, WhatIsNoRowIsRefused) {
    tcp_row parsed = {};
    constexpr char heading[] =
        "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   "
        "uid  timeout inode                                                     \n";
    for (const char* line : {"", "\n", heading, "  11: 0100007F:A1B2", "nonsense"}) {
        EXPECT_FALSE(tcp_row_parse(line, &parsed)) << line;
    }
}

} // namespace
