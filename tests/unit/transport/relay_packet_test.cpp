#include "transport/relay_packet.h"

#include <gmock/gmock.h>
#include <thread>

#include "connected_socket.h"
#include "core/block.h"
#include "support/failing_calls.h"
#include "support/memory_limit.h"

namespace {

const bool isPrivate = private_namespaces();

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;

constexpr char SEND[] = "cloud_socket_send";
constexpr char RECV[] = "cloud_socket_recv";
constexpr char RECV_HEADER[] = "cloud_socket_recv_pkt_hdr";
constexpr int64_t SHORT_MS = 50;

struct RelayPacket : ConnectedSocket {
    // Receives a packet; its bytes are in `received`.
    int receive(int64_t timeout = PATIENCE_MS) {
        uint8_t* bytes = nullptr;
        size_t length = 0;
        int result = cloud_socket_recv(socket, &bytes, &length, timeout);
        return keep(result, bytes, length);
    }

    int receive_header(int64_t timeout = PATIENCE_MS) {
        uint8_t* bytes = nullptr;
        size_t length = 0;
        int result = cloud_socket_recv_pkt_hdr(socket, &bytes, &length, timeout);
        return keep(result, bytes, length);
    }

    int keep(int result, uint8_t* bytes, size_t length) {
        block_ptr block(bytes);
        EXPECT_EQ(bytes != nullptr, result == 0) << "only a success hands a block out";
        received.assign(reinterpret_cast<char*>(bytes), length);
        return result;
    }

    int send(const std::string& bytes) {
        return cloud_socket_send(socket, bytes.data(), bytes.size());
    }

    bool is_unlocked() {
        bool free = pthread_mutex_trylock(&socket->mutex) == 0;
        if (free) {
            pthread_mutex_unlock(&socket->mutex);
        }
        return free;
    }

    std::vector<log_line> lines_of(const std::string& function) const {
        std::vector<log_line> result;
        for (const log_line& line : log.lines()) {
            if (line.function == function) {
                result.push_back(line);
            }
        }
        return result;
    }

    std::string received; // the last packet or header
};

// --- sending ---

TEST_F(RelayPacket, SendPrintsTheHeaderAndSendsThePacket) {
    const packet request = {4, 0x1234, "HTTP/1.0 200 OK\r\n\r\n"};
    EXPECT_EQ(send(packet_bytes(request)), 0);
    EXPECT_EQ(relay.read_packet(), request);
    EXPECT_THAT(log.messages(), AllOf(Contains("[CRC:] parse req, magicNum: 0xB00B\r"),
                                      Contains("[CRC:] parse req, id      : 4660\r"),
                                      Contains("b0 - 0b - 00 - 04 - 12 - 34 - 00 - 00 - 00 - 00 - "
                                               "00 - 13 - \r")));
}

TEST_F(RelayPacket, SendRefusesNullArguments) {
    EXPECT_EQ(cloud_socket_send(nullptr, "x", 1), 100);
    EXPECT_EQ(cloud_socket_send(socket, nullptr, 1), 100);
    auto refusal = error_line(SEND, "Ensure NULL != socket && NULL != buf failed.");
    EXPECT_THAT(log.lines(), ElementsAre(refusal, refusal));
}

TEST_F(RelayPacket, SendOnADisconnectedSocketIsReported) {
    cloud_socket_disconnect(socket);
    log.clear();
    EXPECT_EQ(send(packet_bytes({2, 1, ""})), 9);
    EXPECT_THAT(log.lines(),
                AllOf(Contains(error_line("cloud_socket_send_buf",
                                          "[CRC:] The ssl socket is disconnected")),
                      Contains(error_line(SEND, "[CRC:] socket send error, result:9"))));
    EXPECT_TRUE(is_unlocked());
}

TEST_F(RelayPacket, PacketsOfTwoSendersDoNotMix) {
    constexpr int PACKETS = 20;
    const std::string body(50000, 'b');
    auto sender = [&](uint16_t id) {
        for (int i = 0; i < PACKETS; i++) {
            EXPECT_EQ(send(packet_bytes({4, id, body})), 0);
        }
    };
    std::thread one(sender, uint16_t{1});
    std::thread other(sender, uint16_t{2});
    int counts[3] = {};
    for (int i = 0; i < 2 * PACKETS; i++) {
        packet next = relay.read_packet();
        EXPECT_EQ(next.type, 4);
        EXPECT_TRUE(next.body == body);
        counts[next.id % 3]++;
    }
    one.join();
    other.join();
    EXPECT_THAT(counts, ElementsAre(0, PACKETS, PACKETS));
}

TEST_F(RelayPacket, ASenderWaitsForThePacketThatIsBeingRead) {
    const std::string request = packet_bytes({1, 0, "answer"});
    relay.send(request.substr(0, 5));
    ASSERT_TRUE(relay.is_done());
    std::thread reader([&] { EXPECT_EQ(receive(), 0); });
    EXPECT_TRUE(eventually([&] { return !is_unlocked(); }));
    std::atomic<bool> sent = false;
    std::thread sender([&] {
        EXPECT_EQ(send(packet_bytes({2, 1, ""})), 0);
        sent = true;
    });
    EXPECT_FALSE(eventually([&] { return sent.load(); }, std::chrono::milliseconds(100)));
    relay.send(request.substr(5));
    reader.join();
    sender.join();
    EXPECT_EQ(received, request);
    EXPECT_EQ(relay.read_packet().type, 2);
}

// --- receiving whole packets ---

struct body_case {
    size_t size;
    int buckets;
};

TEST_F(RelayPacket, BodiesAreReadInBuckets) {
    for (const body_case& body : {body_case{1, 1}, body_case{16383, 1}, body_case{16384, 1},
                                  body_case{16385, 2}, body_case{32768, 2}, body_case{100000, 7}}) {
        const std::string bytes = packet_bytes({1, 0x1234, patterned_bytes(body.size), 0xABCD});
        relay.send(bytes);
        log.clear();
        ASSERT_EQ(receive(), 0) << body.size;
        EXPECT_TRUE(received == bytes) << body.size;
        EXPECT_THAT(lines_of(RECV),
                    ElementsAre(info_line(RECV, "[CRC:] Start read. bucketSize 16384, bucketCnt " +
                                                    std::to_string(body.buckets)),
                                info_line(RECV, "[CRC:] Read socket end. dataLen is " +
                                                    std::to_string(body.size) + ".")));
        EXPECT_TRUE(is_unlocked());
    }
}

TEST_F(RelayPacket, APacketWithoutBodyIsTwelveBytes) {
    relay.send(header_bytes(2, 7, 0));
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(received, header_bytes(2, 7, 0));
    EXPECT_THAT(lines_of(RECV),
                ElementsAre(info_line(RECV, "[CRC:] Start read. bucketSize 16384, bucketCnt 0"),
                            info_line(RECV, "[CRC:] Data entity length is zero."),
                            info_line(RECV, "[CRC:] Read socket end. dataLen is 0.")));
}

TEST_F(RelayPacket, AZeroByteFollowsTheBody) {
    relay.send(packet_bytes({1, 0, "{\"err_code\": 0}"}));
    uint8_t* bytes = nullptr;
    size_t length = 0;
    ASSERT_EQ(cloud_socket_recv(socket, &bytes, &length, PATIENCE_MS), 0);
    block_ptr block(bytes);
    EXPECT_EQ(length, 12 + 15u);
    EXPECT_STREQ(reinterpret_cast<char*>(bytes) + 12, "{\"err_code\": 0}");
}

TEST_F(RelayPacket, ReceivePrintsTheHeader) {
    relay.send(packet_bytes({3, 0x1234, "body"}));
    EXPECT_EQ(receive(), 0);
    EXPECT_THAT(log.messages(), Contains("b0 - 0b - 00 - 03 - 12 - 34 - 00 - 00 - 00 - 00 - 00 - "
                                         "04 - \r"));
}

TEST_F(RelayPacket, SeveralPacketsOfOneRecordAreReadOneByOne) {
    const std::string first = packet_bytes({1, 1, "first"});
    const std::string second = packet_bytes({2, 2, ""});
    const std::string third = packet_bytes({5, 3, "third"});
    relay.send(first + second + third);
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(received, first);
    EXPECT_TRUE(cloud_socket_has_buffered_data(socket));
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(received, second);
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(received, third);
    EXPECT_FALSE(cloud_socket_has_buffered_data(socket));
}

TEST_F(RelayPacket, APacketThatComesByteByByteIsWhole) {
    const std::string bytes = packet_bytes({1, 1, "slowly"});
    for (char byte : bytes) {
        relay.send(std::string(1, byte));
    }
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(received, bytes);
}

TEST_F(RelayPacket, ReceiveRefusesNullArguments) {
    uint8_t* bytes = nullptr;
    size_t length = 0;
    EXPECT_EQ(cloud_socket_recv(nullptr, &bytes, &length, 1), 100);
    EXPECT_EQ(cloud_socket_recv(socket, nullptr, &length, 1), 100);
    EXPECT_THAT(log.lines(), ElementsAre(error_line(RECV, "Ensure NULL != socket failed."),
                                         error_line(RECV, "Ensure NULL != buf failed.")));
}

TEST_F(RelayPacket, AWrongMagicNumberIsRefused) {
    for (uint16_t magic : {0x0BB0, 0xB00A, 0x0000, 0xFFFF}) {
        relay.send(header_bytes(1, 0, 0, 0, magic));
        log.clear();
        EXPECT_EQ(receive(), 10);
        char expected[64];
        snprintf(expected, sizeof expected, "[CRC:] Magic number(pkt Header 0x%04X) err.", magic);
        EXPECT_THAT(lines_of(RECV), ElementsAre(error_line(RECV, expected)));
        EXPECT_TRUE(is_unlocked());
    }
}

TEST_F(RelayPacket, NothingWithinTheTimeOutIsAReceiveError) {
    EXPECT_EQ(receive(SHORT_MS), 4);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("cloud_socket_recv_buf", "[CRC:] recv timeout"),
                                         error_line(RECV, "[CRC:] socket recv error, result:-1")));
    EXPECT_TRUE(is_unlocked());
}

TEST_F(RelayPacket, ABodyThatDoesNotComeIsAReceiveError) {
    relay.send(packet_bytes({1, 0, "body"}).substr(0, 14));
    EXPECT_EQ(receive(SHORT_MS), 4);
    EXPECT_THAT(lines_of(RECV), Contains(error_line(RECV, "[CRC:] socket recv error, result:-1")));
    EXPECT_TRUE(is_unlocked());
}

TEST_F(RelayPacket, EachBucketHasTheWholeTimeOut) {
    constexpr int64_t TIMEOUT = 60 * 1000;
    const std::string bytes = packet_bytes({1, 0, patterned_bytes(4 * 16384)});
    moved_clock clock;
    // The reader polls the clock while nothing comes.
    auto poll_seen = [&] {
        int64_t before = clock.readings();
        EXPECT_TRUE(eventually([&] { return clock.readings() > before + 1; }));
    };
    std::thread reader([&] { EXPECT_EQ(receive(TIMEOUT), 0); });
    std::vector<std::string> pieces = {bytes.substr(0, 12)};
    for (size_t at = 12; at < bytes.size(); at += 16384) {
        pieces.push_back(bytes.substr(at, 16384));
    }
    for (const std::string& piece : pieces) {
        poll_seen();
        clock.move(TIMEOUT * 2 / 3);
        poll_seen();
        relay.send(piece);
    }
    reader.join();
    EXPECT_TRUE(received == bytes);
}

TEST_F(RelayPacket, AClosedConnectionIsReported) {
    relay.close_notify();
    EXPECT_EQ(receive(), 9);
    EXPECT_THAT(lines_of(RECV), ElementsAre(info_line(RECV, "[CRC:] socket closed by peer")));
    EXPECT_TRUE(is_unlocked());
    log.clear();
    EXPECT_EQ(receive(), 4); // from now on the socket counts as disconnected
}

TEST_F(RelayPacket, AConnectionClosedWithinTheBodyIsReported) {
    relay.send(packet_bytes({1, 0, "body"}).substr(0, 14));
    relay.close_notify();
    EXPECT_EQ(receive(), 9);
    EXPECT_THAT(lines_of(RECV), Contains(info_line(RECV, "[CRC:] socket closed by peer")));
    EXPECT_TRUE(is_unlocked());
}

TEST_F(RelayPacket, ABucketThatABrokenConnectionLeftShortIsKeptAndTheNextOneFails) {
    relay.send(header_bytes(1, 0, 20000) + std::string(10000, 'x'));
    relay.close();
    EXPECT_EQ(receive(), 9);
    EXPECT_THAT(lines_of(RECV),
                ElementsAre(info_line(RECV, "[CRC:] Start read. bucketSize 16384, bucketCnt 2"),
                            info_line(RECV, "[CRC:] socket closed by peer")));
}

TEST_F(RelayPacket, AShortLastBucketIsAcceptedAndZeroFilled) {
    relay.send(header_bytes(1, 0, 10) + "half!");
    relay.close();
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(received, header_bytes(1, 0, 10) + "half!" + std::string(5, '\0'));
}

TEST_F(RelayPacket, NoMemoryForThePacketIsReported) {
    relay.send(packet_bytes({1, 0, "body"}));
    fail_call failure("calloc");
    EXPECT_EQ(receive(), 101);
    EXPECT_TRUE(failure.happened());
    EXPECT_THAT(lines_of(RECV), ElementsAre(error_line(RECV, "[CRC:] malloc error")));
    EXPECT_TRUE(is_unlocked());
}

#if SIZE_MAX > UINT32_MAX
TEST_F(RelayPacket, AClaimOfFourGigabytesWaitsForItsBytesAtNoCost) {
    if (!calloc_costs_nothing()) {
        GTEST_SKIP() << "the sanitizer writes what calloc gives";
    }
    relay.send(header_bytes(1, 0, 0xFFFFFFFF) + "the only bytes");
    EXPECT_EQ(receive(SHORT_MS), 4);
    EXPECT_THAT(
        lines_of(RECV),
        ElementsAre(info_line(RECV, "[CRC:] Start read. bucketSize 16384, bucketCnt 262144"),
                    error_line(RECV, "[CRC:] socket recv error, result:-1")));
    EXPECT_TRUE(is_unlocked());
}
#else
TEST_F(RelayPacket, AClaimOfFourGigabytesIsRefused) {
    relay.send(header_bytes(1, 0, 0xFFFFFFFF) + "the only bytes");
    EXPECT_EQ(receive(), 101);
    EXPECT_THAT(lines_of(RECV), ElementsAre(error_line(RECV, "[CRC:] malloc error")));
    EXPECT_TRUE(is_unlocked());
}
#endif

TEST_F(RelayPacket, AClaimBeyondTheProcessLimitIsRefused) {
    memory_limit limit;
    if (!limit.works()) {
        GTEST_SKIP() << "the address space cannot be limited under a sanitizer";
    }
    relay.send(header_bytes(1, 0, 0xFFFFFFFF));
    EXPECT_EQ(receive(), 101);
    EXPECT_THAT(lines_of(RECV), ElementsAre(error_line(RECV, "[CRC:] malloc error")));
    relay.send(packet_bytes({1, 0, "next"}));
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(received, packet_bytes({1, 0, "next"}));
}

// --- receiving headers ---

TEST_F(RelayPacket, AHeaderIsReadAndItsBodyLeftOnTheStream) {
    relay.send(packet_bytes({3, 0x1234, "body"}));
    EXPECT_EQ(receive_header(), 0);
    EXPECT_EQ(received, header_bytes(3, 0x1234, 4));
    EXPECT_THAT(log.messages(), Contains("[CRC:] parse req, dataLen : 4\r"));
    char body[5] = {};
    EXPECT_EQ(cloud_socket_recv_buf(socket, body, 4, PATIENCE_MS), 4);
    EXPECT_STREQ(body, "body");
    EXPECT_TRUE(is_unlocked());
}

TEST_F(RelayPacket, AHeadersMagicNumberIsNotLookedAt) {
    relay.send(header_bytes(3, 1, 0, 0, 0x0BB0));
    EXPECT_EQ(receive_header(), 0);
    EXPECT_EQ(received, header_bytes(3, 1, 0, 0, 0x0BB0));
    EXPECT_THAT(log.messages(), Contains("[CRC:] parse req, magicNum: 0x0BB0\r"));
}

TEST_F(RelayPacket, AHeaderLeftShortByABrokenConnectionIsAcceptedAndZeroFilled) {
    relay.send(header_bytes(3, 1, 7).substr(0, 5));
    relay.close();
    EXPECT_EQ(receive_header(), 0);
    EXPECT_EQ(received, header_bytes(3, 1, 7).substr(0, 5) + std::string(7, '\0'));
}

TEST_F(RelayPacket, HeaderRefusesNullArguments) {
    uint8_t* bytes = nullptr;
    size_t length = 0;
    EXPECT_EQ(cloud_socket_recv_pkt_hdr(nullptr, &bytes, &length, 1), 100);
    EXPECT_EQ(cloud_socket_recv_pkt_hdr(socket, nullptr, &length, 1), 100);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line(RECV_HEADER, "Ensure NULL != socket failed."),
                            error_line(RECV_HEADER, "Ensure NULL != pPktHdr failed.")));
}

TEST_F(RelayPacket, NoHeaderWithinTheTimeOutIsAReceiveError) {
    relay.send("\xB0\x0B");
    EXPECT_EQ(receive_header(SHORT_MS), 4);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line("cloud_socket_recv_buf", "[CRC:] recv timeout"),
                            error_line(RECV_HEADER, "[CRC:] socket recv error, result:-1")));
    EXPECT_TRUE(is_unlocked());
}

TEST_F(RelayPacket, AConnectionClosedBeforeAHeaderIsReported) {
    relay.close_notify();
    EXPECT_EQ(receive_header(), 9);
    EXPECT_THAT(lines_of(RECV_HEADER),
                ElementsAre(info_line(RECV_HEADER, "[CRC:] socket closed by peer")));
    EXPECT_TRUE(is_unlocked());
}

TEST_F(RelayPacket, NoMemoryForAHeaderIsReported) {
    fail_call failure("malloc");
    EXPECT_EQ(receive_header(), 101);
    EXPECT_TRUE(failure.happened());
    EXPECT_THAT(log.lines(), ElementsAre(error_line(RECV_HEADER, "[CRC:] malloc error")));
    EXPECT_TRUE(is_unlocked());
}

} // namespace
