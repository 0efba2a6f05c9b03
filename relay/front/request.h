// A user's HTTP request: what is refused before a device sees it, and what the device gets.
//
// Requests travel on to small web servers with parsers of their own, so whatever two parsers could
// read differently is refused here and never passed on: bare CR or LF, NUL, folded lines, two
// lengths, a length beside a transfer coding.
#pragma once

#include "front/pages.h"

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace relay {

namespace http = boost::beast::http;

using RequestParser = http::request_parser<http::string_body>;
using RequestHead = http::request_header<>;

// Looks at raw bytes of a head, from `begin` on, up to what has come. A CR as the last byte is left
// for the next call.
std::optional<PageReason> check_head_bytes(std::string_view head, std::size_t begin);

// The reason for an error of the parser.
PageReason parse_error(const boost::system::error_code& error);

// What in a well-formed head cannot be passed on.
std::optional<PageReason> check_head(const RequestHead& head);

// Where a request goes.
struct Route {
    std::string host;      // as the user wrote it, with port: for links back
    std::string device_id; // empty: the host names no device
    std::string target;    // in origin form
};

// Nothing when the host is unusable.
std::optional<Route> route_of(const RequestHead& head, std::string_view base_domain);

struct Forwarding {
    std::string_view device_host; // for Host
    std::string_view user;        // address
    std::string_view scheme;      // "http" or "https"
};

// The head that the device's web server gets, empty line included. `head` is the user's as it came,
// checked and parsed: the parser's own record has headers of one name moved together, and the
// trailers of a chunked body among them, where nobody would look for forged ones.
std::string device_head(std::string_view head, const Route& route, const Forwarding& forwarding,
                        std::size_t body_bytes, bool has_body);

} // namespace relay
