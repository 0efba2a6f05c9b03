#include "base/clients.h"

#include <gtest/gtest.h>

namespace relay {
namespace {

asio::ip::address address(const char* text) {
    return asio::ip::make_address(text);
}

TEST(Clients, OfOneAddressAreOne) {
    Clients clients;
    const auto one = clients.at(address("192.0.2.1"));
    EXPECT_EQ(clients.at(address("192.0.2.1")), one);
    EXPECT_EQ(clients.at(address("::ffff:192.0.2.1")), one) << "on a socket of IPv6";
    EXPECT_NE(clients.at(address("192.0.2.2")), one);
}

TEST(Clients, OfAnIpv6NetworkOf64BitsAreOne) {
    Clients clients;
    const auto one = clients.at(address("2001:db8:0:1::1"));
    EXPECT_EQ(clients.at(address("2001:db8:0:1:ffff::2")), one);
    EXPECT_NE(clients.at(address("2001:db8:0:2::1")), one);
}

TEST(Clients, ThatAreTrustedProxiesAreOneByOne) {
    Networks networks;
    ASSERT_TRUE(networks.add("2001:db8::/127"));
    Clients clients(networks);
    const auto first = clients.at(address("2001:db8::"));
    const auto second = clients.at(address("2001:db8::1"));
    const auto stranger = clients.at(address("2001:db8::2"));
    EXPECT_TRUE(first->is_trusted_proxy && second->is_trusted_proxy);
    EXPECT_FALSE(stranger->is_trusted_proxy) << "it is in the same network of 64 bits";
    EXPECT_NE(first, second);
    EXPECT_NE(first, stranger);
    EXPECT_EQ(clients.count(), 3u);
}

TEST(Clients, AreForgottenWhenNobodyHasThem) {
    Clients clients;
    {
        const auto one = clients.at(address("192.0.2.1"));
        const auto same = clients.at(address("192.0.2.1"));
        const auto other = clients.at(address("2001:db8::1"));
        EXPECT_EQ(clients.count(), 2u);
    }
    EXPECT_EQ(clients.count(), 0u);
}

} // namespace
} // namespace relay
