// Sending and receiving over a connected cloud socket, and its end.

#include <chrono>
#include <csignal>
#include <gmock/gmock.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <thread>

#include "connected_socket.h"
#include "support/failing_calls.h"
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
    EXPECT_EQ(receive(6), "third ");
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

// A connected socket with a write under way, on a thread of its own, that the peer does not take.
struct StalledWrite : ConnectedSocket {
    StalledWrite() {
        writer = std::thread([this] {
            wishes.adopt();
            result = send(bytes);
            ended = true;
        });
        EXPECT_TRUE(eventually([this] {
            int unsent = 0;
            return ioctl(socket->sockfd, SIOCOUTQ, &unsent) == 0 && unsent > 100000;
        }));
    }

    int outcome() {
        EXPECT_TRUE(eventually([&] { return ended.load(); }));
        writer.join();
        return result;
    }

    const std::string bytes = std::string(64 * 1024 * 1024, 'x'); // more than any buffer holds
    worker_wishes wishes;
    std::atomic<bool> ended = false;
    int result = 0;
    std::thread writer;
};

TEST_F(StalledWrite, IsGivenUpWhenItsWorkerIsLetGo) {
    wishes.letGo = 1;
    EXPECT_EQ(outcome(), 9);
    EXPECT_EQ(socket->status, CLOUD_SOCKET_DISCONNECTED);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line(SEND, StartsWith("[CRC:] The socket is disconnected"))));
}

TEST_F(StalledWrite, IsGivenUpWhenTheSessionIsToEnd) {
    wishes.stop = 1;
    EXPECT_EQ(outcome(), 9);
    EXPECT_EQ(socket->status, CLOUD_SOCKET_DISCONNECTED);
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
