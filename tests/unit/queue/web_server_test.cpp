#include "queue/web_server.h"

#include <cerrno>
#include <fcntl.h>
#include <future>
#include <gmock/gmock.h>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/eventually.h"
#include "support/failing_calls.h"
#include "support/namespaces.h"
#include "support/packet.h"
#include "support/tcp.h"
#include "support/web_peer.h"
#include "transport/cloud_socket.h"

namespace {

const bool isPrivate = private_namespaces();

class web_server : public testing::Test {
protected:
    void SetUp() override {
        fd = web_server_open();
        ASSERT_GE(fd, 0);
    }
    void TearDown() override {
        close(fd);
        cloud_socket_destroy(relay);
    }

    int connect_to(int port) { return web_server_connect(fd, static_cast<uint16_t>(port), &wait); }

    web_connection connect() {
        EXPECT_EQ(connect_to(web.port()), 0);
        return web.accept();
    }

    web_peer web;
    cloud_socket_t* relay = cloud_socket_init();
    web_wait_t wait = {relay, PATIENCE_MS};
    int fd = -1;
};

TEST_F(web_server, is_spoken_to_without_blocking_or_delay_and_not_by_child_processes) {
    EXPECT_TRUE((fcntl(fd, F_GETFL) & O_NONBLOCK) != 0);
    EXPECT_TRUE((fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0);
    int on = 0;
    socklen_t size = sizeof on;
    EXPECT_EQ(getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, &size), 0);
    EXPECT_EQ(on, 1);
}

TEST_F(web_server, cannot_be_spoken_to_without_a_socket) {
    fail_call noSocket("socket", 1);
    EXPECT_EQ(web_server_open(), -1);
    EXPECT_EQ(web_server_connect(-1, static_cast<uint16_t>(web.port()), &wait), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(web_server, refuses_with_the_systems_error) {
    EXPECT_EQ(connect_to(refusing_port()), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(web_server, is_not_connected_to_by_a_descriptor_beyond_select) {
    errno = 0;
    EXPECT_EQ(web_server_connect(FD_SETSIZE, static_cast<uint16_t>(web.port()), &wait), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_FALSE(web.is_called(0));
}

TEST_F(web_server, gets_and_gives_bytes_as_they_are) {
    web_connection exchange = connect();
    const std::string bytes = patterned_bytes(3000000);
    auto received =
        std::async(std::launch::async, [&] { return exchange.read_exact(bytes.size()); });
    EXPECT_EQ(
        web_server_send(fd, reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), &wait),
        0);
    EXPECT_TRUE(received.get() == bytes);
    exchange.answer("answer");
    uint8_t buffer[100] = {};
    EXPECT_EQ(web_server_recv(fd, buffer, 3, &wait), 3);
    EXPECT_EQ(web_server_recv(fd, buffer + 3, sizeof buffer - 3, &wait), 3);
    EXPECT_STREQ(reinterpret_cast<char*>(buffer), "answer");
    exchange.close();
    EXPECT_EQ(web_server_recv(fd, buffer, sizeof buffer, &wait), 0);
}

TEST_F(web_server, that_is_gone_raises_an_error_and_no_signal) {
    connect().reset();
    uint8_t buffer[100] = {};
    EXPECT_EQ(web_server_recv(fd, buffer, sizeof buffer, &wait), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(web_server_send(fd, buffer, sizeof buffer, &wait), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(web_server, that_says_nothing_is_waited_for_until_patience_ends) {
    web_connection exchange = connect();
    wait.patience = 150;
    uint8_t byte = 0;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(web_server_recv(fd, &byte, 1, &wait), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(150));
    EXPECT_LT(wait.patience, 0);
}

TEST_F(web_server, is_waited_for_by_all_its_calls_together) {
    web_connection exchange = connect();
    wait.patience = 60;
    uint8_t byte = 0;
    web_wait_t first = wait;
    EXPECT_EQ(web_server_recv(fd, &byte, 1, &first), -1);
    EXPECT_EQ(web_server_recv(fd, &byte, 1, &first), -1); // at once: nothing is left
    EXPECT_EQ(errno, ETIMEDOUT);
    exchange.answer("x");
    EXPECT_TRUE(eventually([&] { return web_server_recv(fd, &byte, 1, &first) == 1; }));
}

TEST_F(web_server, is_not_waited_for_once_the_relay_is_abandoned) {
    web_connection exchange = connect();
    uint8_t byte = 0;
    auto result = std::async(std::launch::async, [&] {
        ssize_t count = web_server_recv(fd, &byte, 1, &wait);
        return count == -1 ? errno : 0;
    });
    cloud_socket_abandon(relay);
    EXPECT_EQ(result.get(), ECANCELED);
}

TEST_F(web_server, may_be_waited_for_without_a_relay) {
    wait = {nullptr, 30};
    web_connection exchange = connect();
    uint8_t byte = 0;
    EXPECT_EQ(web_server_recv(fd, &byte, 1, &wait), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
}

} // namespace
