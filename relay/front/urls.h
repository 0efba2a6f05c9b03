// URLs in headers: requests and answers name the device by the address that users reach it at, or
// by its own.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace relay {

// The parts of "http://host:port/path" and of https alike.
struct UrlParts {
    std::string_view scheme;    // "http", "https", as it is written there
    std::string_view authority; // host, and port if there is one
    std::string_view host;      // without port; an IPv6 address in brackets
    std::string_view rest;      // path, query and fragment; may be empty
};

// Returns nothing for a relative URL, another scheme, a URL with a user name, and invalid text.
std::optional<UrlParts> url_parts(std::string_view url);

// The host of "host" and "host:port", without the port; empty when it is neither.
std::string_view host_of(std::string_view authority);

} // namespace relay
