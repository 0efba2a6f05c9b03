#include "support/packet.h"

namespace {

void append16(std::string* out, uint32_t value) {
    out->push_back(static_cast<char>(value >> 8));
    out->push_back(static_cast<char>(value));
}

uint16_t read16(const std::string& bytes, size_t at) {
    return static_cast<uint16_t>(static_cast<uint8_t>(bytes.at(at)) << 8 |
                                 static_cast<uint8_t>(bytes.at(at + 1)));
}

} // namespace

std::string header_bytes(uint16_t type, uint16_t id, uint32_t bodySize, uint16_t reserve,
                         uint16_t magic) {
    std::string bytes;
    for (uint32_t field : {uint32_t{magic}, uint32_t{type}, uint32_t{id}, uint32_t{reserve},
                           bodySize >> 16, bodySize}) {
        append16(&bytes, field);
    }
    return bytes;
}

std::string packet_bytes(const packet& packet) {
    return header_bytes(packet.type, packet.id, static_cast<uint32_t>(packet.body.size()),
                        packet.reserve, packet.magic) +
           packet.body;
}

packet parse_header(const std::string& bytes, uint32_t* bodySize) {
    packet header;
    header.magic = read16(bytes, 0);
    header.type = read16(bytes, 2);
    header.id = read16(bytes, 4);
    header.reserve = read16(bytes, 6);
    *bodySize = static_cast<uint32_t>(read16(bytes, 8)) << 16 | read16(bytes, 10);
    return header;
}

std::string patterned_bytes(size_t size) {
    std::string bytes(size, '\0');
    uint32_t state = 1;
    for (char& byte : bytes) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}
