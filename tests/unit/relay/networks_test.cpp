#include "base/networks.h"

#include <gtest/gtest.h>

namespace relay {
namespace {

using namespace std::string_view_literals;

bool contains(std::string_view network, const char* address) {
    Networks networks;
    EXPECT_TRUE(networks.add(network)) << network;
    return networks.contain(asio::ip::make_address(address));
}

TEST(Networks, ContainNothingAtFirst) {
    EXPECT_FALSE(Networks().contain(asio::ip::make_address("127.0.0.1")));
    EXPECT_FALSE(Networks().contain(asio::ip::make_address("::")));
}

TEST(Networks, ContainSingleAddresses) {
    EXPECT_TRUE(contains("192.0.2.1", "192.0.2.1"));
    EXPECT_FALSE(contains("192.0.2.1", "192.0.2.2"));
    EXPECT_TRUE(contains("2001:db8::1", "2001:db8::1"));
    EXPECT_FALSE(contains("2001:db8::1", "2001:db8::2"));
}

TEST(Networks, ContainAllAddressesOfANetwork) {
    for (const char* inside : {"10.16.0.0", "10.16.0.1", "10.31.255.255"})
        EXPECT_TRUE(contains("10.16.0.0/12", inside)) << inside;
    for (const char* outside : {"10.15.255.255", "10.32.0.0", "2001:db8::1", "::a10:1"})
        EXPECT_FALSE(contains("10.16.0.0/12", outside)) << outside;
    EXPECT_TRUE(contains("2001:db8::/33", "2001:db8:7fff:ffff::"));
    EXPECT_FALSE(contains("2001:db8::/33", "2001:db8:8000::"));
    EXPECT_TRUE(contains("192.0.2.6/31", "192.0.2.7"));
    EXPECT_TRUE(contains("0.0.0.0/0", "255.1.2.3"));
    EXPECT_FALSE(contains("0.0.0.0/0", "::1"));
}

TEST(Networks, OfIpv4ContainAddressesThatCameInOnIpv6) {
    EXPECT_TRUE(contains("192.0.2.0/24", "::ffff:192.0.2.1"));
    EXPECT_TRUE(contains("::ffff:192.0.2.0/120", "192.0.2.1"));
}

TEST(Networks, ContainAnAddressWhateverItsZone) {
    EXPECT_TRUE(contains("fe80::/10", "fe80::1%1"));
}

TEST(Networks, AreManyTogether) {
    Networks networks;
    EXPECT_TRUE(networks.add("192.0.2.1"));
    EXPECT_TRUE(networks.add("2001:db8::/32"));
    EXPECT_TRUE(networks.contain(asio::ip::make_address("192.0.2.1")));
    EXPECT_TRUE(networks.contain(asio::ip::make_address("2001:db8::5")));
    EXPECT_FALSE(networks.contain(asio::ip::make_address("192.0.2.2")));
    EXPECT_EQ(networks.list().size(), 2U);
}

TEST(Networks, AreNotMadeOfAnythingElse) {
    Networks networks;
    for (const auto text :
         {""sv, "/"sv, "192.0.2.1/"sv, "/24"sv, "192.0.2.0/33"sv, "192.0.2.0/-1"sv, "192.0.2/24"sv,
          "0.0.0.0/4294967296"sv, "192.0.2.0/24/24"sv, "192.0.2.0 /24"sv, "192.0.2.0/ 24"sv,
          "2001:db8::/129"sv, "::/0x0"sv, "fe80::1%1"sv, "[::1]"sv, "192.0.2.1:80"sv, "localhost"sv,
          "192.0.2.1\0"sv, "192.0.2.1,192.0.2.2"sv})
        EXPECT_FALSE(networks.add(text)) << text;
    EXPECT_TRUE(networks.list().empty());
}

TEST(Networks, AreNotMadeOfAnAddressWithinANetwork) {
    Networks networks;
    for (const auto text : {"192.0.2.1/24"sv, "10.0.0.1/31"sv, "2001:db8::1/32"sv, "0.0.0.1/0"sv})
        EXPECT_FALSE(networks.add(text)) << text;
}

} // namespace
} // namespace relay
