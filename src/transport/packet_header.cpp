#include "transport/packet_header.h"

#include <cstdio>
#include <cstdlib>

#include "core/log.h"

namespace {

constexpr size_t MAGIC_AT = 0;
constexpr size_t TYPE_AT = 2;
constexpr size_t ID_AT = 4;
constexpr size_t RESERVE_AT = 6;
constexpr size_t DATA_LEN_AT = 8;

constexpr size_t DUMP_SIZE = 512; // some 350 bytes, whatever the fields hold

uint16_t _read16(const uint8_t* bytes) {
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

void _write16(uint8_t* bytes, uint16_t value) {
    bytes[0] = static_cast<uint8_t>(value >> 8);
    bytes[1] = static_cast<uint8_t>(value);
}

} // namespace

packet_header_t packet_header_read(const void* bytes) {
    const uint8_t* header = static_cast<const uint8_t*>(bytes);
    uint32_t high = _read16(header + DATA_LEN_AT);
    return {_read16(header + MAGIC_AT), _read16(header + TYPE_AT), _read16(header + ID_AT),
            _read16(header + RESERVE_AT), high << 16 | _read16(header + DATA_LEN_AT + 2)};
}

void packet_header_write(void* bytes, const packet_header_t& header) {
    uint8_t* out = static_cast<uint8_t*>(bytes);
    _write16(out + MAGIC_AT, header.magic);
    _write16(out + TYPE_AT, header.type);
    _write16(out + ID_AT, header.id);
    _write16(out + RESERVE_AT, header.reserve);
    packet_header_write_data_len(bytes, header.dataLen);
}

void packet_header_write_data_len(void* bytes, uint32_t dataLen) {
    uint8_t* out = static_cast<uint8_t*>(bytes) + DATA_LEN_AT;
    _write16(out, static_cast<uint16_t>(dataLen >> 16));
    _write16(out + 2, static_cast<uint16_t>(dataLen));
}

uint8_t* packet_allocate(uint32_t dataLen) {
    size_t size = 0;
    if (__builtin_add_overflow(dataLen, PACKET_HEADER_SIZE + 1, &size)) {
        return nullptr;
    }
    return static_cast<uint8_t*>(calloc(1, size));
}

void packet_header_dump(const void* bytes) {
    const uint8_t* raw = static_cast<const uint8_t*>(bytes);
    packet_header_t header = packet_header_read(bytes);
    char text[DUMP_SIZE];
    int length = snprintf(
        text, sizeof text,
        "--------------------------Pkt Hdr----------------------------\r\n"
        "[CRC:] parse req, magicNum: 0x%04X\r\n"
        "[CRC:] parse req, type    : %d\r\n"
        "[CRC:] parse req, id      : %d\r\n"
        "[CRC:] parse req, resv    : %d\r\n"
        "[CRC:] parse req, dataLen : %d\r\n"
        "%02x - %02x - %02x - %02x - %02x - %02x - %02x - %02x - %02x - %02x - %02x - %02x - \r\n"
        "---------------------------End-------------------------------\r\n",
        header.magic, header.type, header.id, header.reserve, static_cast<int>(header.dataLen),
        raw[0], raw[1], raw[2], raw[3], raw[4], raw[5], raw[6], raw[7], raw[8], raw[9], raw[10],
        raw[11]);
    cloud_print(text, static_cast<size_t>(length));
}
