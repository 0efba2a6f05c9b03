#include "transport/tcp_connect.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/eventually.h"
#include "support/failing_calls.h"
#include "support/high_descriptors.h"
#include "support/log_capture.h"
#include "support/namespaces.h"
#include "support/tcp.h"

namespace {

// Without a route to anywhere but loopback.
const bool isPrivate = private_namespaces();

using testing::ElementsAre;
using clock_type = std::chrono::steady_clock;

int64_t ms_since(clock_type::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(clock_type::now() - start).count();
}

sockaddr_in address_of(int port, const char* ip = "127.0.0.1") {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    inet_aton(ip, &address.sin_addr);
    return address;
}

// --- wait_descriptor ---

struct WaitDescriptor : testing::Test {
    WaitDescriptor() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0); }
    ~WaitDescriptor() override {
        close(ends[0]);
        close(ends[1]);
    }
    int ends[2] = {-1, -1};
};

TEST_F(WaitDescriptor, SeesWhatCanBeReadAndWritten) {
    EXPECT_EQ(wait_descriptor(ends[0], wait_for::writing, PATIENCE_MS), 1);
    EXPECT_EQ(wait_descriptor(ends[0], wait_for::reading, 0), 0);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(wait_descriptor(ends[0], wait_for::reading, PATIENCE_MS), 1);
}

TEST_F(WaitDescriptor, TimesOutAfterMillisecondsAndSeconds) {
    for (int64_t timeout : {50, 1050}) {
        auto start = clock_type::now();
        EXPECT_EQ(wait_descriptor(ends[0], wait_for::reading, timeout), 0);
        EXPECT_GE(ms_since(start), timeout - 1);
    }
}

TEST_F(WaitDescriptor, PassesAnErrorOn) {
    fail_call failure("select");
    EXPECT_EQ(wait_descriptor(ends[0], wait_for::reading, PATIENCE_MS), -1);
    EXPECT_EQ(errno, EINTR);
}

TEST_F(WaitDescriptor, RefusesADescriptorThatNoSetHolds) {
    high_descriptor high(ends[0]);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(wait_descriptor(high.fd(), wait_for::reading, PATIENCE_MS), -1);
    EXPECT_EQ(errno, EMFILE);
}

TEST_F(WaitDescriptor, TakesTheLargestDescriptorThatASetHolds) {
    high_descriptor high(ends[0], FD_SETSIZE - 1);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(wait_descriptor(high.fd(), wait_for::reading, PATIENCE_MS), 1);
}

// --- open_tcp_socket ---

TEST(OpenTcpSocket, GivesOneThatChildrenDoNotInherit) {
    int fd = open_tcp_socket();
    ASSERT_GE(fd, 0);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    close(fd);
}

TEST(OpenTcpSocket, ClosesADescriptorThatNoSetHolds) {
    occupied_descriptors occupied;
    EXPECT_EQ(open_tcp_socket(), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(fcntl(FD_SETSIZE, F_GETFD), -1);
}

TEST(OpenTcpSocket, PassesAnErrorOn) {
    fail_call failure("socket");
    EXPECT_EQ(open_tcp_socket(), -1);
    EXPECT_EQ(errno, EMFILE);
}

// --- connect_nonblock ---

struct ConnectNonblock : testing::Test {
    ConnectNonblock() : fd(socket(AF_INET, SOCK_STREAM, 0)) {}
    ~ConnectNonblock() override { close(fd); }

    int connect_to(int port, int64_t timeout, const char* ip = "127.0.0.1") {
        sockaddr_in address = address_of(port, ip);
        return connect_nonblock(fd, &address, timeout);
    }
    bool is_nonblocking() const { return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }

    int fd;
    log_capture log;
};

TEST_F(ConnectNonblock, ConnectsAndLeavesTheDescriptorNonBlocking) {
    int listener = listen_at();
    EXPECT_EQ(connect_to(port_of(listener), PATIENCE_MS), 0);
    EXPECT_TRUE(is_nonblocking());
    EXPECT_THAT(log.lines(), ElementsAre(info_line("connect_nonblock",
                                                   "[CRC:] tcp connect to the server success")));
    int accepted = accept_connection(listener);
    EXPECT_GE(accepted, 0);
    close(accepted);
    close(listener);
}

TEST_F(ConnectNonblock, ReportsAConnectThatSucceedsAtOnce) {
    close(fd);
    fd = socket(AF_INET, SOCK_DGRAM, 0); // which does so always
    EXPECT_EQ(connect_to(9, PATIENCE_MS), 0);
    EXPECT_THAT(log.lines(),
                ElementsAre(info_line("connect_nonblock",
                                      "[CRC:] Good, client connect with server successful.")));
}

TEST_F(ConnectNonblock, ReportsARefusal) {
    EXPECT_EQ(connect_to(refusing_port(), PATIENCE_MS), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line("connect_nonblock",
                                       "[CRC:] select error, result:1, errno:Connection refused")));
}

TEST_F(ConnectNonblock, ReportsAFailureAtOnce) {
    EXPECT_EQ(connect_to(443, PATIENCE_MS, "203.0.113.1"), -1);
    EXPECT_EQ(errno, ENETUNREACH);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line("connect_nonblock",
                                       "[CRC:] Oh no! n: -1, errno: Network is unreachable, "
                                       "sockfd is wrong.")));
    EXPECT_EQ(log.errors(), "connect: : Network is unreachable\n");
    EXPECT_TRUE(is_nonblocking());
}

TEST_F(ConnectNonblock, ReportsADescriptorThatIsNone) {
    sockaddr_in address = address_of(443);
    EXPECT_EQ(connect_nonblock(-1, &address, PATIENCE_MS), -1);
    EXPECT_THAT(log.messages(), ElementsAre("[CRC:] Oh no! n: -1, errno: Bad file descriptor, "
                                            "sockfd is wrong."));
}

TEST_F(ConnectNonblock, GivesUpWhenTheTimeIsOver) {
    deaf_listener deaf;
    auto start = clock_type::now();
    EXPECT_EQ(connect_to(deaf.port(), 100), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(ms_since(start), 99);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line("connect_nonblock",
                                       "[CRC:] select error, result:0, errno:Connection timed "
                                       "out")));
}

TEST_F(ConnectNonblock, TakesAFailedWaitForATimeOut) {
    deaf_listener deaf;
    fail_call failure("select");
    EXPECT_EQ(connect_to(deaf.port(), PATIENCE_MS), -1);
    EXPECT_TRUE(failure.happened());
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_THAT(log.messages(), ElementsAre("[CRC:] select error, result:-1, errno:Connection "
                                            "timed out"));
}

TEST_F(ConnectNonblock, TakesAnOutcomeThatTheSystemCannotTellForAFailure) {
    int listener = listen_at();
    fail_call failure("getsockopt");
    EXPECT_EQ(connect_to(port_of(listener), PATIENCE_MS), -1);
    EXPECT_TRUE(failure.happened());
    EXPECT_EQ(errno, ENOBUFS);
    EXPECT_THAT(log.messages(), ElementsAre("[CRC:] select error, result:1, errno:No buffer space "
                                            "available"));
    close(listener);
}

TEST_F(ConnectNonblock, RefusesATimeOutBelowOneAfterTheSwitchToNonBlocking) {
    for (int64_t timeout : {0, -1}) {
        log.clear();
        EXPECT_EQ(connect_to(443, timeout), -1);
        EXPECT_THAT(log.lines(),
                    ElementsAre(error_line("connect_nonblock", "[CRC:] parameter error")));
    }
    EXPECT_TRUE(is_nonblocking());
}

TEST_F(ConnectNonblock, RefusesADescriptorThatNoSetHolds) {
    high_descriptor high(fd);
    deaf_listener deaf;
    sockaddr_in address = address_of(deaf.port());
    EXPECT_EQ(connect_nonblock(high.fd(), &address, PATIENCE_MS), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_THAT(log.messages(), ElementsAre("[CRC:] select error, result:-1, errno:Too many open "
                                            "files"));
}

} // namespace
