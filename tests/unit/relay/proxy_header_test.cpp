#include "base/proxy_header.h"

#include "base/text.h"

#include <gmock/gmock.h>

#include <string>

namespace relay {
namespace {

using namespace std::string_literals;
using State = ProxyHeader::State;
using testing::HasSubstr;

const std::string signature = "\r\n\r\n\0\r\nQUIT\n"s;
const std::string v4_block = "\xc0\x00\x02\x01\xc6\x33\x64\x01\xdc\x04\x01\xbb"s;

// A header of version 2.
std::string binary(char command, char family, const std::string& block) {
    const auto size = static_cast<unsigned>(block.size());
    return signature + command + family + static_cast<char>(size >> 8) + static_cast<char>(size) +
           block;
}

std::string v6_block() {
    std::string block = "\x20\x01\x0d\xb8"s + std::string(11, '\0') + "\x01"s;
    return block + block + "\xdc\x04\x01\xbb"s;
}

// The client that a whole header names, "" when it names none; the header's bytes are all of it,
// with or without more behind it.
std::string client_in(const std::string& header) {
    for (const std::string& behind : {""s, "\x16\x03\x01"s, "GET / HTTP/1.1\r\n"s, header}) {
        const auto read = read_proxy_header(header + behind);
        EXPECT_EQ(read.state, State::complete) << read.mistake;
        EXPECT_EQ(read.bytes, header.size());
    }
    const auto client = read_proxy_header(header).client;
    return client ? to_text(*client) : "";
}

std::string mistake_in(const std::string& header) {
    const auto read = read_proxy_header(header);
    EXPECT_EQ(read.state, State::broken) << header;
    EXPECT_EQ(read.bytes, 0U);
    EXPECT_FALSE(read.client);
    return std::string(read.mistake);
}

TEST(ProxyHeader, InTextNamesTheClient) {
    EXPECT_EQ(client_in("PROXY TCP4 192.0.2.1 198.51.100.1 56324 443\r\n"), "192.0.2.1:56324");
    EXPECT_EQ(client_in("PROXY TCP4 255.255.255.255 0.0.0.0 65535 0\r\n"), "255.255.255.255:65535");
    EXPECT_EQ(client_in("PROXY TCP6 2001:db8::1 2001:DB8::2 1 2\r\n"), "[2001:db8::1]:1");
    EXPECT_EQ(client_in("PROXY TCP6 ::ffff:192.0.2.1 ::1 1 2\r\n"), "192.0.2.1:1");
}

TEST(ProxyHeader, InTextMayNotKnowTheClient) {
    EXPECT_EQ(client_in("PROXY UNKNOWN\r\n"), "");
    EXPECT_EQ(client_in("PROXY UNKNOWN ffff:f:f:f:f:f:f:f ffff::f 65535 65535\r\n"), "");
}

TEST(ProxyHeader, InTextHasAtMost107Bytes) {
    const std::string line = "PROXY UNKNOWN ";
    EXPECT_EQ(client_in(line + std::string(107 - 2 - line.size(), 'x') + "\r\n"), "");
    EXPECT_EQ(mistake_in(line + std::string(108 - 2 - line.size(), 'x') + "\r\n"),
              "its line is longer than 107 bytes");
    EXPECT_EQ(read_proxy_header(line + std::string(106 - line.size(), 'x')).state,
              State::incomplete);
    EXPECT_EQ(mistake_in(line + std::string(107 - line.size(), 'x')),
              "its line is longer than 107 bytes");
}

TEST(ProxyHeader, InTextWithAnotherFamilyIsBroken) {
    for (const char* family : {"", "TCP", "TCP5", "tcp4", "UDP4", "UNKNOWNX", "TCP4\t"})
        EXPECT_THAT(mistake_in("PROXY "s + family + " 192.0.2.1 192.0.2.2 1 2\r\n"),
                    HasSubstr("TCP4, TCP6 and UNKNOWN"));
}

TEST(ProxyHeader, InTextWithAnotherAddressIsBroken) {
    for (const char* addresses :
         {"TCP4 2001:db8::1 192.0.2.2", "TCP6 ::1 192.0.2.2", "TCP6 192.0.2.1 192.0.2.2",
          "TCP4 192.0.2.1 2001:db8::2", "TCP4 192.0.2 192.0.2.2", "TCP4 192.0.2.256 192.0.2.2",
          "TCP4  192.0.2.1 192.0.2.2", "TCP4 192.0.2.1  192.0.2.2", "TCP4 a b",
          "TCP6 fe80::1%1 ::1", "TCP6 [::1] ::1", "TCP4 -1.0.0.1 192.0.2.2", "TCP4"})
        EXPECT_EQ(mistake_in("PROXY "s + addresses + " 1 2\r\n"),
                  "its line does not name two addresses of that family")
            << addresses;
    EXPECT_EQ(mistake_in("PROXY TCP4 192.0.2.1\0x 192.0.2.2 1 2\r\n"s),
              "its line does not name two addresses of that family");
}

TEST(ProxyHeader, InTextWithAnotherPortIsBroken) {
    for (const char* ports : {"", " ", " 1", " 1 ", "  1 2", " 1  2", " 1 2 ", " 1 2 3", " 65536 1",
                              " 1 65536", " -1 1", " +1 1", " 01 1", " 1 02", " 1x 1", " 1 2\n"})
        EXPECT_EQ(mistake_in("PROXY TCP4 192.0.2.1 192.0.2.2"s + ports + "\r\n"),
                  "its line does not end with two ports")
            << ports;
}

TEST(ProxyHeader, InBytesNamesTheClient) {
    EXPECT_EQ(client_in(binary(0x21, 0x11, v4_block)), "192.0.2.1:56324");
    EXPECT_EQ(client_in(binary(0x21, 0x21, v6_block())), "[2001:db8::1]:56324");
}

TEST(ProxyHeader, InBytesMayTellMoreWhichIsSkipped) {
    EXPECT_EQ(client_in(binary(0x21, 0x11, v4_block + "\x04\x00\x03pad"s)), "192.0.2.1:56324");
    EXPECT_EQ(client_in(binary(0x21, 0x21, v6_block() + std::string(1000, 'x'))),
              "[2001:db8::1]:56324");
}

TEST(ProxyHeader, InBytesMayNotKnowTheClient) {
    EXPECT_EQ(client_in(binary(0x20, 0x00, "")), "") << "LOCAL";
    EXPECT_EQ(client_in(binary(0x20, 0x11, v4_block)), "") << "LOCAL, whatever stands there";
    EXPECT_EQ(client_in(binary(0x20, 0x7f, "x")), "");
    EXPECT_EQ(client_in(binary(0x21, 0x00, "")), "") << "an unspecified family";
}

TEST(ProxyHeader, InBytesHasAtMost4KiB) {
    EXPECT_EQ(client_in(binary(0x20, 0x00, std::string(4096 - 16, 'x'))), "");
    const auto longer = binary(0x20, 0x00, std::string(4097 - 16, 'x'));
    EXPECT_EQ(mistake_in(longer), "it is longer than 4096 bytes");
    EXPECT_EQ(mistake_in(longer.substr(0, 16)), "it is longer than 4096 bytes")
        << "nobody waits for what will not be taken";
}

TEST(ProxyHeader, InBytesOfAnotherVersionOrCommandIsBroken) {
    for (const char command : {'\x00', '\x01', '\x11', '\x22', '\x2f', '\x31', '\x12'})
        EXPECT_THAT(mistake_in(binary(command, 0x11, v4_block)), HasSubstr("version is not 2"));
}

TEST(ProxyHeader, InBytesOfAnotherFamilyIsBroken) {
    for (const char family : {'\x01', '\x10', '\x12', '\x20', '\x22', '\x31', '\x41'})
        EXPECT_THAT(mistake_in(binary(0x21, family, std::string(216, 'x'))), HasSubstr("family"));
}

TEST(ProxyHeader, InBytesTooShortForItsAddressesIsBroken) {
    EXPECT_EQ(mistake_in(binary(0x21, 0x11, v4_block.substr(1))),
              "it is too short for its addresses");
    EXPECT_EQ(mistake_in(binary(0x21, 0x21, v6_block().substr(1))),
              "it is too short for its addresses");
    EXPECT_EQ(mistake_in(binary(0x21, 0x11, "")), "it is too short for its addresses");
}

TEST(ProxyHeader, MayComeInPieces) {
    for (const std::string& header :
         {"PROXY TCP4 192.0.2.1 198.51.100.1 56324 443\r\n"s, "PROXY UNKNOWN\r\n"s,
          binary(0x21, 0x11, v4_block), binary(0x21, 0x21, v6_block() + "more")})
        for (std::size_t size = 0; size < header.size(); ++size) {
            const auto read = read_proxy_header(std::string_view(header).substr(0, size));
            const bool is_known = header.starts_with("PROXY ") ? size >= 6 : size >= 12;
            EXPECT_EQ(read.state, is_known ? State::incomplete : State::undecided)
                << size << " bytes";
            EXPECT_FALSE(read.client);
        }
}

TEST(ProxyHeader, IsNotWhatBeginsOtherwise) {
    for (const std::string& input :
         {"\x16\x03\x01\x02"s, "GET / HTTP/1.1\r\n\r\n"s, "PROX"s + "Z", "POST / HTTP/1.1\r\n\r\n"s,
          "PROXY/1"s, "proxy TCP4 "s, "\r\nGET / HTTP/1.1\r\n"s, "\r\n\r\n\r\n"s,
          signature.substr(0, 11) + "\r", "\0"s, " PROXY "s})
        EXPECT_EQ(read_proxy_header(input).state, State::none) << input;
}

} // namespace
} // namespace relay
