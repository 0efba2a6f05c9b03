// A request to the operators' listener.
//
// Input: most bytes of one read (8 bits), then the request.

#include "admin/admin_request.h"
#include "fuzz.h"

#include <boost/asio/buffer.hpp>

namespace {

using namespace relay;

constexpr std::string_view token = "secret";

// Nothing for a request that is broken, or not complete.
std::optional<AdminRequest> read_request(std::string_view bytes, std::size_t slice) {
    AdminParser parser;
    limit_admin_request(parser);
    parser.eager(true);
    std::string input;
    while (!parser.is_done()) {
        const auto piece = bytes.substr(0, slice);
        bytes.remove_prefix(piece.size());
        input += piece;
        boost::system::error_code error;
        input.erase(0, parser.put(boost::asio::buffer(input), error));
        if ((error && error != http::error::need_more) || (piece.empty() && !parser.is_done()))
            return std::nullopt;
    }
    return parser.release();
}

std::string_view view(const AdminRequest& request, http::field field) {
    return request[field];
}

void check(const AdminRequest& request) {
    const AdminCall call = admin_call_of(request);
    const std::string_view target = request.target();
    if (call.what == AdminCall::What::web_token) {
        REQUIRE(request.method() == http::verb::post);
        REQUIRE(!call.device_id.empty());
        REQUIRE(target.starts_with("/api/devices/" + call.device_id + "/web-token"));
    }
    const auto credentials = view(request, http::field::authorization);
    const bool may_ask = is_admin_allowed(request, call.what, {std::string(token), "other"});
    if (may_ask && call.what == AdminCall::What::metrics)
        REQUIRE(credentials.substr(7) == token || credentials.substr(7) == "other");
    else if (may_ask)
        REQUIRE(credentials.substr(7) == token);
    if (is_admin_allowed(request, call.what, {})) {
        REQUIRE(request.count("X-Forwarded-For") == 0 && request.count("Via") == 0);
        auto host = view(request, http::field::host);
        host = host.substr(0, host.rfind(':')); // whatever the port says
        REQUIRE(!host.empty());
        REQUIRE(host.find_first_of("/ @?#") == host.npos || host.find('%') != host.npos);
    }
    const auto origin = view(request, http::field::origin);
    REQUIRE(is_from_elsewhere(request) || origin.empty() ||
            origin.ends_with(view(request, http::field::host)));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    const std::size_t slice = input.byte() + std::size_t{1};
    const auto bytes = input.rest();

    const auto whole = read_request(bytes, bytes.size() + 1);
    const auto sliced = read_request(bytes, slice);
    REQUIRE(whole.has_value() == sliced.has_value());
    if (!whole)
        return 0;
    check(*whole);
    REQUIRE(whole->body() == sliced->body() && whole->target() == sliced->target());
    REQUIRE(admin_call_of(*whole).what == admin_call_of(*sliced).what);
    return 0;
}
