#include "devices/packet.h"

#include <gmock/gmock.h>

namespace relay {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;

PacketHeader decoded(const std::string& bytes) {
    return decode_header(std::span<const char>(bytes).first<PacketHeader::size>());
}

TEST(Packet, HeaderIsBigEndian) {
    const PacketHeader header = decoded("\xB0\x0B\x00\x04\x12\x34\x56\x78\x01\x02\x03\xF4"s);
    EXPECT_EQ(header.magic, 0xB00B);
    EXPECT_EQ(header.type, 4);
    EXPECT_EQ(header.id, 0x1234);
    EXPECT_EQ(header.reserve, 0x5678);
    EXPECT_EQ(header.length, 0x010203F4u);
}

TEST(Packet, HeaderOfAllOnesIsRead) {
    const PacketHeader header = decoded(std::string(PacketHeader::size, '\xFF'));
    EXPECT_EQ(header.magic, 0xFFFF);
    EXPECT_EQ(header.type, 0xFFFF);
    EXPECT_EQ(header.id, 0xFFFF);
    EXPECT_EQ(header.reserve, 0xFFFF);
    EXPECT_EQ(header.length, 0xFFFFFFFFu);
}

TEST(Packet, HeaderIsWrittenWithTheMagicNumberAndReserveZero) {
    const auto bytes = encode_header(PacketType::web_token, 0xFEDC, 0x89ABCDEF);
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()),
              "\xB0\x0B\x00\x05\xFE\xDC\x00\x00\x89\xAB\xCD\xEF"s);
}

TEST(Packet, TypesHaveTheNumbersOfTheWire) {
    const auto number = [](PacketType type) { return static_cast<int>(type); };
    EXPECT_THAT((std::array{number(PacketType::hello), number(PacketType::heartbeat),
                            number(PacketType::request), number(PacketType::answer),
                            number(PacketType::web_token)}),
                ElementsAre(1, 2, 3, 4, 5));
}

TEST(Packet, IsHeaderAndBody) {
    EXPECT_EQ(make_packet(PacketType::hello, 0, "{\"err_code\":0}"),
              "\xB0\x0B\x00\x01\x00\x00\x00\x00\x00\x00\x00\x0E{\"err_code\":0}"s);
}

TEST(Packet, BodyMayComeInTwoParts) {
    EXPECT_EQ(make_packet(PacketType::request, 7, "head", "body\0"s),
              "\xB0\x0B\x00\x03\x00\x07\x00\x00\x00\x00\x00\x09headbody\0"s);
}

TEST(Packet, OfAHeartbeatHasNoBody) {
    EXPECT_EQ(make_packet(PacketType::heartbeat, 1, {}),
              "\xB0\x0B\x00\x02\x00\x01\x00\x00\x00\x00\x00\x00"s);
}

TEST(Packet, IdIsFilledInLater) {
    std::string packet = make_packet(PacketType::request, 0, "GET / HTTP/1.1\r\n\r\n");
    const std::string with_other_id = make_packet(PacketType::request, 0xABCD, packet.substr(12));
    set_packet_id(packet, 0xABCD);
    EXPECT_EQ(packet, with_other_id);
}

} // namespace
} // namespace relay
