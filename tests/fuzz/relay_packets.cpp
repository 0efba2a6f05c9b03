// The header of a packet, as relay and device read and write it: the two have no source in common.
//
// Input: a header, then a body.

#include "devices/packet.h"
#include "fuzz.h"
#include "transport/packet_header.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < PACKET_HEADER_SIZE)
        return 0;
    const auto* bytes = reinterpret_cast<const char*>(data);
    const auto read = relay::decode_header(
        std::span<const char, relay::PacketHeader::size>(bytes, relay::PacketHeader::size));
    const packet_header_t device = packet_header_read(data);
    REQUIRE(read.magic == device.magic && read.type == device.type && read.id == device.id);
    REQUIRE(read.reserve == device.reserve && read.length == device.dataLen);

    uint8_t written[PACKET_HEADER_SIZE];
    packet_header_write(written, device);
    REQUIRE(std::equal(std::begin(written), std::end(written), data));

    const std::string_view body(bytes + PACKET_HEADER_SIZE, size - PACKET_HEADER_SIZE);
    auto packet = relay::make_packet(static_cast<relay::PacketType>(read.type), 0,
                                     body.substr(0, body.size() / 2), body.substr(body.size() / 2));
    relay::set_packet_id(packet, read.id);
    const packet_header_t made = packet_header_read(packet.data());
    REQUIRE(made.magic == PACKET_MAGIC && made.type == read.type && made.id == read.id);
    REQUIRE(made.dataLen == body.size() && packet.substr(PACKET_HEADER_SIZE) == body);
    return 0;
}
