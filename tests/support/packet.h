#pragma once

#include <cstdint>
#include <string>

// Relay packets as the relay sees them, made and read without the code under test.

struct packet {
    uint16_t type = 0;
    uint16_t id = 0;
    std::string body;
    uint16_t reserve = 0;
    uint16_t magic = 0xB00B;

    bool operator==(const packet&) const = default;
};

constexpr size_t HEADER_BYTES = 12;

// The 12 bytes that open a packet, for bodies that never come or come in pieces.
std::string header_bytes(uint16_t type, uint16_t id, uint32_t bodySize, uint16_t reserve = 0,
                         uint16_t magic = 0xB00B);

// Header and body.
std::string packet_bytes(const packet& packet);

// The header's fields without a body; `bodySize` gets DataLen.
packet parse_header(const std::string& bytes, uint32_t* bodySize);

// `size` bytes that differ from their neighbours, so that a piece at a wrong offset shows.
std::string patterned_bytes(size_t size);
