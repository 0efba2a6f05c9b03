// Headers of requests and answers alike.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace relay {

// The shortest end of a chunked body, "0\r\n\r\n". The parser gets no fewer bytes of one at a time:
// a part of its end, looked at twice, breaks an assertion of the parser's in builds that have them.
constexpr std::size_t least_chunked_bytes = 5;

// What ends a head.
constexpr std::string_view head_end = "\r\n\r\n";

struct Header {
    std::string_view name, value;
};

// Takes out the headers between two neighbours (RFC 9110, 7.6.1), which are not passed on: the
// standard ones, and those that a Connection header names.
void drop_hop_by_hop(std::vector<Header>& headers);

// Appends "name: value" and the end of the line.
void append_header(std::string& head, std::string_view name, std::string_view value);

} // namespace relay
