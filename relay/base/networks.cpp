#include "base/networks.h"

#include <boost/asio/ip/network_v4.hpp>

#include <algorithm>
#include <optional>
#include <string>

namespace relay {
namespace {

using asio::ip::network_v6;

constexpr unsigned short mapped_bits = 96; // in front of an IPv4 address

std::optional<network_v6> parse_network(std::string_view text) {
    const auto slash = text.find('/');
    // The library reads longer numbers with atoi(), which wraps around.
    const bool is_number_short = slash == text.npos || text.size() - slash <= 4;
    if (!is_number_short || text.find_first_not_of("0123456789abcdefABCDEF:./") != text.npos)
        return std::nullopt;
    const bool is_v6 = text.find(':') != text.npos;
    std::string with_length(text);
    if (slash == text.npos)
        with_length += is_v6 ? "/128" : "/32";
    error_code wrong;
    if (is_v6) {
        const auto network = asio::ip::make_network_v6(with_length, wrong);
        return wrong ? std::nullopt : std::optional(network);
    }
    const auto network = asio::ip::make_network_v4(with_length, wrong);
    if (wrong)
        return std::nullopt;
    return network_v6(as_v6(network.address()),
                      static_cast<unsigned short>(mapped_bits + network.prefix_length()));
}

} // namespace

asio::ip::address_v6 as_v6(const asio::ip::address& address) {
    if (address.is_v4())
        return asio::ip::make_address_v6(asio::ip::v4_mapped, address.to_v4());
    return asio::ip::address_v6(address.to_v6().to_bytes());
}

bool Networks::add(std::string_view text) {
    const auto network = parse_network(text);
    if (!network || *network != network->canonical())
        return false;
    list_.push_back(*network);
    return true;
}

bool Networks::contain(const asio::ip::address& address) const {
    const auto v6 = as_v6(address);
    return std::any_of(list_.begin(), list_.end(), [&v6](const network_v6& network) {
        return network_v6(v6, network.prefix_length()).canonical() == network;
    });
}

} // namespace relay
