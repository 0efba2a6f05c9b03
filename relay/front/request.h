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

// A head that is coming in.
struct HeadLook {
    PageReason page;            // status 0: nothing is wrong so far
    std::size_t head_bytes = 0; // 0: it is not complete
};

// Looks for a head at the beginning of `input`; its first `checked` bytes were looked at before,
// and were no complete head.
HeadLook look_for_head(std::string_view input, std::size_t checked, std::size_t max_header_bytes);

// Reads a complete head; `error` is the parser's. The page's status is 0 when it can be passed on.
PageReason read_head(RequestParser& parser, std::string_view head,
                     boost::system::error_code& error);

// Moves what has come of a body from `input` into an eager parser; `taken` bytes. What is wrong
// with it, if anything. What surrounds chunks may stay in `input`, as long as a head at most.
std::optional<PageReason> take_body(RequestParser& parser, std::string& input,
                                    std::size_t max_header_bytes, std::size_t& taken);

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

// Devices share the base domain, and so a page of one may send requests to another with the user's
// cookies. What is refused are those that could change something there; links work.
std::optional<PageReason> check_origin(const RequestHead& head, const Route& route);

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
