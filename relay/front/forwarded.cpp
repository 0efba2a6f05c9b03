#include "front/forwarded.h"

#include "base/text.h"
#include "front/urls.h"

#include <algorithm>
#include <vector>

namespace relay {
namespace {

namespace http = boost::beast::http;

// The members of all headers of that name, as one list (RFC 9110, 5.3), the last first.
std::vector<std::string_view> members_from_the_end(const http::request_header<>& head,
                                                   std::string_view name) {
    std::vector<std::string_view> members;
    const auto [begin, end] = head.equal_range({name.data(), name.size()});
    for (auto line = begin; line != end; ++line) {
        std::string_view rest = line->value();
        while (!rest.empty()) {
            const auto member = rest.substr(0, rest.find(','));
            rest.remove_prefix(std::min(rest.size(), member.size() + 1));
            if (!trimmed(member).empty())
                members.push_back(trimmed(member));
        }
    }
    std::reverse(members.begin(), members.end());
    return members;
}

// "192.0.2.1", "192.0.2.1:1234", "2001:db8::1", "[2001:db8::1]", "[2001:db8::1]:1234".
std::optional<asio::ip::address> address_in(std::string_view member) {
    if (auto address = parse_address(member))
        return address;
    auto host = host_of(member);
    if (host.starts_with('[') && host.ends_with(']'))
        host = host.substr(1, host.size() - 2);
    return parse_address(host);
}

} // namespace

Forwarded read_forwarded(const http::request_header<>& head, const Networks& trusted_proxies) {
    Forwarded forwarded;
    for (const auto member : members_from_the_end(head, "X-Forwarded-For")) {
        const auto address = address_in(member);
        if (!address)
            break;
        forwarded.user = address;
        if (!trusted_proxies.contain(*address))
            break;
    }
    const auto schemes = members_from_the_end(head, "X-Forwarded-Proto");
    for (const std::string_view scheme : {"http", "https"})
        if (!schemes.empty() && equals_ignoring_case(schemes.front(), scheme))
            forwarded.scheme = scheme;
    return forwarded;
}

} // namespace relay
