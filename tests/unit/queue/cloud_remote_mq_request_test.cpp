// Requests on their way from the relay to the web server.

#include <poll.h>
#include <sys/ioctl.h>
#include <thread>

#include "core/block.h"
#include "support/high_descriptors.h"
#include "transport/relay_packet.h"
#include "unit/queue/remote_requests.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

const bool isPrivate = private_namespaces();

constexpr int HTTP = 80;
constexpr size_t PIECE = CRC_DATA_BUF_SIZE;
constexpr int64_t FOR_EVER = INT64_MAX / 2; // for tests that move the clock
constexpr char CALL_SEND[] =
    "_cloud_remote_mq_request_send_to_web_server(cycle, pRemoteMqNode, timeout) failed.";

class remote_mq_request : public remote_mq {
protected:
    // The packet after a request, found where it should be, shows that the request was read whole.
    void expect_aligned(uint16_t id) {
        uint8_t* header = nullptr;
        size_t length = 0;
        ASSERT_EQ(
            cloud_socket_recv_pkt_hdr(session.cycle->cloudSocket, &header, &length, PATIENCE_MS),
            0);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(header), length),
                  header_bytes(REQUEST, id, 0));
        free(header);
    }

    void send_follower(uint16_t id) { session.relay.send(header_bytes(REQUEST, id, 0)); }

    bool is_socket_lock_free() {
        pthread_mutex_t* lock = &session.cycle->cloudSocket->mutex;
        return pthread_mutex_trylock(lock) == 0 && pthread_mutex_unlock(lock) == 0;
    }

    // Lets the clock run fast until the other thread is through.
    static void pass_time_until_ready(moved_clock* clock, const std::future<int>& result) {
        EXPECT_TRUE(eventually([&] {
            clock->move(10001);
            return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        }));
    }

    // Whether nothing more arrives at an end that reads nothing, and ours is full: a worker that
    // seldom runs is not taken for one that waits.
    bool is_stalled(const web_connection& exchange) {
        int before = 0;
        ioctl(exchange.fd(), FIONREAD, &before);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        int after = 0;
        ioctl(exchange.fd(), FIONREAD, &after);
        pollfd room = {.fd = web_socket(), .events = POLLOUT, .revents = 0};
        return before > 0 && after == before && poll(&room, 1, 0) == 0;
    }

    // The descriptor of the connection to the web server under way, as the log tells it.
    int web_socket() {
        for (const log_line& line : log.lines()) {
            int fd = -1;
            if (sscanf(line.message.c_str(), "Connect web-server, lWebSvrProxySockfd %d.", &fd) ==
                1) {
                return fd;
            }
        }
        return -1;
    }
};

// --- The node

TEST_F(remote_mq_request, waits_in_the_queue_until_the_web_server_answers) {
    int64_t before = cloud_now_ms();
    EXPECT_EQ(forward(session, 0x1234, "GET /"), 0);
    ASSERT_THAT(queued(), ElementsAre(0x1234));
    EXPECT_EQ(node()->status, REMOTE_MQ_FORWARDED);
    EXPECT_GE(node()->webSvrSockfd, 0);
    EXPECT_EQ(node()->timeout, 10000);
    EXPECT_GE(node()->updateTime, before);
    EXPECT_EQ(node()->reqDataLen, 5u);
    EXPECT_EQ(node()->respPkt, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(node()->reqHdr), 13),
              header_bytes(REQUEST, 0x1234, 5) + std::string(1, '\0'));
    expect_counters(0, 1);
}

TEST_F(remote_mq_request, stands_behind_those_that_came_before) {
    for (uint16_t id : {7, 3, 5}) {
        EXPECT_EQ(forward(session, id, "x"), 0);
    }
    EXPECT_THAT(queued(), ElementsAre(7, 3, 5));
    expect_counters(0, 3);
}

TEST_F(remote_mq_request, is_told_in_the_log_step_by_step) {
    EXPECT_EQ(forward(session, 1, "GET /"), 0);
    EXPECT_THAT(logged(),
                ElementsAre(info_line(HANDLE_REQUEST, "start handle, ret 0."),
                            info_line(HANDLE_REQUEST, "start handle insert,."),
                            info_line("_cloud_remote_mq_request_insert",
                                      "[CRC:] Insert remote requset to queue ok."),
                            info_line(CONNECT_WEB, "Connect web-server, lWebSvrProxySockfd " +
                                                       std::to_string(node()->webSvrSockfd) + "."),
                            info_line(SEND_TO_WEB, "=======CRC -> HTTPD: 5B"),
                            info_line(SEND_TO_WEB, "Send pkt to web-server, ret 0."),
                            info_line(HANDLE_REQUEST,
                                      "[CRC:] Send remote request to web-server successfully.")));
}

TEST_F(remote_mq_request, needs_a_cycle_and_a_header) {
    const std::string header = header_bytes(REQUEST, 1, 0);
    EXPECT_EQ(cloud_remote_mq_request_handle(session.cycle, nullptr, 1), 100);
    EXPECT_EQ(
        cloud_remote_mq_request_handle(nullptr, reinterpret_cast<const uint8_t*>(header.data()), 1),
        100);
    constexpr char MESSAGE[] = "Ensure NULL != cycle && NULL != reqHdr failed.";
    EXPECT_THAT(log.lines(), ElementsAre(info_line(HANDLE_REQUEST, "start handle, ret 0."),
                                         error_line(HANDLE_REQUEST, MESSAGE),
                                         info_line(HANDLE_REQUEST, "start handle, ret 0."),
                                         error_line(HANDLE_REQUEST, MESSAGE)));
    expect_counters(0, 0);
}

// --- The body

class remote_mq_request_body : public remote_mq_request,
                               public testing::WithParamInterface<size_t> {};

TEST_P(remote_mq_request_body, reaches_the_web_server_byte_for_byte) {
    const std::string body = patterned_bytes(GetParam());
    verb_queue server;
    auto received =
        std::async(std::launch::async, [&] { return web.accept().read_exact(body.size()); });
    EXPECT_EQ(forward(session, 1, body), 0);
    send_follower(2);
    EXPECT_TRUE(received.get() == body);
    EXPECT_TRUE(log.has(
        info_line(SEND_TO_WEB, "=======CRC -> HTTPD: " + std::to_string(body.size()) + "B")));
    expect_aligned(2);
    EXPECT_TRUE(is_socket_lock_free());
}

INSTANTIATE_TEST_SUITE_P(of_any_size, remote_mq_request_body,
                         testing::Values(1, PIECE - 1, PIECE, PIECE + 1, 2 * PIECE, 3000000));

TEST_F(remote_mq_request, without_a_body_sends_nothing_and_awaits_its_answer) {
    EXPECT_EQ(forward(session, 1, ""), 0);
    EXPECT_EQ(node()->status, REMOTE_MQ_FORWARDED);
    expect_counters(0, 1);
    EXPECT_TRUE(log.has(error_line(SEND_TO_WEB, "Ensure 0 != pRemoteMqNode->reqDataLen failed.")));
    EXPECT_TRUE(log.has(
        info_line(HANDLE_REQUEST, "[CRC:] Send remote request to web-server successfully.")));
    EXPECT_FALSE(log.has(info_line(SEND_TO_WEB, HasSubstr("CRC -> HTTPD"))));
    web_connection exchange = web.accept();
    exchange.answer("HTTP/1.0 400 Bad Request\r\n\r\n");
    exchange.close();
    EXPECT_EQ(relay_answers(session), 0);
    EXPECT_EQ(session.relay.read_packet(),
              (packet{RESPONSE, 1, "HTTP/1.0 400 Bad Request\r\n\r\n"}));
}

TEST_F(remote_mq_request, without_a_body_brings_the_web_server_a_connection_and_no_byte) {
    EXPECT_EQ(forward(session, 1, ""), 0);
    web_connection exchange = web.accept();
    exchange.finish();
    EXPECT_EQ(relay_answers(session), 0); // closes the connection, so that its end can be read
    EXPECT_EQ(exchange.read_to_end(), "");
}

// --- The web server's port

TEST_F(remote_mq_request, goes_to_port_80_without_a_usable_option) {
    web_peer usual(HTTP);
    for (const char* port : {"0", "http", "-", "-8080", "65536", "99999999999999999999"}) {
        configure_port(port);
        EXPECT_EQ(forward(session, 1, "x"), 0) << port;
        EXPECT_EQ(usual.accept().read_exact(1), "x") << port;
    }
    EXPECT_FALSE(log.has(error_line(CONNECT_WEB, testing::_)));
}

TEST_F(remote_mq_request, goes_to_port_80_with_an_empty_option) {
    web_peer usual(HTTP);
    configure_port("");
    EXPECT_EQ(forward(session, 1, "x"), 0);
    EXPECT_EQ(usual.accept().read_exact(1), "x");
}

TEST_F(remote_mq_request, goes_to_port_80_and_says_so_when_the_option_cannot_be_read) {
    web_peer usual(HTTP);
    remove_file("/etc/config/system");
    EXPECT_EQ(forward(session, 1, "x"), 0);
    EXPECT_EQ(usual.accept().read_exact(1), "x");
    EXPECT_TRUE(log.has(error_line(
        CONNECT_WEB, "readUCI(system.service_port.http_port) failed. Use default port 80.")));
}

TEST_F(remote_mq_request, reads_the_port_anew_each_time) {
    EXPECT_EQ(forward(session, 1, "x"), 0);
    web_peer moved;
    configure_port(std::to_string(moved.port()));
    EXPECT_EQ(forward(session, 2, "y"), 0);
    EXPECT_EQ(moved.accept().read_exact(1), "y");
}

// --- The web server does not take the connection

TEST_F(remote_mq_request, that_is_refused_fails_and_stays_pending_until_its_time_is_up) {
    moved_clock clock;
    int port = refusing_port();
    configure_port(std::to_string(port));
    EXPECT_EQ(forward(session, 1, "BODY"), -1);
    EXPECT_EQ(node()->status, REMOTE_MQ_INSERTED);
    EXPECT_EQ(node()->webSvrSockfd, -1);
    expect_counters(1, 0);
    EXPECT_TRUE(log.has(error_line(CONNECT_WEB, "Connect web-server with " + std::to_string(port) +
                                                    " err, Connection refused.")));
    EXPECT_TRUE(log.has(
        error_line(HANDLE_REQUEST,
                   "E - -1 call _cloud_remote_mq_request_con_web_server(pRemoteMqNode) failed.")));
    cloud_remote_mq_remove();
    expect_counters(1, 0);
    clock.move(10001);
    cloud_remote_mq_remove();
    expect_counters(0, 0);
    EXPECT_THAT(queued(), ElementsAre());
}

TEST_F(remote_mq_request, that_is_refused_leaves_its_body_on_the_connection) {
    configure_port(std::to_string(refusing_port()));
    EXPECT_EQ(forward(session, 1, "BODY"), -1);
    char body[5] = {};
    EXPECT_EQ(cloud_socket_recv_buf(session.cycle->cloudSocket, body, 4, PATIENCE_MS), 4);
    EXPECT_STREQ(body, "BODY");
}

TEST_F(remote_mq_request, waits_ten_seconds_for_a_web_server_whose_backlog_is_full) {
    deaf_listener deaf;
    configure_port(std::to_string(deaf.port()));
    moved_clock clock;
    auto result = std::async(std::launch::async, [&] { return forward(session, 1, "x"); });
    EXPECT_TRUE(eventually([&] { return web_socket() >= 0; }));
    clock.move(9000);
    EXPECT_EQ(result.wait_for(std::chrono::milliseconds(150)), std::future_status::timeout);
    pass_time_until_ready(&clock, result);
    EXPECT_EQ(result.get(), -1);
    EXPECT_TRUE(
        log.has(error_line(CONNECT_WEB, "Connect web-server with " + std::to_string(deaf.port()) +
                                            " err, Connection timed out.")));
    EXPECT_EQ(node()->webSvrSockfd, -1);
}

TEST_F(remote_mq_request, stops_waiting_for_the_web_server_when_the_session_is_to_end) {
    deaf_listener deaf;
    configure_port(std::to_string(deaf.port()));
    worker_wishes wishes;
    auto result = std::async(std::launch::async, [&] {
        wishes.adopt();
        return forward(session, 1, "x");
    });
    EXPECT_TRUE(eventually([&] { return web_socket() >= 0; }));
    wishes.stop = 1;
    EXPECT_EQ(result.get(), -1);
    EXPECT_TRUE(log.has(error_line(CONNECT_WEB, HasSubstr("Operation canceled"))));
}

TEST_F(remote_mq_request, fails_without_a_socket) {
    fail_call noSocket("socket", 1);
    EXPECT_EQ(forward(session, 1, "x"), -1);
    EXPECT_TRUE(noSocket.happened());
    EXPECT_TRUE(log.has(info_line(CONNECT_WEB, "Connect web-server, lWebSvrProxySockfd -1.")));
    EXPECT_TRUE(log.has(error_line(CONNECT_WEB, StartsWith("Connect web-server with "))));
    EXPECT_EQ(node()->webSvrSockfd, -1);
}

TEST_F(remote_mq_request, fails_with_a_socket_that_select_could_not_wait_for) {
    {
        occupied_descriptors all;
        EXPECT_EQ(forward(session, 1, "x"), -1);
    }
    EXPECT_TRUE(log.has(error_line(CONNECT_WEB, HasSubstr("Too many open files"))));
    EXPECT_EQ(node()->webSvrSockfd, -1);
}

// --- The web server stops taking the body

TEST_F(remote_mq_request, of_which_a_part_could_not_be_sent_is_still_read_whole) {
    const std::string body = patterned_bytes(40 * PIECE + 5);
    session.relay.send(body.substr(0, PIECE));
    verb_queue server;
    server.post([&] {
        web_connection exchange = web.accept();
        exchange.read_exact(PIECE);
        exchange.reset();
        session.relay.send(body.substr(PIECE)); // comes when the reset is there already
        send_follower(2);
    });
    EXPECT_EQ(handle_request(session, header_bytes(REQUEST, 1, body.size())), -1);
    expect_aligned(2);
    EXPECT_EQ(node()->status, REMOTE_MQ_INSERTED);
    expect_counters(1, 0);
    EXPECT_TRUE(is_socket_lock_free());
    std::vector<std::string> errors;
    for (const log_line& line : log.lines()) {
        if (line.kind == line_kind::error) {
            errors.push_back(line.message);
        }
    }
    EXPECT_THAT(errors, // the failed send once, though many pieces follow
                ElementsAre("Send remot request to web-server err, Connection reset by peer.",
                            std::string("E - -1 call ") + CALL_SEND));
    EXPECT_TRUE(log.has(info_line(SEND_TO_WEB, "Send pkt to web-server, ret -1.")));
}

TEST_F(remote_mq_request, that_a_stalling_web_server_does_not_take_is_still_read_whole) {
    const std::string body = patterned_bytes(1000 * PIECE); // more than sockets hold
    session.relay.send(body);
    send_follower(2);
    moved_clock clock;
    auto result = std::async(std::launch::async, [&] {
        return handle_request(session, header_bytes(REQUEST, 1, body.size()), FOR_EVER);
    });
    web_connection exchange = web.accept(); // and reads nothing
    EXPECT_TRUE(eventually([&] { return is_stalled(exchange); }));
    clock.move(9000);
    EXPECT_EQ(result.wait_for(std::chrono::milliseconds(150)), std::future_status::timeout);
    pass_time_until_ready(&clock, result);
    EXPECT_EQ(result.get(), -1);
    expect_aligned(2);
    EXPECT_EQ(node()->status, REMOTE_MQ_INSERTED);
    EXPECT_TRUE(log.has(
        error_line(SEND_TO_WEB, "Send remot request to web-server err, Connection timed out.")));
}

TEST_F(remote_mq_request, that_a_slow_web_server_takes_arrives_whole) {
    constexpr size_t STEPS = 8; // nine seconds apart: 72 s in all
    const std::string body = patterned_bytes(1024 * PIECE);
    session.relay.send(body);
    moved_clock clock;
    auto result = std::async(std::launch::async, [&] {
        return handle_request(session, header_bytes(REQUEST, 1, body.size()), FOR_EVER);
    });
    web_connection exchange = web.accept();
    std::string received;
    for (size_t step = 0; step < STEPS; step++) {
        EXPECT_TRUE(eventually([&] {
            return is_stalled(exchange) ||
                   result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        }));
        clock.move(9000);
        received += exchange.read_exact(body.size() / STEPS);
    }
    EXPECT_EQ(result.get(), 0);
    EXPECT_TRUE(received == body);
    EXPECT_EQ(node()->status, REMOTE_MQ_FORWARDED);
}

TEST_F(remote_mq_request, is_not_read_to_its_end_when_the_session_is_to_end) {
    const std::string body = patterned_bytes(1000 * PIECE); // more than sockets hold
    session.relay.send(body.substr(1));                     // the rest would have to be waited for
    worker_wishes wishes;
    auto result = std::async(std::launch::async, [&] {
        wishes.adopt();
        return handle_request(session, header_bytes(REQUEST, 1, body.size()));
    });
    web_connection exchange = web.accept(); // and reads nothing
    EXPECT_TRUE(eventually([&] { return is_stalled(exchange); }));
    wishes.stop = 1;
    EXPECT_EQ(result.get(), -1);
    EXPECT_TRUE(log.has(
        error_line(SEND_TO_WEB, "Send remot request to web-server err, Operation canceled.")));
    EXPECT_TRUE(is_socket_lock_free());
}

TEST_F(remote_mq_request, of_a_slow_relay_is_not_held_against_the_web_server) {
    moved_clock clock;
    session.relay.send(std::string(PIECE, 'a'));
    auto result = std::async(std::launch::async, [&] {
        return handle_request(session, header_bytes(REQUEST, 1, 2 * PIECE), FOR_EVER);
    });
    web_connection exchange = web.accept();
    exchange.read_exact(PIECE);
    clock.move(60000);
    session.relay.send(std::string(PIECE, 'b'));
    EXPECT_EQ(result.get(), 0);
    EXPECT_EQ(exchange.read_exact(PIECE), std::string(PIECE, 'b'));
}

// --- The relay stops sending the body

TEST_F(remote_mq_request, whose_body_stays_out_fails_after_the_callers_timeout) {
    session.relay.send("HALF");
    EXPECT_EQ(handle_request(session, header_bytes(REQUEST, 1, 8), 50), 4);
    EXPECT_TRUE(log.has(error_line(SEND_TO_WEB, "[CRC:] socket recv error, recvCnt:-1")));
    EXPECT_TRUE(log.has(info_line(SEND_TO_WEB, "Send pkt to web-server, ret 4.")));
    EXPECT_TRUE(log.has(error_line(HANDLE_REQUEST, std::string("E - 4 call ") + CALL_SEND)));
    EXPECT_EQ(node()->status, REMOTE_MQ_INSERTED);
    expect_counters(1, 0);
    EXPECT_TRUE(is_socket_lock_free());
}

TEST_F(remote_mq_request, whose_body_ends_early_fails) {
    session.relay.send("HALF");
    session.relay.close_notify();
    EXPECT_EQ(handle_request(session, header_bytes(REQUEST, 1, 8)), 9);
    EXPECT_TRUE(log.has(error_line(SEND_TO_WEB, "[CRC:] socket closed by peer")));
    EXPECT_TRUE(log.has(info_line(SEND_TO_WEB, "Send pkt to web-server, ret 9.")));
    EXPECT_TRUE(log.has(error_line(HANDLE_REQUEST, std::string("E - 9 call ") + CALL_SEND)));
    expect_counters(1, 0);
    EXPECT_TRUE(is_socket_lock_free());
}

TEST_F(remote_mq_request, whose_connection_is_reset_fails) {
    session.relay.reset();
    EXPECT_TRUE(session.relay.is_done());
    EXPECT_EQ(handle_request(session, header_bytes(REQUEST, 1, 8)), 9);
    expect_counters(1, 0);
}

TEST_F(remote_mq_request, on_a_disconnected_socket_fails) {
    session.disconnect();
    EXPECT_EQ(handle_request(session, header_bytes(REQUEST, 1, 8)), 4);
    expect_counters(1, 0);
}

// --- Memory is short

class remote_mq_request_out_of_memory : public remote_mq_request,
                                        public testing::WithParamInterface<const char*> {};

TEST_P(remote_mq_request_out_of_memory, for_its_node_is_not_queued) {
    fail_call noMemory(GetParam(), 1);
    EXPECT_EQ(forward(session, 1, "x"), 101);
    EXPECT_THAT(
        logged(),
        ElementsAre(info_line(HANDLE_REQUEST, "start handle, ret 0."),
                    info_line(HANDLE_REQUEST, "start handle insert,."),
                    error_line("cloud_remote_mq_node_generate", "[CRC:] Out of memory."),
                    error_line("_cloud_remote_mq_request_insert", "[CRC:] Out of memory."),
                    error_line(HANDLE_REQUEST, "E - 101 call _cloud_remote_mq_request_insert("
                                               "reqHdr, &pRemoteMqNode) failed.")));
    EXPECT_THAT(queued(), ElementsAre());
    expect_counters(0, 0);
}

INSTANTIATE_TEST_SUITE_P(of_either_block, remote_mq_request_out_of_memory,
                         testing::Values("calloc", "malloc"));

// The configuration's reader allocates, too, and falls back to port 80: so all goes there.
TEST_F(remote_mq_request, survives_the_refusal_of_any_block) {
    web_peer usual(HTTP);
    configure_port(std::to_string(HTTP));
    for (const char* call : {"malloc", "calloc", "realloc"}) {
        bool happened = true;
        for (int nth = 1; happened; nth++) {
            ASSERT_LT(nth, 1000);
            session.relay.send("x");
            int result = 0;
            {
                fail_call noMemory(call, nth);
                result = handle_request(session, header_bytes(REQUEST, 1, 1));
                happened = noMemory.happened();
            }
            EXPECT_TRUE(result == 0 || (happened && result == 101)) << call << " " << nth;
            if (result != 0) { // then the body is still there
                char body = 0;
                cloud_socket_recv_buf(session.cycle->cloudSocket, &body, 1, PATIENCE_MS);
            }
            cloud_remote_mq_clear();
            expect_counters(0, 0);
        }
    }
    EXPECT_TRUE(log.has(error_line(SEND_TO_WEB, "[CRC:] malloc error")));
    EXPECT_TRUE(log.has(error_line(HANDLE_REQUEST, std::string("E - 101 call ") + CALL_SEND)));
}

} // namespace
