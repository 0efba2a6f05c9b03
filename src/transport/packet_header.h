#pragma once

#include <cstddef>
#include <cstdint>

// The relay packet header: 12 bytes, big-endian, in front of every packet on the relay connection.
//
//   offset  0        2          4     6         8
//           magic    DataType   ID    Reserve   DataLen (body bytes that follow)
//           B0 0B    16 bits    16    16        32
//
// Bytes are moved one by one, so neither byte order nor alignment of the host matters.
// Threads: any; nothing is shared.

constexpr size_t PACKET_HEADER_SIZE = 2 + 2 + 2 + 2 + 4;
static_assert(PACKET_HEADER_SIZE == 12);

constexpr uint16_t PACKET_MAGIC = 0xB00B;

// Values of DataType; anything else ends the session.
constexpr uint16_t PACKET_HELLO = 1;             // both ways
constexpr uint16_t PACKET_HEARTBEAT = 2;         // both ways, without body
constexpr uint16_t PACKET_REQUEST = 3;           // relay to device: an HTTP request
constexpr uint16_t PACKET_RESPONSE = 4;          // device to relay: its answer, same ID
constexpr uint16_t PACKET_WEB_TOKEN = 5;         // both ways
constexpr uint16_t PACKET_REQUEST_UNCOUNTED = 6; // as 3, but does not keep an idle session alive

struct packet_header_t {
    uint16_t magic;
    uint16_t type;
    uint16_t id;
    uint16_t reserve;
    uint32_t dataLen;
};

// Reads the 12 bytes at `bytes`. Nothing is checked.
packet_header_t packet_header_read(const void* bytes);

// Writes the 12 bytes at `bytes`.
void packet_header_write(void* bytes, const packet_header_t& header);

// Writes DataLen alone and leaves the other fields as they are.
void packet_header_write_data_len(void* bytes, uint32_t dataLen);

// A zeroed block for a header, `dataLen` body bytes and one byte more, which terminates a text
// body. The caller frees it. Null when it cannot be had, on 32-bit hosts also for a length that no
// block can have. A large block is mapped, not touched: a length that a peer only claims costs
// nothing until its bytes arrive.
uint8_t* packet_allocate(uint32_t dataLen);

// Prints the header at `bytes` plainly on standard output, for debugging.
void packet_header_dump(const void* bytes);
