#include "devices/hello.h"

#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <gmock/gmock.h>

namespace relay {
namespace {

boost::json::object valid() {
    return {{"deviceId", "Router-1"},
            {"deviceMac", "AABBCCDDEEFF"},
            {"firmwareId", "FW1"},
            {"token", "secret"}};
}

std::optional<Hello> parse(const boost::json::object& hello, std::string& error) {
    return parse_hello(boost::json::serialize(hello), error);
}

boost::json::value text(std::string_view bytes) {
    return boost::json::string_view(bytes.data(), bytes.size());
}

std::optional<Hello> parse_with(std::string_view key, const boost::json::value& value,
                                std::string& error) {
    auto hello = valid();
    hello[key] = value;
    return parse(hello, error);
}

TEST(Hello, HasFourTexts) {
    std::string error;
    const auto hello = parse(valid(), error);
    ASSERT_TRUE(hello) << error;
    EXPECT_EQ(hello->device_id, "Router-1");
    EXPECT_EQ(hello->mac, "AABBCCDDEEFF");
    EXPECT_EQ(hello->firmware_id, "FW1");
    EXPECT_EQ(hello->token, sha256("secret"));
}

TEST(Hello, MayHaveMoreMembers) {
    std::string error;
    EXPECT_TRUE(parse_with("model", 7, error)) << error;
}

TEST(Hello, MayHaveEmptyTextsButNoEmptyId) {
    std::string error;
    for (const char* key : {"deviceMac", "firmwareId", "token"})
        EXPECT_TRUE(parse_with(key, "", error)) << key << ": " << error;
    EXPECT_FALSE(parse_with("deviceId", "", error));
}

TEST(Hello, WithoutAMemberSaysWhich) {
    for (const char* key : {"deviceId", "deviceMac", "firmwareId", "token"}) {
        auto hello = valid();
        hello.erase(key);
        std::string error;
        EXPECT_FALSE(parse(hello, error));
        EXPECT_EQ(error, "\"" + std::string(key) + "\" is missing or no text");
    }
}

TEST(Hello, WithAMemberThatIsNoTextSaysWhich) {
    for (const char* key : {"deviceId", "deviceMac", "firmwareId", "token"})
        for (const boost::json::value& value :
             {boost::json::value(1), boost::json::value(nullptr), boost::json::value(true),
              boost::json::value(boost::json::array{})}) {
            std::string error;
            EXPECT_FALSE(parse_with(key, value, error));
            EXPECT_EQ(error, "\"" + std::string(key) + "\" is missing or no text");
        }
}

TEST(Hello, MembersAreAtMost127BytesLong) {
    for (const char* key : {"deviceMac", "firmwareId", "token"}) {
        std::string error;
        EXPECT_TRUE(parse_with(key, text(std::string(127, 'x')), error)) << key << ": " << error;
        EXPECT_FALSE(parse_with(key, text(std::string(128, 'x')), error));
        EXPECT_EQ(error, "\"" + std::string(key) + "\" is longer than 127 bytes");
    }
}

TEST(Hello, OfTheLargestMembersFitsItsLimitEvenWhenEscaped) {
    boost::json::object hello;
    for (const char* key : {"deviceId", "deviceMac", "firmwareId", "token"})
        hello[key] = text(std::string(127, '\x01')); // six bytes each as an escape
    EXPECT_LE(boost::json::serialize(hello).size(), max_hello_bytes);
}

TEST(Hello, IdBecomesAHostNameLabel) {
    std::string error;
    for (const std::string id : {"a", "0", "A-b_9", "_x_"})
        EXPECT_TRUE(parse_with("deviceId", text(id), error)) << id << ": " << error;
    EXPECT_TRUE(parse_with("deviceId", text(std::string(63, 'x')), error)) << error;
    for (const std::string id :
         {"-a", "a-", "a.b", "a b", "a/b", "a:1", "<b>", "\xC3\xA4", "a\n"}) {
        EXPECT_FALSE(parse_with("deviceId", text(id), error)) << id;
        EXPECT_EQ(error, "device id \"" + id + "\" cannot be part of a host name");
    }
    EXPECT_FALSE(parse_with("deviceId", text(std::string(64, 'x')), error));
}

TEST(Hello, IdWithATerminatorInItIsRefused) {
    std::string error;
    EXPECT_FALSE(parse_with("deviceId", text(std::string("a\0b", 3)), error));
}

TEST(Hello, ThatIsNoObjectIsRefused) {
    for (const std::string_view text : {"", "{", "[]", "\"text\"", "null", "{} x", "{\"deviceId\"}",
                                        "\xFF\xFF", "{\"deviceId\":\"\xFF\"}"}) {
        std::string error;
        EXPECT_FALSE(parse_hello(text, error)) << text;
        EXPECT_EQ(error, "it is no JSON object");
    }
}

TEST(Hello, NestedBeyondReasonIsRefusedAndNotRecursedInto) {
    std::string error;
    const std::string deep =
        "{\"deviceId\":" + std::string(2000, '[') + std::string(2000, ']') + "}";
    EXPECT_FALSE(parse_hello(deep, error));
    EXPECT_EQ(error, "it is no JSON object");
}

TEST(Sha256, IsTheKnownDigest) {
    const Sha256 digest = sha256("abc");
    const Sha256 known = {0xba, 0x78, 0x16, 0xbf, 0x8f, 0x01, 0xcf, 0xea, 0x41, 0x41, 0x40,
                          0xde, 0x5d, 0xae, 0x22, 0x23, 0xb0, 0x03, 0x61, 0xa3, 0x96, 0x17,
                          0x7a, 0x9c, 0xb4, 0x10, 0xff, 0x61, 0xf2, 0x00, 0x15, 0xad};
    EXPECT_EQ(digest, known);
}

TEST(DeviceKey, DoesNotTellUpperFromLowerCase) {
    EXPECT_EQ(device_key("Router-AB_1"), device_key("rOUTER-ab_1"));
    EXPECT_NE(device_key("router-1"), device_key("router-2"));
}

} // namespace
} // namespace relay
