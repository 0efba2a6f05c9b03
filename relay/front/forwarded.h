// What a trusted proxy writes into the requests that it passes on.
#pragma once

#include "base/networks.h"

#include <boost/beast/http/message.hpp>

#include <optional>
#include <string_view>

namespace relay {

struct Forwarded {
    std::optional<asio::ip::address> user; // nothing: it names none
    std::string_view scheme;               // "http", "https"; empty: it names none
};

// X-Forwarded-For is read from its end, where the nearest proxy has added the address that it saw:
// the user is the first who is not a trusted proxy himself. What stands before him anybody may have
// written. Of X-Forwarded-Proto the last word counts, for the same reason.
Forwarded read_forwarded(const boost::beast::http::request_header<>& head,
                         const Networks& trusted_proxies);

} // namespace relay
