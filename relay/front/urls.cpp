#include "front/urls.h"

#include "base/text.h"

#include <boost/url/authority_view.hpp>

#include <algorithm>

namespace relay {

std::string_view host_of(std::string_view authority) {
    const auto parsed = boost::urls::parse_authority({authority.data(), authority.size()});
    if (!parsed || parsed->has_userinfo())
        return {};
    const auto host = parsed->encoded_host();
    return {host.data(), host.size()};
}

std::optional<UrlParts> url_parts(std::string_view url) {
    constexpr std::string_view separator = "://";
    UrlParts parts;
    parts.scheme = url.substr(0, url.find(separator));
    if (!equals_ignoring_case(parts.scheme, "http") && !equals_ignoring_case(parts.scheme, "https"))
        return std::nullopt;
    url.remove_prefix(std::min(url.size(), parts.scheme.size() + separator.size()));
    parts.authority = url.substr(0, url.find_first_of("/?#"));
    parts.rest = url.substr(parts.authority.size());
    parts.host = host_of(parts.authority);
    if (parts.host.empty())
        return std::nullopt;
    return parts;
}

} // namespace relay
