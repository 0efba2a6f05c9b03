#include "transport/packet_header.h"

#include <cstdlib>
#include <fstream>
#include <gmock/gmock.h>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

#include "core/block.h"
#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "support/memory_limit.h"
#include "support/packet.h"

namespace {

using testing::ElementsAre;

constexpr uint32_t LARGEST_DATA_LEN = 0xFFFFFFFF;
// That a process has addresses for.
constexpr uint32_t LARGE_DATA_LEN = sizeof(size_t) > 4 ? LARGEST_DATA_LEN : 0x10000000;

std::string written(const packet_header_t& header) {
    std::string bytes(PACKET_HEADER_SIZE, '?');
    packet_header_write(bytes.data(), header);
    return bytes;
}

TEST(PacketHeader, IsTwelveBytesBigEndian) {
    EXPECT_EQ(written({0xB00B, 0x0102, 0x0304, 0x0506, 0x0708090A}),
              std::string("\xB0\x0B\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A", 12));
}

TEST(PacketHeader, OfAHeartbeatIsTheWholePacket) {
    EXPECT_EQ(written({PACKET_MAGIC, PACKET_HEARTBEAT, 0x1234, 0, 0}),
              std::string("\xB0\x0B\x00\x02\x12\x34\x00\x00\x00\x00\x00\x00", 12));
}

TEST(PacketHeader, ReadsWhatWasWritten) {
    for (uint32_t value : {0u, 1u, 0x7Fu, 0x80u, 0xFFu, 0x100u, 0x7FFFu, 0x8000u, 0xFFFFu}) {
        uint16_t field = static_cast<uint16_t>(value);
        uint32_t dataLen = value << 16 | (~value & 0xFFFF);
        packet_header_t header =
            packet_header_read(written({field, field, field, field, dataLen}).data());
        EXPECT_EQ(header.magic, field);
        EXPECT_EQ(header.type, field);
        EXPECT_EQ(header.id, field);
        EXPECT_EQ(header.reserve, field);
        EXPECT_EQ(header.dataLen, dataLen);
    }
}

TEST(PacketHeader, KeepsItsFieldsApart) {
    packet_header_t header = packet_header_read("\xB0\x0B\x00\x03\x12\x34\xFF\x00\x00\x01\x00\x02");
    EXPECT_EQ(header.magic, PACKET_MAGIC);
    EXPECT_EQ(header.type, PACKET_REQUEST);
    EXPECT_EQ(header.id, 0x1234);
    EXPECT_EQ(header.reserve, 0xFF00);
    EXPECT_EQ(header.dataLen, 0x00010002u);
}

TEST(PacketHeader, IsReadAndWrittenAtAnyAddress) {
    alignas(8) char bytes[8 + PACKET_HEADER_SIZE] = {};
    for (size_t offset = 0; offset < 8; offset++) {
        packet_header_write(bytes + offset, {PACKET_MAGIC, 4, 7, 0, LARGEST_DATA_LEN});
        EXPECT_EQ(packet_header_read(bytes + offset).dataLen, LARGEST_DATA_LEN);
    }
}

TEST(PacketHeader, DataLenAloneCanBeWritten) {
    std::string bytes = header_bytes(PACKET_WEB_TOKEN, 0x1234, 5, 0xABCD);
    packet_header_write_data_len(bytes.data(), 0x01020304);
    EXPECT_EQ(bytes, header_bytes(PACKET_WEB_TOKEN, 0x1234, 0x01020304, 0xABCD));
}

// --- packet_allocate ---

TEST(PacketAllocate, GivesAZeroedBlockForHeaderBodyAndTerminator) {
    for (uint32_t dataLen : {0u, 1u, 16384u}) {
        block_ptr block(packet_allocate(dataLen));
        ASSERT_NE(block, nullptr);
        size_t size = 12 + size_t{dataLen} + 1;
        EXPECT_EQ(std::string(reinterpret_cast<char*>(block.get()), size), std::string(size, '\0'));
    }
}

TEST(PacketAllocate, IsNullWhenMemoryIsShort) {
    fail_call failure("calloc");
    EXPECT_EQ(packet_allocate(100), nullptr);
    EXPECT_TRUE(failure.happened());
}

long resident_bytes() {
    long total = 0;
    long resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

TEST(PacketAllocate, AClaimedLengthCostsNothingUntilItsBytesCome) {
    if (!calloc_costs_nothing()) {
        GTEST_SKIP() << "the sanitizer writes what calloc gives";
    }
    constexpr long NOTHING_MUCH = 64L * 1024 * 1024;
    long before = resident_bytes();
    block_ptr block(packet_allocate(LARGE_DATA_LEN));
    ASSERT_NE(block, nullptr);
    EXPECT_LT(resident_bytes() - before, NOTHING_MUCH);
    block.get()[12 + size_t{LARGE_DATA_LEN}] = 'x'; // the spare byte is there
}

#if SIZE_MAX == UINT32_MAX
TEST(PacketAllocate, IsNullForALengthWhoseBlockNoSizeCanTell) {
    for (uint32_t beyond = 0; beyond < 13; beyond++) { // header and spare byte
        EXPECT_EQ(packet_allocate(LARGEST_DATA_LEN - beyond), nullptr);
    }
}
#endif

TEST(PacketAllocate, IsNullForALengthBeyondTheProcessLimit) {
    memory_limit limit;
    if (!limit.works()) {
        GTEST_SKIP() << "the address space cannot be limited under a sanitizer";
    }
    EXPECT_EQ(packet_allocate(LARGEST_DATA_LEN), nullptr);
}

// --- packet_header_dump ---

TEST(PacketHeaderDump, PrintsFieldsAndRawBytesPlainly) {
    log_capture log;
    packet_header_dump(header_bytes(3, 0x1234, 513, 0x8001).data());
    EXPECT_EQ(log.text(), "--------------------------Pkt Hdr----------------------------\r\n"
                          "[CRC:] parse req, magicNum: 0xB00B\r\n"
                          "[CRC:] parse req, type    : 3\r\n"
                          "[CRC:] parse req, id      : 4660\r\n"
                          "[CRC:] parse req, resv    : 32769\r\n"
                          "[CRC:] parse req, dataLen : 513\r\n"
                          "b0 - 0b - 00 - 03 - 12 - 34 - 80 - 01 - 00 - 00 - 02 - 01 - \r\n"
                          "---------------------------End-------------------------------\r\n");
}

TEST(PacketHeaderDump, PrintsExtremeFields) {
    log_capture log;
    packet_header_dump(header_bytes(0xFFFF, 0xFFFF, LARGEST_DATA_LEN, 0xFFFF, 0x000B).data());
    EXPECT_THAT(
        log.messages(),
        ElementsAre(testing::_, "[CRC:] parse req, magicNum: 0x000B\r",
                    "[CRC:] parse req, type    : 65535\r", "[CRC:] parse req, id      : 65535\r",
                    "[CRC:] parse req, resv    : 65535\r", "[CRC:] parse req, dataLen : -1\r",
                    "00 - 0b - ff - ff - ff - ff - ff - ff - ff - ff - ff - ff - \r", testing::_));
}

} // namespace
