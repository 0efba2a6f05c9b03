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
