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
#include "support/worker_wishes.h"

namespace {

const bool isPrivate = private_namespaces();

class web_server : public testing::Test {
protected:
    void SetUp() override {
        fd = web_server_open();
        ASSERT_GE(fd, 0);
    }
    void TearDown() override { close(fd); }

    int connect_to(int port) {
        return web_server_connect(fd, static_cast<uint16_t>(port), PATIENCE_MS);
    }

    web_connection connect() {
        EXPECT_EQ(connect_to(web.port()), 0);
        return web.accept();
    }

    web_peer web;
    int fd = -1;
};

TEST_F(web_server, is_not_spoken_to_by_child_processes) {
    EXPECT_TRUE((fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0);
}

TEST_F(web_server, gets_the_pieces_of_a_body_without_delay) {
    web_server_expect_pieces(fd);
    int on = 0;
    socklen_t size = sizeof on;
    EXPECT_EQ(getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, &size), 0);
    EXPECT_EQ(on, 1);
}

TEST_F(web_server, cannot_be_spoken_to_without_a_socket) {
    fail_call noSocket("socket", 1);
    EXPECT_EQ(web_server_open(), -1);
    EXPECT_EQ(web_server_connect(-1, static_cast<uint16_t>(web.port()), PATIENCE_MS), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(web_server, refuses_with_the_systems_error) {
    EXPECT_EQ(connect_to(refusing_port()), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(web_server, is_not_connected_to_by_a_descriptor_beyond_select) {
    errno = 0;
    EXPECT_EQ(web_server_connect(FD_SETSIZE, static_cast<uint16_t>(web.port()), PATIENCE_MS), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_FALSE(web.is_called(0));
}

TEST_F(web_server, gets_and_gives_bytes_as_they_are) {
    web_connection exchange = connect();
    const std::string bytes = patterned_bytes(3000000);
    auto received =
        std::async(std::launch::async, [&] { return exchange.read_exact(bytes.size()); });
    EXPECT_EQ(web_server_send(fd, reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(),
                              PATIENCE_MS),
              0);
    EXPECT_TRUE(received.get() == bytes);
    exchange.answer("answer");
    uint8_t buffer[100] = {};
    EXPECT_EQ(web_server_recv(fd, buffer, 3, PATIENCE_MS), 3);
    EXPECT_EQ(web_server_recv(fd, buffer + 3, sizeof buffer - 3, PATIENCE_MS), 3);
    EXPECT_STREQ(reinterpret_cast<char*>(buffer), "answer");
    exchange.close();
    EXPECT_EQ(web_server_recv(fd, buffer, sizeof buffer, PATIENCE_MS), 0);
}

TEST_F(web_server, that_is_gone_raises_an_error_and_no_signal) {
    connect().reset();
    uint8_t buffer[100] = {};
    EXPECT_EQ(web_server_recv(fd, buffer, sizeof buffer, PATIENCE_MS), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(web_server_send(fd, buffer, sizeof buffer, PATIENCE_MS), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(web_server, that_says_nothing_is_waited_for_until_patience_ends) {
    web_connection exchange = connect();
    uint8_t byte = 0;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(web_server_recv(fd, &byte, 1, 150), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(150));
}

TEST_F(web_server, that_takes_bytes_slowly_gets_them_all) {
    web_connection exchange = connect();
    const std::string bytes = patterned_bytes(16 * 1000 * 1000); // more than both buffers hold
    constexpr int64_t PATIENCE_BETWEEN_MS = 1000;
    moved_clock clock;
    auto result = std::async(std::launch::async, [&] {
        return web_server_send(fd, reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(),
                               PATIENCE_BETWEEN_MS);
    });
    // In all far longer than its patience, which is for a web server that takes nothing.
    constexpr size_t PIECES = 16;
    for (size_t piece = 0; piece < PIECES; piece++) {
        int64_t readings = clock.readings();
        EXPECT_EQ(exchange.read_exact(bytes.size() / PIECES).size(), bytes.size() / PIECES);
        EXPECT_TRUE(eventually([&] { // it waits for the next piece to be taken, or is done
            return clock.readings() > readings + 1 ||
                   result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        }));
        clock.move(PATIENCE_BETWEEN_MS / 2);
    }
    EXPECT_EQ(result.get(), 0);
}

TEST_F(web_server, that_takes_nothing_is_given_up) {
    web_connection exchange = connect();
    const std::string bytes = patterned_bytes(8 * 1000 * 1000);
    EXPECT_EQ(
        web_server_send(fd, reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), 150), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(web_server, is_not_waited_for_once_the_session_is_to_end) {
    web_connection exchange = connect();
    for (std::atomic<int> worker_wishes::*wish : {&worker_wishes::stop, &worker_wishes::letGo}) {
        worker_wishes wishes;
        moved_clock clock;
        int64_t readings = clock.readings();
        auto result = std::async(std::launch::async, [&] {
            wishes.adopt();
            uint8_t byte = 0;
            ssize_t count = web_server_recv(fd, &byte, 1, PATIENCE_MS);
            return count == -1 ? errno : 0;
        });
        EXPECT_TRUE(eventually([&] { return clock.readings() > readings + 1; })) << "it waits";
        wishes.*wish = 1;
        EXPECT_EQ(result.get(), ECANCELED);
    }
}

TEST_F(web_server, whose_waits_fail_for_good_is_given_up_at_once) {
    web_connection exchange = connect();
    fail_call noMemory("poll");
    uint8_t byte = 0;
    EXPECT_EQ(web_server_recv(fd, &byte, 1, PATIENCE_MS), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(noMemory.happened());
}

TEST_F(web_server, of_which_the_system_cannot_tell_whether_it_is_connected_is_not) {
    fcntl(fd, F_SETFL, O_NONBLOCK); // as when connecting takes longer than one look
    fail_call noOption("getsockopt");
    EXPECT_EQ(connect_to(web.port()), -1);
    EXPECT_EQ(errno, ENOBUFS);
    EXPECT_TRUE(noOption.happened());
}

TEST_F(web_server, that_closed_or_sent_something_has_answered) {
    web_connection silent = connect();
    EXPECT_FALSE(web_server_has_answered(fd));
    silent.answer("x");
    EXPECT_TRUE(eventually([&] { return web_server_has_answered(fd); }));
    uint8_t byte = 0;
    EXPECT_EQ(web_server_recv(fd, &byte, 1, PATIENCE_MS), 1);
    EXPECT_FALSE(web_server_has_answered(fd));
    silent.close();
    EXPECT_TRUE(eventually([&] { return web_server_has_answered(fd); }));
}

} // namespace
