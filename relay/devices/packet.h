// One packet on a device's connection: a 12-byte header, big-endian, then a body.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace relay {

enum class PacketType : std::uint16_t {
    hello = 1,     // device, then relay
    heartbeat = 2, // device, then relay with the same ID
    request = 3,   // relay: an HTTP request
    answer = 4,    // device: its web server's bytes
    web_token = 5, // relay, then device
};

struct PacketHeader {
    static constexpr std::size_t size = 12;
    static constexpr std::uint16_t magic_number = 0xB00B;

    std::uint16_t magic = magic_number;
    std::uint16_t type = 0; // of PacketType, or what came
    std::uint16_t id = 0;
    std::uint16_t reserve = 0;
    std::uint32_t length = 0; // bytes of body
};

PacketHeader decode_header(std::span<const char, PacketHeader::size> bytes);

std::array<char, PacketHeader::size> encode_header(PacketType type, std::uint16_t id,
                                                   std::uint32_t length);

// A whole packet; its body is both texts, one after the other.
std::string make_packet(PacketType type, std::uint16_t id, std::string_view body,
                        std::string_view more_body = {});

void set_packet_id(std::string& packet, std::uint16_t id);

} // namespace relay
