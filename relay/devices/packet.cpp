#include "devices/packet.h"

#include <boost/endian/conversion.hpp>

namespace relay {
namespace {

using boost::endian::load_big_u16;
using boost::endian::load_big_u32;
using boost::endian::store_big_u16;
using boost::endian::store_big_u32;

} // namespace

PacketHeader decode_header(std::span<const char, PacketHeader::size> bytes) {
    const auto* at = reinterpret_cast<const unsigned char*>(bytes.data());
    return {load_big_u16(at), load_big_u16(at + 2), load_big_u16(at + 4), load_big_u16(at + 6),
            load_big_u32(at + 8)};
}

std::array<char, PacketHeader::size> encode_header(PacketType type, std::uint16_t id,
                                                   std::uint32_t length) {
    std::array<char, PacketHeader::size> bytes{}; // Reserve stays 0
    auto* at = reinterpret_cast<unsigned char*>(bytes.data());
    store_big_u16(at, PacketHeader::magic_number);
    store_big_u16(at + 2, static_cast<std::uint16_t>(type));
    store_big_u16(at + 4, id);
    store_big_u32(at + 8, length);
    return bytes;
}

std::string make_packet(PacketType type, std::uint16_t id, std::string_view body,
                        std::string_view more_body) {
    const std::size_t length = body.size() + more_body.size();
    const auto header = encode_header(type, id, static_cast<std::uint32_t>(length));
    std::string packet;
    packet.reserve(header.size() + length);
    packet.append(header.data(), header.size());
    packet += body;
    return packet += more_body;
}

void set_packet_id(std::string& packet, std::uint16_t id) {
    store_big_u16(reinterpret_cast<unsigned char*>(packet.data()) + 4, id);
}

} // namespace relay
