// Headers of requests and answers alike.
#pragma once

#include <boost/beast/core/string_type.hpp>

#include <string>
#include <string_view>

namespace relay {

inline std::string_view view(boost::beast::string_view text) {
    return {text.data(), text.size()};
}

// Appends "name: value" and the end of the line.
void append_header(std::string& head, std::string_view name, std::string_view value);

// True for headers between two neighbours (RFC 9110, 7.6.1), which are not passed on; `connection`
// is the values of all Connection headers as one list, which may name more.
bool is_hop_by_hop(std::string_view name, std::string_view connection);

} // namespace relay
