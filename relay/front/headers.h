// Headers of requests and answers alike.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace relay {

// Whether no more has come of a chunked body's end than a part of the shortest one, "0\r\n\r\n".
// The parser is not asked then: when it sees such a part twice, it breaks an assertion of its own,
// in builds that have them.
inline bool is_part_of_chunked_end(std::string_view chunks) {
    return chunks.size() < 5 && chunks.starts_with("0\r\n");
}

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
