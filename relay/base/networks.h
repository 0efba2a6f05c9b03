// A set of addresses, given one by one or as networks.
#pragma once

#include "base/address.h"

#include <boost/asio/ip/network_v6.hpp>

#include <string_view>
#include <vector>

namespace relay {

class Networks {
public:
    // "192.0.2.1", "192.0.2.0/24", "2001:db8::/32". False: it is something else, or an address
    // within a network, as in "192.0.2.1/24", where either may have been meant.
    bool add(std::string_view text);
    // An IPv4 address is the same on a socket of IPv6.
    bool contain(const asio::ip::address& address) const;
    // IPv4 networks as the IPv6 ones that they are mapped to.
    const std::vector<asio::ip::network_v6>& list() const { return list_; }

private:
    std::vector<asio::ip::network_v6> list_;
};

// The IPv6 address of any address, mapped where it is one of IPv4; without zone.
asio::ip::address_v6 as_v6(const asio::ip::address& address);

} // namespace relay
