#include "front/headers.h"

#include "base/text.h"

#include <boost/beast/http/rfc7230.hpp>

#include <array>

namespace relay {
namespace {

// `connection`: the values of all Connection headers as one list.
bool is_hop_by_hop(std::string_view name, std::string_view connection) {
    constexpr std::array<std::string_view, 9> names = {"connection",
                                                       "keep-alive",
                                                       "proxy-connection",
                                                       "proxy-authenticate",
                                                       "proxy-authorization",
                                                       "te",
                                                       "trailer",
                                                       "transfer-encoding",
                                                       "upgrade"};
    for (const auto each : names)
        if (equals_ignoring_case(name, each))
            return true;
    return boost::beast::http::token_list({connection.data(), connection.size()})
        .exists({name.data(), name.size()});
}

} // namespace

void drop_hop_by_hop(std::vector<Header>& headers) {
    std::string connection;
    for (const auto& [name, value] : headers)
        if (equals_ignoring_case(name, "connection"))
            connection.append(value) += ',';
    std::erase_if(headers,
                  [&](const Header& each) { return is_hop_by_hop(each.name, connection); });
}

void append_header(std::string& head, std::string_view name, std::string_view value) {
    head += name;
    head += ": ";
    head += value;
    head += "\r\n";
}

} // namespace relay
