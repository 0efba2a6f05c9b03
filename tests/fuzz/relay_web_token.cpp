// A device's web token on its way to the operator: what the router's helper printed, in the
// device's JSON, with control characters escaped by the relay.
//
// Input: what the helper printed.

#include "admin/device_json.h"
#include "fuzz.h"

#include <boost/json/parse.hpp>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string token(reinterpret_cast<const char*>(data), size);
    const std::string json = "{\"err_code\": 0,\"webToken\":\"" + token + "\"}";
    const std::string escaped = relay::with_escaped_controls(json);
    REQUIRE(relay::with_escaped_controls(escaped) == escaped);
    REQUIRE(escaped.size() >= json.size());

    // A token without quotes and backslashes is read by a strict reader as it was printed.
    boost::json::error_code not_utf8;
    boost::json::parse("\"" + token + "\"", not_utf8, {},
                       boost::json::parse_options{32, false, false, false});
    boost::json::error_code wrong;
    const auto value = boost::json::parse(escaped, wrong);
    const bool is_plain = token.find_first_of("\"\\") == token.npos;
    const bool is_ascii = std::all_of(token.begin(), token.end(), [](char c) { return c >= 0; });
    REQUIRE(!is_plain || !is_ascii || !wrong);
    if (is_plain && !wrong)
        REQUIRE(value.at("webToken").as_string() == std::string_view(token));
    return 0;
}
