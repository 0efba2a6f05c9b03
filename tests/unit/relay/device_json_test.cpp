#include "admin/device_json.h"

#include <boost/json/parse.hpp>
#include <gtest/gtest.h>

namespace relay {
namespace {

TEST(DeviceJson, WithoutControlCharactersIsUnchanged) {
    constexpr std::string_view text = R"({"err_code": 0,"webToken":"0123 \"\\ \u00e4 ä"})";
    EXPECT_EQ(with_escaped_controls(text), text);
    EXPECT_EQ(with_escaped_controls(""), "");
}

TEST(DeviceJson, TokenWithItsLineFeedBecomesStrict) {
    const std::string text = with_escaped_controls("{\"err_code\": 0,\"webToken\":\"abc\n\"}");
    EXPECT_EQ(text, "{\"err_code\": 0,\"webToken\":\"abc\\u000a\"}");
    EXPECT_EQ(boost::json::parse(text).at("webToken").as_string(), "abc\n");
}

TEST(DeviceJson, EveryControlCharacterInATextIsEscaped) {
    std::string controls;
    for (char c = 0; c < ' '; ++c)
        controls += c;
    const std::string text = with_escaped_controls("{\"webToken\":\"" + controls + "\"}");
    EXPECT_EQ(boost::json::parse(text).at("webToken").as_string(),
              boost::json::string_view(controls.data(), controls.size()));
}

TEST(DeviceJson, ControlCharactersBetweenTextsStay) {
    EXPECT_EQ(with_escaped_controls("{\r\n\t\"a\": 1\n}\n"), "{\r\n\t\"a\": 1\n}\n");
}

TEST(DeviceJson, QuoteBehindABackslashEndsNoText) {
    EXPECT_EQ(with_escaped_controls("\"a\\\"\n\"\n"), "\"a\\\"\\u000a\"\n");
    EXPECT_EQ(with_escaped_controls("\"a\\\\\"\n\"b\n\""), "\"a\\\\\"\n\"b\\u000a\"");
}

} // namespace
} // namespace relay
