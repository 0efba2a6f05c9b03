#include "transport/cloud_socket.h"

#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <thread>

#include "connected_socket.h"
#include "support/eventually.h"
#include "support/failing_calls.h"
#include "support/forced_tls.h"
#include "support/high_descriptors.h"
#include "support/tcp.h"
#include "support/worker_wishes.h"

namespace {

const bool isPrivate = private_namespaces();

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;
using clock_type = std::chrono::steady_clock;

constexpr char CONNECT[] = "cloud_socket_connect";
constexpr char DISCONNECT[] = "cloud_socket_disconnect";

int64_t ms_since(clock_type::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(clock_type::now() - start).count();
}

// --- creation and release ---

TEST_F(CloudSocket, StartsClosedWithTheFixedCertificatePath) {
    cloud_socket_t* fresh = cloud_socket_init();
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(fresh->status, 0);
    EXPECT_EQ(fresh->sockfd, -1);
    EXPECT_EQ(fresh->CTX, nullptr);
    EXPECT_EQ(fresh->SSL, nullptr);
    EXPECT_STREQ(fresh->cerFile, "/etc/cloud-sdk/velmora-root-CA.pem");
    EXPECT_EQ(pthread_mutex_trylock(&fresh->mutex), 0);
    pthread_mutex_unlock(&fresh->mutex);
    cloud_socket_destroy(fresh);
}

TEST_F(CloudSocket, IsNotMadeInPartWhenMemoryIsShort) {
    for (int nth : {1, 2}) {
        log.clear();
        fail_call failure("malloc", nth);
        EXPECT_EQ(cloud_socket_init(), nullptr);
        EXPECT_TRUE(failure.happened());
        EXPECT_THAT(log.lines(), ElementsAre(error_line("cloud_socket_init",
                                                        "[CRC:] cloud socket malloc error")));
    }
}

TEST_F(CloudSocket, DestroyDisconnectsAndReleases) {
    tls_peer relay;
    relay.accept();
    ASSERT_EQ(connect(relay.port()), 0);
    int fd = socket->sockfd;
    log.clear();
    cloud_socket_destroy(socket);
    socket = nullptr;
    EXPECT_TRUE(relay.is_closed_in_order());
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_THAT(log.lines(),
                ElementsAre(info_line(DISCONNECT, "[CRC:] begin to disconnect the socket"),
                            info_line(DISCONNECT, "[CRC:] Shut down and free the SSL."),
                            info_line(DISCONNECT, "[CRC:] Free the CTX."),
                            info_line(DISCONNECT, "[CRC:] Close the socket."),
                            info_line(DISCONNECT, "[CRC:] Disconnect the socket ok."),
                            info_line("cloud_socket_destroy", "[CRC:] End cloud socket destroy")));
}

TEST_F(CloudSocket, DestroyOfNullIsOnlyLogged) {
    cloud_socket_destroy(nullptr);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line("cloud_socket_destroy", "Ensure NULL != socket failed.")));
}

// --- connecting ---

struct TlsVersion : CloudSocket, testing::WithParamInterface<int> {};

TEST_P(TlsVersion, IsSpoken) {
    tls_peer relay({.version = GetParam()});
    relay.accept();
    EXPECT_EQ(connect(relay.port()), 0);
    EXPECT_EQ(relay.version(), GetParam() == TLS1_2 ? "TLSv1.2" : "TLSv1.3");
    EXPECT_EQ(cloud_socket_send_buf(socket, "ping", 4), 0);
    EXPECT_EQ(relay.read_exact(4), "ping");
    relay.send("pong");
    char answer[5] = {};
    EXPECT_EQ(cloud_socket_recv_buf(socket, answer, 4, PATIENCE_MS), 4);
    EXPECT_STREQ(answer, "pong");
}

INSTANTIATE_TEST_SUITE_P(Tls, TlsVersion, testing::Values(TLS1_2, TLS1_3), [](const auto& version) {
    return version.param == TLS1_2 ? "OnePointTwo" : "OnePointThree";
});

TEST_F(CloudSocket, ConnectTellsItsSteps) {
    tls_peer relay;
    relay.accept();
    std::string place = "127.0.0.1, port ";
    EXPECT_EQ(connect(relay.port()), 0);
    EXPECT_TRUE(relay.is_connected());
    std::string port = std::to_string(relay.port());
    EXPECT_THAT(
        log.lines(),
        ElementsAre(
            info_line(CONNECT, "[CRC:] connect socket. use IP 127.0.0.1, port " + port + "."),
            info_line(CONNECT, "[CRC:] begin to connect the socket, ip:127.0.0.1, port:" + port),
            info_line("connect_nonblock", "[CRC:] tcp connect to the server success"),
            info_line(CONNECT, "[CRC:] socket connect select device successfully\n "),
            info_line(CONNECT, MatchesRegex("\\[CRC:\\] ctx:0x[0-9a-f]+, cerfile:" +
                                            scratch_path("root.pem"))),
            info_line(CONNECT,
                      "[CRC:] SSL connect to the server success, ip:127.0.0.1, port:" + port)));
    EXPECT_EQ(socket->status, CLOUD_SOCKET_CONNECTED);
    EXPECT_GE(socket->sockfd, 0);
    EXPECT_NE(socket->CTX, nullptr);
    EXPECT_NE(socket->SSL, nullptr);
}

TEST_F(CloudSocket, AConnectedSocketIsNonBlockingUnbufferedAndNoticesAStalledPeer) {
    tls_peer relay;
    relay.accept();
    ASSERT_EQ(connect(relay.port()), 0);
    EXPECT_NE(fcntl(socket->sockfd, F_GETFL) & O_NONBLOCK, 0);
    int value = 0;
    socklen_t size = sizeof value;
    getsockopt(socket->sockfd, IPPROTO_TCP, TCP_NODELAY, &value, &size);
    EXPECT_NE(value, 0);
    getsockopt(socket->sockfd, IPPROTO_TCP, TCP_USER_TIMEOUT, &value, &size);
    EXPECT_EQ(value, 180000);
}

TEST_F(CloudSocket, ConnectOnAConnectedSocketSucceedsAndTouchesNothing) {
    tls_peer relay;
    relay.accept();
    ASSERT_EQ(connect(relay.port()), 0);
    int fd = socket->sockfd;
    WOLFSSL* session = socket->SSL;
    log.clear();
    EXPECT_EQ(cloud_socket_connect(socket, "192.0.2.1", 1, 1), 0);
    EXPECT_THAT(log.lines(),
                ElementsAre(info_line(CONNECT, "[CRC:] connect socket. use IP 192.0.2.1, port 1."),
                            info_line(CONNECT, "[CRC:] the ssl socket already connected")));
    EXPECT_EQ(socket->sockfd, fd);
    EXPECT_EQ(socket->SSL, session);
}

TEST_F(CloudSocket, ConnectsAnewAfterADisconnect) {
    tls_peer relay;
    for (int round = 0; round < 3; round++) {
        relay.accept();
        EXPECT_EQ(connect(relay.port()), 0);
        EXPECT_TRUE(relay.is_connected());
        cloud_socket_disconnect(socket);
    }
}

TEST_F(CloudSocket, ConnectRefusesNullArguments) {
    EXPECT_EQ(cloud_socket_connect(nullptr, "127.0.0.1", 443, 5000), 100);
    EXPECT_EQ(cloud_socket_connect(socket, nullptr, 443, 5000), 100);
    auto refusal = error_line(CONNECT, "Ensure NULL != cloudSocket && NULL != ip failed.");
    EXPECT_THAT(log.lines(), ElementsAre(refusal, refusal));
}

TEST_F(CloudSocket, ConnectRefusesPortsThatAreNone) {
    for (int port : {0, 65536, -1, 65536 + 443}) {
        log.clear();
        EXPECT_EQ(connect(port), 100);
        EXPECT_THAT(log.lines(),
                    ElementsAre(error_line(CONNECT, "Ensure (0 < port) && (65536 > port) "
                                                    "failed.")));
    }
}

TEST_F(CloudSocket, ConnectAcceptsTheFirstAndTheLastPort) {
    for (int port : {1, 65535}) {
        tls_peer relay({.listener = listen_at("127.0.0.1", port)});
        relay.accept();
        EXPECT_EQ(connect(port), 0);
        EXPECT_TRUE(relay.is_connected());
        cloud_socket_disconnect(socket);
    }
}

TEST_F(CloudSocket, AHostNameIsNoAddress) {
    EXPECT_EQ(cloud_socket_connect(socket, "relay.example", 443, 5000), -1);
    EXPECT_THAT(log.lines(), Contains(error_line(CONNECT, "[CRC:] inet_aton error")));
    EXPECT_THAT(log.lines(), Not(Contains(error_line(CONNECT, HasSubstr("select device")))))
        << "a connect was tried";
    EXPECT_THAT(log.lines(), Contains(error_line(CONNECT, "[CRC:] Fail to connect the server, "
                                                          "ip:relay.example, port:443")));
    EXPECT_TRUE(is_closed());
}

TEST_F(CloudSocket, ARefusedConnectIsReportedWithItsErrno) {
    int port = refusing_port();
    EXPECT_EQ(connect(port), -1);
    EXPECT_THAT(log.lines(),
                AllOf(Contains(error_line(CONNECT, "[CRC:] socket connect select device failed, "
                                                   "errno:" +
                                                       std::to_string(ECONNREFUSED) + "\n")),
                      Contains(error_line(CONNECT, "[CRC:] Fail to connect the server, "
                                                   "ip:127.0.0.1, port:" +
                                                       std::to_string(port)))));
    EXPECT_THAT(log.messages().back(), "[CRC:] Disconnect the socket ok.");
    EXPECT_TRUE(is_closed());
}

TEST_F(CloudSocket, ATimeOutBelowOneConnectsNowhere) {
    tls_peer relay;
    relay.accept();
    EXPECT_EQ(connect(relay.port(), 0), -1);
    EXPECT_THAT(log.messages(), Contains("[CRC:] parameter error"));
    EXPECT_TRUE(is_closed());
}

TEST_F(CloudSocket, WithoutADescriptorNothingIsConnected) {
    fail_call failure("socket");
    EXPECT_EQ(connect(443), -1);
    EXPECT_TRUE(failure.happened());
    EXPECT_THAT(log.lines(), Contains(error_line(CONNECT, "[CRC:] create socket error, error: Too "
                                                          "many open files")));
    EXPECT_TRUE(is_closed());
}

struct tls_failure {
    const char* call;
    const char* message;
};

TEST_F(CloudSocket, TlsThatCannotBeSetUpLeavesNothingOpen) {
    const tls_failure FAILURES[] = {
        {"wolfSSL_CTX_new", "[CRC:] create SSL_CTX error"},
        {"wolfSSL_new", "[CRC:] create SSL error"},
        {"wolfSSL_set_fd", "[CRC:] set ssl fd error"},
    };
    for (const tls_failure& step : FAILURES) {
        tls_peer relay;
        relay.accept();
        log.clear();
        fail_call failure(step.call);
        EXPECT_EQ(connect(relay.port()), -1) << step.call;
        EXPECT_TRUE(failure.happened()) << step.call;
        EXPECT_THAT(log.lines(), Contains(error_line(CONNECT, step.message)));
        EXPECT_THAT(log.lines(), Not(Contains(error_line(CONNECT, HasSubstr("ssl connect")))))
            << "a handshake was tried";
        EXPECT_TRUE(is_closed()) << step.call;
        EXPECT_FALSE(relay.is_connected());
    }
}

// --- whom it trusts ---

TEST_F(CloudSocket, AMissingCaFileIsLoggedAndVerificationFailsInTheHandshake) {
    remove_file(scratch_path("root.pem"));
    tls_peer relay;
    relay.accept();
    EXPECT_EQ(connect(relay.port()), -1);
    EXPECT_THAT(log.lines(),
                Contains(error_line(CONNECT, StartsWith("[CRC:] load cer file error, result:"))));
    EXPECT_THAT(log.lines(),
                Contains(error_line(CONNECT, MatchesRegex("\\[CRC:\\] ssl connect error, err: "
                                                          "-[0-9]+"))));
    EXPECT_FALSE(relay.is_connected());
    EXPECT_TRUE(is_closed());
}

TEST_F(CloudSocket, ACaFileWithoutACertificateTrustsNobody) {
    for (const char* text : {"", "no certificate\n"}) {
        trust(text);
        log.clear();
        tls_peer relay;
        relay.accept();
        EXPECT_EQ(connect(relay.port()), -1);
        EXPECT_THAT(log.messages(CONNECT),
                    Contains(StartsWith("[CRC:] load cer file error, result:")));
        EXPECT_FALSE(relay.is_connected());
        EXPECT_TRUE(is_closed());
    }
}

struct WrongAuthority : CloudSocket, testing::WithParamInterface<int> {};

TEST_P(WrongAuthority, OfTheSameNameIsNotTrusted) {
    const certificates other = make_certificates();
    tls_peer relay({.identity = &other, .version = GetParam()});
    relay.accept();
    EXPECT_EQ(connect(relay.port()), -1);
    EXPECT_FALSE(relay.is_connected() && !relay.is_at_end());
    EXPECT_THAT(log.messages(CONNECT), Contains(StartsWith("[CRC:] ssl connect error, err: -")));
    EXPECT_TRUE(is_closed());
}

INSTANTIATE_TEST_SUITE_P(Tls, WrongAuthority, testing::Values(TLS1_2, TLS1_3),
                         [](const auto& version) {
                             return version.param == TLS1_2 ? "OnePointTwo" : "OnePointThree";
                         });

// --- a handshake that comes to nothing ---

TEST_F(CloudSocket, AHandshakeThatNobodyAnswersEndsAfterSevenTimesTheTimeOut) {
    constexpr int64_t TIMEOUT = 100;
    tls_peer relay;
    relay.accept_tcp();
    auto start = clock_type::now();
    EXPECT_EQ(connect(relay.port(), TIMEOUT), -1);
    EXPECT_GE(ms_since(start), 7 * TIMEOUT - 10);
    EXPECT_THAT(log.lines(), Contains(error_line(CONNECT, "[CRC:] ssl connect timeout")));
    EXPECT_TRUE(is_closed());
}

TEST_F(CloudSocket, AServerThatSpeaksNoTlsIsAnError) {
    tls_peer relay;
    relay.accept_tcp();
    relay.send_raw("HTTP/1.0 400 Bad Request\r\n\r\n");
    EXPECT_EQ(connect(relay.port()), -1);
    EXPECT_THAT(log.messages(CONNECT), Contains(StartsWith("[CRC:] ssl connect error, err: -")));
    EXPECT_TRUE(is_closed());
}

TEST_F(CloudSocket, AServerThatHangsUpInTheHandshakeIsAnError) {
    for (bool withReset : {false, true}) {
        log.clear();
        tls_peer relay;
        relay.accept_tcp();
        int result = 0;
        std::thread client([&] { result = connect(relay.port()); });
        EXPECT_TRUE(
            log.gets(info_line(CONNECT, "[CRC:] socket connect select device successfully\n ")));
        withReset ? relay.reset() : relay.close();
        client.join();
        EXPECT_EQ(result, -1);
        EXPECT_THAT(log.messages(CONNECT), Contains(StartsWith("[CRC:] ssl connect error, err: ")));
        EXPECT_TRUE(is_closed());
    }
}

TEST_F(CloudSocket, AHandshakeGoesOnAfterAnInterruptedWait) {
    tls_peer relay;
    relay.accept_tcp();
    fail_call failure("select", 2, calls_of::every_thread); // the first is the TCP connect's
    int result = -1;
    std::thread client([&] { result = connect(relay.port()); });
    EXPECT_TRUE(eventually([&] { return failure.happened(); }));
    relay.hello_tls();
    client.join();
    EXPECT_EQ(result, 0);
}

// The library ends so when an allocation fails, and its result is not always -1 then.
TEST_F(CloudSocket, AHandshakeThatRunsOutOfMemoryIsAFailure) {
    for (int result : {-1, 0, TLS_NO_MEMORY}) {
        log.clear();
        tls_peer relay;
        relay.accept();
        forced_tls handshake("wolfSSL_connect", result, TLS_NO_MEMORY, 1);
        EXPECT_EQ(connect(relay.port()), -1) << result;
        EXPECT_EQ(handshake.count(), 1);
        EXPECT_THAT(log.lines(),
                    Contains(error_line(CONNECT, "[CRC:] ssl connect error, err: -125")));
        EXPECT_TRUE(is_closed()) << result;
    }
}

TEST_F(CloudSocket, AHandshakeEndsAtAWaitThatFailsForGood) {
    constexpr int64_t TIMEOUT = 1000;
    for (int error : {EBADF, ENOMEM}) {
        log.clear();
        tls_peer relay;
        relay.accept_tcp();
        fail_call failure("select", 2, calls_of::this_thread, error); // after the TCP connect's
        auto start = clock_type::now();
        EXPECT_EQ(connect(relay.port(), TIMEOUT), -1);
        EXPECT_LT(ms_since(start), 7 * TIMEOUT);
        EXPECT_TRUE(failure.happened());
        EXPECT_THAT(log.lines(), Contains(error_line(CONNECT, "[CRC:] ssl connect timeout")));
        EXPECT_TRUE(is_closed());
    }
}

TEST_F(CloudSocket, ATcpConnectOfUnknownOutcomeIsAFailure) {
    tls_peer relay;
    relay.accept();
    fail_call failure("getsockopt");
    EXPECT_EQ(connect(relay.port()), -1);
    EXPECT_TRUE(failure.happened());
    EXPECT_THAT(log.lines(),
                Contains(error_line(CONNECT, "[CRC:] socket connect select device failed, errno:" +
                                                 std::to_string(ENOBUFS) + "\n")));
    EXPECT_TRUE(is_closed());
}

// --- a worker that is let go ---

// A connect on a thread of its own.
struct ConnectingWorker : CloudSocket {
    static constexpr int64_t TIMEOUT = 5000;
    static constexpr std::chrono::milliseconds PROMPTLY{1000};

    void connect_to(int port) {
        worker = std::thread([this, port] {
            wishes.adopt();
            result = connect(port, TIMEOUT);
            ended = true;
        });
    }

    // Lets the worker go and gives what the connect returns.
    int let_go() {
        EXPECT_FALSE(ended);
        wishes.letGo = 1;
        EXPECT_TRUE(eventually([this] { return ended.load(); }, PROMPTLY));
        worker.join();
        return result;
    }

    worker_wishes wishes;
    std::thread worker;
    std::atomic<bool> ended = false;
    int result = 0;
};

TEST_F(ConnectingWorker, EndsItsTcpConnectWithinASecond) {
    deaf_listener deaf;
    counted_calls waits("select");
    connect_to(deaf.port());
    EXPECT_TRUE(eventually([&] { return waits.count() > 0; }));
    EXPECT_EQ(let_go(), -1);
    EXPECT_THAT(log.messages("connect_nonblock"),
                ElementsAre("[CRC:] select error, result:0, errno:Connection timed out"));
    EXPECT_TRUE(is_closed());
}

TEST_F(ConnectingWorker, EndsItsTlsHandshakeWithinASecond) {
    tls_peer relay;
    relay.accept_tcp();
    counted_calls waits("select");
    connect_to(relay.port());
    EXPECT_TRUE(eventually([&] { return waits.count() > 1; })); // the first is the TCP connect's
    EXPECT_EQ(let_go(), -1);
    EXPECT_THAT(log.lines(), Contains(error_line(CONNECT, "[CRC:] ssl connect timeout")));
    EXPECT_TRUE(is_closed());
}

TEST_F(CloudSocket, ADescriptorThatNoSetHoldsIsRefused) {
    tls_peer relay;
    relay.accept();
    occupied_descriptors occupied;
    EXPECT_EQ(connect(relay.port()), -1);
    EXPECT_THAT(log.lines(), Contains(error_line(CONNECT, "[CRC:] create socket error, error: Too "
                                                          "many open files")));
    EXPECT_TRUE(is_closed());
}

} // namespace
