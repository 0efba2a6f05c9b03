#include "base/text.h"

#include <gtest/gtest.h>

namespace relay {
namespace {

TEST(Text, LowerCaseIsOfAsciiAlone) {
    EXPECT_EQ(lower_case("AZ az 09 @[`{ \xC3\x84"), "az az 09 @[`{ \xC3\x84");
    EXPECT_EQ(lower_case(""), "");
}

TEST(Text, ComparesIgnoringCase) {
    EXPECT_TRUE(equals_ignoring_case("Content-Length", "cONTENT-lENGTH"));
    EXPECT_TRUE(equals_ignoring_case("", ""));
    EXPECT_FALSE(equals_ignoring_case("a", "ab"));
    EXPECT_FALSE(equals_ignoring_case("ab", "a"));
    EXPECT_FALSE(equals_ignoring_case("@", "`")) << "they differ by the bit that makes lower case";
}

TEST(Text, TrimsBlanksAndTabsOnly) {
    EXPECT_EQ(trimmed(" \t a b\t "), "a b");
    EXPECT_EQ(trimmed("ab"), "ab");
    EXPECT_EQ(trimmed("\r a \n"), "\r a \n");
    EXPECT_EQ(trimmed(" \t "), "");
    EXPECT_EQ(trimmed(""), "");
}

TEST(Text, EndpointsAreWrittenAsInAnAddressLine) {
    const auto text = [](const char* address, std::uint16_t port) {
        return to_text(Tcp::endpoint(asio::ip::make_address(address), port));
    };
    EXPECT_EQ(text("192.0.2.1", 443), "192.0.2.1:443");
    EXPECT_EQ(text("2001:db8::1", 65535), "[2001:db8::1]:65535");
}

TEST(Text, AddressesOfIpv4AreWrittenAsSuchWhereverTheyCameIn) {
    const auto text = [](const char* address) { return to_text(asio::ip::make_address(address)); };
    EXPECT_EQ(text("192.0.2.1"), "192.0.2.1");
    EXPECT_EQ(text("::ffff:192.0.2.1"), "192.0.2.1");
    EXPECT_EQ(text("2001:db8::1"), "2001:db8::1");
    EXPECT_EQ(to_text(Tcp::endpoint(asio::ip::make_address("::ffff:192.0.2.1"), 80)),
              "192.0.2.1:80");
}

TEST(Text, AddressesAreReadWithoutZoneOrPort) {
    EXPECT_EQ(parse_address("192.0.2.1"), asio::ip::make_address("192.0.2.1"));
    EXPECT_EQ(parse_address("2001:DB8::1"), asio::ip::make_address("2001:db8::1"));
    for (const std::string_view text : {"", "192.0.2", "192.0.2.1:80", "192.0.2.256", "[::1]",
                                        "fe80::1%lo", "::1/128", " ::1", "localhost", ":"})
        EXPECT_EQ(parse_address(text), std::nullopt) << text;
    EXPECT_EQ(parse_address(std::string_view("192.0.2.1\0", 10)), std::nullopt);
}

TEST(Text, TimeIsIsoInUtcWithMilliseconds) {
    using std::chrono::milliseconds;
    using Time = std::chrono::system_clock::time_point;
    EXPECT_EQ(iso_time(Time{}), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(iso_time(Time{milliseconds(1769903999123)}), "2026-01-31T23:59:59.123Z");
    EXPECT_EQ(iso_time(Time{milliseconds(951782400007)}), "2000-02-29T00:00:00.007Z");
}

TEST(Text, HtmlIsEscaped) {
    EXPECT_EQ(html_escaped("<a href=\"x\" b='y'>&amp;</a>"),
              "&lt;a href=&quot;x&quot; b=&#39;y&#39;&gt;&amp;amp;&lt;/a&gt;");
    EXPECT_EQ(html_escaped("plain \xC3\xA4"), "plain \xC3\xA4");
}

} // namespace
} // namespace relay
