// Sending and receiving over a connected cloud socket, and its end.

#include <atomic>
#include <chrono>
#include <csignal>
#include <gmock/gmock.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>

#include "connected_socket.h"
#include "support/failing_calls.h"
#include "support/forced_tls.h"
#include "support/worker_wishes.h"

namespace {

const bool isPrivate = private_namespaces();

using testing::Contains;
using testing::ElementsAre;
using testing::MatchesRegex;
using testing::StartsWith;
using clock_type = std::chrono::steady_clock;

constexpr char RECV[] = "cloud_socket_recv_buf";
constexpr char SEND[] = "cloud_socket_send_buf";
constexpr char DISCONNECT[] = "cloud_socket_disconnect";

int64_t ms_since(clock_type::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(clock_type::now() - start).count();
}

// --- sending ---

TEST_F(ConnectedSocket, SendsBytesOfAnyKindInOrder) {
    const std::string bytes = patterned_bytes(100000);
    EXPECT_EQ(send("first"), 0);
    EXPECT_EQ(send(bytes), 0);
    EXPECT_EQ(relay.read_exact(5), "first");
    EXPECT_EQ(relay.read_exact(bytes.size()), bytes);
}

TEST_F(ConnectedSocket, WaitsForAPeerThatReadsSlowly) {
    const std::string bytes = patterned_bytes(16 * 1024 * 1024); // more than any buffer holds
    std::string received;
    std::thread reader([&] { received = relay.read_exact(bytes.size()); });
    EXPECT_EQ(send(bytes), 0);
    reader.join();
    EXPECT_TRUE(received == bytes);
}

TEST_F(ConnectedSocket, SendRefusesNullArguments) {
    EXPECT_EQ(cloud_socket_send_buf(nullptr, "x", 1), 100);
    EXPECT_EQ(cloud_socket_send_buf(socket, nullptr, 1), 100);
    auto refusal = error_line(SEND, "Ensure NULL != socket && NULL != buf failed.");
    EXPECT_THAT(log.lines(), ElementsAre(refusal, refusal));
}

TEST_F(CloudSocket, SendOnADisconnectedSocketIsRefused) {
    EXPECT_EQ(cloud_socket_send_buf(socket, "x", 1), 9);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line(SEND, "[CRC:] The ssl socket is disconnected")));
}

TEST_F(ConnectedSocket, SendAfterThePeersGoodbyeFindsTheSocketDisconnected) {
    relay.close_notify();
    EXPECT_EQ(receive(1), "");
    EXPECT_EQ(send("x"), 9);
    EXPECT_THAT(log.lines(), Contains(error_line(SEND, "[CRC:] The ssl socket is disconnected")));
}

TEST_F(ConnectedSocket, AVanishedPeerNeitherRaisesSigpipeNorFailsTheSend) {
    ASSERT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL); // one would end this process
    relay.reset();
    ASSERT_TRUE(relay.is_done());
    ASSERT_TRUE(becomes_readable());
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(send("lost"), 0);
    }
    cloud_socket_disconnect(socket); // says goodbye to nobody
    EXPECT_TRUE(is_closed());
}

// Stuck in the middle of a packet, of which nothing can follow: TLS waits for what only a read
// would take, or has no memory.
TEST_F(ConnectedSocket, AWriteThatCannotGoOnDisconnectsTheSocket) {
    for (int error : {TLS_WANT_READ, TLS_NO_MEMORY}) {
        forced_tls write("wolfSSL_write", -1, error);
        EXPECT_EQ(send("lost"), 9) << error;
        EXPECT_THAT(log.lines(),
                    ElementsAre(error_line(SEND, "[CRC:] The socket is disconnected, result:-1")));
        EXPECT_EQ(socket->status, CLOUD_SOCKET_DISCONNECTED);
        EXPECT_EQ(send("later"), 9);
        EXPECT_EQ(write.count(), 1);
        cloud_socket_disconnect(socket);
        meet();
    }
}

TEST_F(ConnectedSocket, AnyOtherWriteErrorCountsAsSuccess) {
    for (int error : {TLS_SOCKET_ERROR, -1, 1}) {
        forced_tls write("wolfSSL_write", -1, error, 1);
        EXPECT_EQ(send("lost"), 0) << error;
        EXPECT_EQ(write.count(), 1);
        EXPECT_EQ(socket->status, CLOUD_SOCKET_CONNECTED);
    }
    EXPECT_EQ(send("sent"), 0);
    EXPECT_EQ(relay.read_exact(4), "sent");
    EXPECT_THAT(log.lines(), ElementsAre());
}

// --- how packets leave ---

bool is_corked(const cloud_socket_t* socket) {
    int corked = -1;
    socklen_t size = sizeof corked;
    EXPECT_EQ(getsockopt(socket->sockfd, IPPROTO_TCP, TCP_CORK, &corked, &size), 0);
    return corked != 0;
}

// Segments with data that left the socket so far.
unsigned segments_sent(const cloud_socket_t* socket) {
    tcp_info info = {};
    socklen_t size = sizeof info;
    EXPECT_EQ(getsockopt(socket->sockfd, IPPROTO_TCP, TCP_INFO, &info, &size), 0);
    EXPECT_GT(size, offsetof(tcp_info, tcpi_data_segs_out));
    return info.tcpi_data_segs_out;
}

TEST_F(ConnectedSocket, RecordsOfALargePacketShareSegments) {
    constexpr unsigned RECORDS = 64;
    constexpr unsigned FEW_SEGMENTS = 40; // of 64 KiB on loopback; about 20 for these records
    const std::string bytes = patterned_bytes(RECORDS * 16384);
    unsigned before = segments_sent(socket);
    std::string received;
    std::thread reader([&] { received = relay.read_exact(bytes.size()); });
    EXPECT_EQ(send(bytes), 0);
    reader.join();
    EXPECT_TRUE(received == bytes);
    EXPECT_LT(segments_sent(socket) - before, FEW_SEGMENTS);
}

TEST_F(ConnectedSocket, APacketAbove16KiBIsCorkedForTheTimeOfItsWrite) {
    for (size_t size : {16384, 16385}) {
        worker_wishes wishes;
        forced_tls write("wolfSSL_write", -1, TLS_WANT_WRITE);
        std::atomic<bool> ended = false;
        std::thread writer([&] {
            wishes.adopt();
            send(std::string(size, 'x'));
            ended = true;
        });
        EXPECT_TRUE(eventually([&] { return write.count() > 0; }));
        EXPECT_EQ(is_corked(socket), size > 16384);
        wishes.letGo = 1;
        moved_clock clock;
        EXPECT_TRUE(eventually([&] {
            clock.move(2001); // what a write that goes nowhere still gets
            return ended.load();
        }));
        writer.join();
        EXPECT_FALSE(is_corked(socket));
        cloud_socket_disconnect(socket);
        meet();
    }
}

TEST_F(ConnectedSocket, TheCorkIsTakenOutWhateverBecomesOfTheWrite) {
    EXPECT_EQ(send(std::string(16385, 'x')), 0);
    EXPECT_FALSE(is_corked(socket));
    for (int error : {TLS_SOCKET_ERROR, TLS_NO_MEMORY}) {
        forced_tls write("wolfSSL_write", -1, error, 1);
        send(std::string(16385, 'x'));
        EXPECT_FALSE(is_corked(socket)) << error;
    }
}

// --- receiving ---

TEST_F(ConnectedSocket, ReceivesExactlyWhatIsAskedFor) {
    relay.send("hello, device");
    EXPECT_EQ(receive(5), "hello");
    EXPECT_EQ(receive(8), ", device");
}

TEST_F(ConnectedSocket, ReceivesWhatSpansManyRecords) {
    const std::string bytes = patterned_bytes(100000);
    relay.send(bytes);
    EXPECT_TRUE(receive(bytes.size()) == bytes);
}

TEST_F(ConnectedSocket, ReceivesFromOneRecordInSeveralReads) {
    relay.send("first second third ");
    EXPECT_EQ(receive(6), "first ");
    EXPECT_TRUE(cloud_socket_has_buffered_data(socket));
    // Nothing is left on the descriptor itself.
    EXPECT_EQ(wait_descriptor(socket->sockfd, wait_for::reading, 0), 0);
    EXPECT_EQ(receive(7), "second ");
    EXPECT_TRUE(cloud_socket_has_buffered_data(socket));
    EXPECT_EQ(receive(5), "third");
    EXPECT_TRUE(cloud_socket_has_buffered_data(socket)) << "one byte";
    EXPECT_EQ(receive(1), " ");
    EXPECT_FALSE(cloud_socket_has_buffered_data(socket));
}

TEST_F(ConnectedSocket, ReceiveRefusesNullArguments) {
    char byte = 0;
    EXPECT_EQ(cloud_socket_recv_buf(nullptr, &byte, 1, 1), 100);
    EXPECT_EQ(cloud_socket_recv_buf(socket, nullptr, 1, 1), 100);
    auto refusal = error_line(RECV, "Ensure NULL != socket && NULL != buf failed.");
    EXPECT_THAT(log.lines(), ElementsAre(refusal, refusal));
}

TEST_F(CloudSocket, ReceiveOnADisconnectedSocketIsRefused) {
    char byte = 0;
    EXPECT_EQ(cloud_socket_recv_buf(socket, &byte, 1, 5000), -1);
    EXPECT_THAT(log.lines(), ElementsAre(info_line(RECV, "[CRC:] The ssl socket is disconnected")));
}

TEST_F(ConnectedSocket, ReceiveTimesOutWhenNothingComes) {
    char byte = 0;
    auto start = clock_type::now();
    EXPECT_EQ(cloud_socket_recv_buf(socket, &byte, 1, 100), -1);
    EXPECT_GE(ms_since(start), 99);
    EXPECT_THAT(log.lines(), ElementsAre(error_line(RECV, "[CRC:] recv timeout")));
    EXPECT_EQ(socket->status, CLOUD_SOCKET_CONNECTED);
}

TEST_F(ConnectedSocket, TheTimeOutCountsFromTheCallsStartNotFromTheLastBytes) {
    constexpr int64_t TIMEOUT = 60 * 1000;
    constexpr int PIECES = 4;
    moved_clock clock;
    int64_t readingsBefore = clock.readings();
    std::atomic<bool> ended = false;
    int result = 0;
    std::thread reader([&] {
        char bytes[100];
        result = cloud_socket_recv_buf(socket, bytes, sizeof bytes, TIMEOUT);
        ended = true;
    });
    EXPECT_TRUE(eventually([&] { return clock.readings() > readingsBefore; }));
    // Each piece comes well within the time-out of the one before.
    for (int piece = 0; piece < PIECES; piece++) {
        relay.send("x");
        clock.move(TIMEOUT / 3);
    }
    EXPECT_TRUE(eventually([&] { return ended.load(); }));
    reader.join();
    EXPECT_EQ(result, -1);
}

TEST_F(ConnectedSocket, AClosedPeerReadsAsZeroAndDisconnectsTheSocket) {
    relay.send("last");
    relay.close_notify();
    EXPECT_EQ(receive(4), "last");
    char byte = 0;
    EXPECT_EQ(cloud_socket_recv_buf(socket, &byte, 1, PATIENCE_MS), 0);
    EXPECT_THAT(log.lines(),
                ElementsAre(info_line(RECV, "[CRC:] the socket is disconnected, result:0")));
    EXPECT_EQ(socket->status, CLOUD_SOCKET_DISCONNECTED);
    // All else stays until the disconnect.
    EXPECT_NE(socket->sockfd, -1);
    EXPECT_NE(socket->SSL, nullptr);
    EXPECT_NE(socket->CTX, nullptr);
}

TEST_F(ConnectedSocket, ABrokenConnectionGivesWhatCameBefore) {
    for (bool withReset : {false, true}) {
        relay.send("half");
        ASSERT_TRUE(relay.is_done());
        char bytes[10] = {};
        ASSERT_EQ(cloud_socket_recv_buf(socket, bytes, 2, PATIENCE_MS), 2);
        withReset ? relay.reset() : relay.close();
        ASSERT_TRUE(relay.is_done());
        EXPECT_EQ(cloud_socket_recv_buf(socket, bytes, sizeof bytes, PATIENCE_MS), 2);
        EXPECT_THAT(log.lines(),
                    ElementsAre(error_line(
                        RECV, MatchesRegex("\\[CRC:\\] the socket read err, nread:-?[0-9]+"))));
        EXPECT_EQ(socket->status, CLOUD_SOCKET_CONNECTED);
        cloud_socket_disconnect(socket);
        meet();
    }
}

TEST_F(ConnectedSocket, BytesOutsideOfTlsBreakTheConnection) {
    relay.send_raw("this is no record");
    char byte = 0;
    EXPECT_EQ(cloud_socket_recv_buf(socket, &byte, 1, PATIENCE_MS), 0);
    EXPECT_THAT(log.messages(RECV), ElementsAre(StartsWith("[CRC:] the socket read err, nread:")));
}

TEST_F(ConnectedSocket, AReadThatMustWriteFirstWaitsLikeAnyOther) {
    relay.send("x");
    forced_tls read("wolfSSL_read", -1, TLS_WANT_WRITE, 3);
    EXPECT_EQ(receive(1), "x");
    EXPECT_EQ(read.count(), 3);
    EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_F(ConnectedSocket, AReadThatMustWriteFirstEndsAtItsTimeOut) {
    relay.send("x");
    forced_tls read("wolfSSL_read", -1, TLS_WANT_WRITE);
    char byte = 0;
    EXPECT_EQ(cloud_socket_recv_buf(socket, &byte, 1, 50), -1);
    EXPECT_THAT(log.lines(), ElementsAre(error_line(RECV, "[CRC:] recv timeout")));
    EXPECT_EQ(socket->status, CLOUD_SOCKET_CONNECTED);
}

// --- what a readable descriptor means ---

TEST_F(ConnectedSocket, ApplicationDataIsData) {
    relay.send("x");
    ASSERT_TRUE(becomes_readable());
    EXPECT_EQ(cloud_socket_look(socket), tls_data::some);
    EXPECT_EQ(cloud_socket_look(socket), tls_data::some); // looking takes nothing
    EXPECT_EQ(receive(1), "x");
}

TEST_F(ConnectedSocket, TheEndOfTheConnectionIsData) {
    relay.close_notify();
    ASSERT_TRUE(becomes_readable());
    EXPECT_EQ(cloud_socket_look(socket), tls_data::some);
    EXPECT_EQ(receive(1), "");
    EXPECT_EQ(socket->status, CLOUD_SOCKET_DISCONNECTED);
}

TEST_F(ConnectedSocket, ABrokenConnectionIsData) {
    for (bool withReset : {false, true}) {
        withReset ? relay.reset() : relay.close();
        ASSERT_TRUE(becomes_readable());
        EXPECT_EQ(cloud_socket_look(socket), tls_data::some);
        EXPECT_EQ(receive(1), "");
        cloud_socket_disconnect(socket);
        meet();
    }
}

TEST_F(ConnectedSocket, ASessionTicketIsNoData) {
    relay.send_ticket();
    ASSERT_TRUE(becomes_readable());
    EXPECT_EQ(cloud_socket_look(socket), tls_data::none);
    EXPECT_EQ(wait_descriptor(socket->sockfd, wait_for::reading, 0), 0);
    relay.send("after");
    EXPECT_EQ(receive(5), "after");
}

TEST_F(CloudSocket, SessionTicketsRightAfterTheHandshakeAreReadOver) {
    tls_peer relay({.version = TLS1_3, .tickets = 2});
    relay.accept();
    ASSERT_EQ(connect(relay.port()), 0);
    relay.send("x");
    char byte = 0;
    EXPECT_EQ(cloud_socket_recv_buf(socket, &byte, 1, PATIENCE_MS), 1);
    EXPECT_EQ(byte, 'x');
}

TEST_F(ConnectedSocket, AKeyUpdateIsNoDataAndTheConnectionGoesOn) {
    for (bool both : {false, true}) {
        relay.update_keys(both);
        ASSERT_TRUE(becomes_readable());
        EXPECT_EQ(cloud_socket_look(socket), tls_data::none);
        EXPECT_EQ(send("to the relay"), 0);
        EXPECT_EQ(relay.read_exact(12), "to the relay");
        relay.send("to the device");
        EXPECT_EQ(receive(13), "to the device");
    }
}

TEST_F(ConnectedSocket, DataBehindATicketAndAKeyUpdateIsData) {
    relay.send_ticket();
    relay.update_keys(true);
    relay.send("x");
    ASSERT_TRUE(relay.is_done());
    EXPECT_TRUE(eventually([&] { return cloud_socket_look(socket) == tls_data::some; }));
    EXPECT_EQ(receive(1), "x");
}

TEST_F(ConnectedSocket, HalfARecordIsNoData) {
    relay.send_part("whole", 9);
    ASSERT_TRUE(becomes_readable());
    EXPECT_EQ(cloud_socket_look(socket), tls_data::none);
    relay.send_rest();
    EXPECT_TRUE(eventually([&] { return cloud_socket_look(socket) == tls_data::some; }));
    EXPECT_EQ(receive(5), "whole");
}

TEST_F(ConnectedSocket, DataBehindSomethingToBeWrittenIsBlocked) {
    relay.send("x");
    ASSERT_TRUE(becomes_readable());
    {
        forced_tls peek("wolfSSL_peek", -1, TLS_WANT_WRITE);
        EXPECT_EQ(cloud_socket_look(socket), tls_data::blocked);
    }
    EXPECT_EQ(cloud_socket_look(socket), tls_data::some);
}

// --- disconnecting ---

TEST_F(ConnectedSocket, DisconnectSaysGoodbyeAndClosesEverything) {
    cloud_socket_disconnect(socket);
    EXPECT_TRUE(relay.is_closed_in_order());
    EXPECT_TRUE(is_closed());
    EXPECT_THAT(log.lines(),
                ElementsAre(info_line(DISCONNECT, "[CRC:] begin to disconnect the socket"),
                            info_line(DISCONNECT, "[CRC:] Shut down and free the SSL."),
                            info_line(DISCONNECT, "[CRC:] Free the CTX."),
                            info_line(DISCONNECT, "[CRC:] Close the socket."),
                            info_line(DISCONNECT, "[CRC:] Disconnect the socket ok.")));
}

TEST_F(ConnectedSocket, DisconnectIsSafeToRepeatAndBeforeAnyConnect) {
    cloud_socket_disconnect(socket);
    log.clear();
    cloud_socket_disconnect(socket);
    EXPECT_THAT(log.lines(),
                ElementsAre(info_line(DISCONNECT, "[CRC:] begin to disconnect the socket"),
                            info_line(DISCONNECT, "[CRC:] Disconnect the socket ok.")));
    EXPECT_TRUE(is_closed());
}

TEST_F(CloudSocket, DisconnectOfNullIsOnlyLogged) {
    cloud_socket_disconnect(nullptr);
    EXPECT_THAT(log.lines(), ElementsAre(error_line(DISCONNECT, "Ensure NULL != socket failed.")));
}

// --- being given up by another thread ---

TEST_F(ConnectedSocket, AReadStopsWaitingWhenItsWorkerIsLetGo) {
    constexpr int64_t AN_HOUR = 3600 * 1000;
    moved_clock clock;
    int64_t readingsBefore = clock.readings();
    worker_wishes wishes;
    int result = 0;
    std::thread reader([&] {
        wishes.adopt();
        char byte = 0;
        result = cloud_socket_recv_buf(socket, &byte, 1, AN_HOUR);
    });
    EXPECT_TRUE(eventually([&] { return clock.readings() > readingsBefore + 1; })) << "it waits";
    wishes.letGo = 1;
    reader.join();
    EXPECT_EQ(result, -1);
    EXPECT_THAT(log.messages(), ElementsAre("[CRC:] recv timeout"));
}

TEST_F(ConnectedSocket, AWorkerThatIsLetGoNeitherReadsNorWrites) {
    relay.send("x");
    ASSERT_TRUE(becomes_readable());
    worker_wishes wishes;
    wishes.adopt();
    wishes.letGo = 1;
    EXPECT_EQ(receive(1), "");
    EXPECT_EQ(send("y"), 9);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line(RECV, "[CRC:] recv timeout"),
                            error_line(SEND, "[CRC:] The ssl socket is disconnected")));
    cloud_socket_disconnect(socket);
    EXPECT_TRUE(is_closed());
    EXPECT_TRUE(relay.is_closed_in_order()); // and nothing came before
}

} // namespace
