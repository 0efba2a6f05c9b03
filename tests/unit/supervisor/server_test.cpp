#include "supervisor/server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <string>

namespace {

std::string round_trip(const std::string& text) {
    server parsed = {};
    return server_parse(text.c_str(), &parsed) ? server_show(parsed).text : "refused";
}

TEST(Server, NamesAndAddressesAreRead) {
    for (const char* text : {"relay.example.net:8443", "10.1.2.3:1", "relay:65535", "a-b_c.d.:443",
                             "1and1.example:443", "0.0.0.0:80"}) {
        EXPECT_EQ(round_trip(text), text);
    }
    EXPECT_EQ(round_trip("relay:00443"), "relay:443");
}

TEST(Server, TheLongestNameIsRead) {
    std::string label(63, 'x');
    std::string name = label + "." + label + "." + label + "." + std::string(61, 'y');
    ASSERT_EQ(name.size(), 253U);
    EXPECT_EQ(round_trip(name + ":65535"), name + ":65535");
    EXPECT_EQ(round_trip(name + "y:1"), "refused");
}

TEST(Server, EverythingElseIsRefused) {
    for (const std::string& text : {std::string(),
                                    std::string(":"),
                                    std::string("relay"),
                                    std::string("relay:"),
                                    std::string(":443"),
                                    std::string("relay:0"),
                                    std::string("relay:65536"),
                                    std::string("relay:99999999999"),
                                    std::string("relay:-1"),
                                    std::string("relay:+1"),
                                    std::string("relay:4a"),
                                    std::string("relay: 443"),
                                    std::string("rel ay:443"),
                                    std::string("relay..net:443"),
                                    std::string(".relay:443"),
                                    std::string("300.1.2.3:443"),
                                    std::string("1.2.3:443"),
                                    std::string("1.2.3.4.:443"),
                                    std::string("::1:443"),
                                    std::string("[::1]:443"),
                                    std::string("re/lay:443"),
                                    std::string("relay\n:443"),
                                    std::string("r\xc3\xa9lay:443"),
                                    std::string(64, 'x') + ":443",
                                    std::string(400, '1') + ":443"}) {
        EXPECT_EQ(round_trip(text), "refused") << text;
    }
}

TEST(Server, ARefusedTextLeavesTheResultAlone) {
    server kept = {"kept", 7};
    EXPECT_FALSE(server_parse("nonsense", &kept));
    EXPECT_STREQ(server_show(kept).text, "kept:7");
}

TEST(Server, NamesAreTheSameInAnyCase) {
    EXPECT_TRUE(server_equal({"Relay.Example", 443}, {"relay.example", 443}));
    EXPECT_FALSE(server_equal({"relay.example", 443}, {"relay.example", 444}));
    EXPECT_FALSE(server_equal({"relay.example", 443}, {"relay2.example", 443}));
}

TEST(Server, AnAddressIsToldFromAName) {
    uint32_t address = 0;
    EXPECT_TRUE(server_address({"10.1.2.3", 443}, &address));
    EXPECT_EQ(ntohl(address), 0x0a010203U);
    EXPECT_FALSE(server_address({"relay.example", 443}, &address));
}

} // namespace
