// Answers on their way from the web server to the relay.

#include <malloc.h>

#include "queue/web_server.h"
#include "support/resident_memory.h"
#include "unit/queue/remote_requests.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

const bool isPrivate = private_namespaces();

constexpr char CALL_RECV[] = "_cloud_remote_mq_response_recv(pNode) failed.";
constexpr char CALL_SEND[] = "_cloud_remote_mq_response_send(cloudSock, pNode) failed.";
constexpr char FAILED[] = "=======HTTPD -> CRC: FAILED.";

class remote_mq_response : public remote_mq {
protected:
    // Has the web server answer and close, and gives what the relay gets of it.
    packet relay_answer(web_connection exchange, const std::string& answer) {
        verb_queue server;
        server.post([&] {
            exchange.answer(answer);
            exchange.close();
        });
        auto relayed = std::async(std::launch::async, [&] { return session.relay.read_packet(); });
        EXPECT_EQ(relay_answers(session), 0);
        return relayed.get();
    }

    // True while an answer is being read or relayed; any thread.
    static bool is_answer_being_read() {
        return pthread_mutex_trylock(&gRemoteMqLock) == EBUSY ||
               pthread_mutex_unlock(&gRemoteMqLock) != 0;
    }

    // Waits until the reader of an answer has looked at the clock again after what came last.
    static void wait_until_answer_is_awaited(moved_clock* clock) {
        int64_t readings = clock->readings();
        EXPECT_TRUE(eventually([&] { return clock->readings() > readings + 2; }));
    }

    // An exchange that failed: nothing went to the relay, and its socket is gone.
    void expect_failed() {
        EXPECT_EQ(node()->status, REMOTE_MQ_FORWARDED);
        EXPECT_EQ(node()->webSvrSockfd, -1);
        EXPECT_EQ(node()->respPkt, nullptr);
        expect_counters(0, 1);
        session.disconnect();
        EXPECT_EQ(session.relay.read_exact(1), "");
    }
};

// --- Answers of any size. The first block holds 16372 bytes, each further one 16384 more.

class remote_mq_response_body : public remote_mq_response,
                                public testing::WithParamInterface<size_t> {};

TEST_P(remote_mq_response_body, reaches_the_relay_byte_for_byte_under_the_requests_identifier) {
    const std::string answer = patterned_bytes(GetParam());
    web_connection exchange = await_answer(0x1234);
    node()->timeout = 10 * PATIENCE_MS; // for the largest under valgrind
    packet relayed = relay_answer(std::move(exchange), answer);
    EXPECT_EQ(relayed.magic, 0xB00B);
    EXPECT_EQ(relayed.type, RESPONSE);
    EXPECT_EQ(relayed.id, 0x1234);
    EXPECT_EQ(relayed.reserve, 0);
    EXPECT_TRUE(relayed.body == answer);
    EXPECT_EQ(node()->status, REMOTE_MQ_ANSWERED);
    EXPECT_EQ(node()->webSvrSockfd, -1);
    EXPECT_EQ(node()->respDataLen, answer.size() + HEADER_BYTES);
    EXPECT_TRUE(log.has(
        info_line(RECV_RESPONSE,
                  "=======HTTPD -> CRC: " + std::to_string(answer.size() + HEADER_BYTES) + "B.")));
    expect_counters(0, 1);
    cloud_remote_mq_remove();
    expect_counters(0, 0);
}

INSTANTIATE_TEST_SUITE_P(around_a_block, remote_mq_response_body,
                         testing::Range<size_t>(16371, 16386));
INSTANTIATE_TEST_SUITE_P(small_and_large, remote_mq_response_body,
                         testing::Values(0, 1, 32756, 5000000));

TEST_F(remote_mq_response, carries_a_reserve_of_0_whatever_the_requests_was) {
    session.relay.send("x");
    EXPECT_EQ(handle_request(session, header_bytes(6, 0xFFFE, 1, 0x5678)), 0);
    web_connection exchange = web.accept();
    EXPECT_EQ(exchange.read_exact(1), "x");
    packet relayed = relay_answer(std::move(exchange), "y");
    EXPECT_EQ(relayed, (packet{RESPONSE, 0xFFFE, "y"}));
}

TEST_F(remote_mq_response, of_exactly_the_first_block_grows_it_once) {
    web_connection exchange = await_answer(1);
    exchange.answer(patterned_bytes(16372));
    exchange.close();
    fail_call noMemory("realloc", 1);
    EXPECT_EQ(relay_answers(session), 101);
    EXPECT_TRUE(noMemory.happened());
}

TEST_F(remote_mq_response, of_one_byte_less_does_not_grow_it) {
    web_connection exchange = await_answer(1);
    exchange.answer(patterned_bytes(16371));
    exchange.close();
    fail_call noMemory("realloc", 1);
    EXPECT_EQ(relay_answers(session), 0);
    EXPECT_FALSE(noMemory.happened());
}

TEST_F(remote_mq_response, that_comes_in_pieces_is_waited_for_to_its_end) {
    web_connection exchange = await_answer(1);
    verb_queue server;
    exchange.answer("HTTP/1.0 ");
    server.post([&] {
        // The rest comes only when the answer is being read.
        EXPECT_TRUE(eventually(is_answer_being_read));
        for (const char* piece : {"200 OK\r\n", "\r\n", "hello"}) {
            exchange.answer(piece);
        }
        exchange.close();
    });
    EXPECT_EQ(relay_answers(session), 0);
    EXPECT_EQ(session.relay.read_packet().body, "HTTP/1.0 200 OK\r\n\r\nhello");
}

TEST_F(remote_mq_response, ends_when_the_web_server_ends_its_side_alone) {
    web_connection exchange = await_answer(1);
    exchange.answer("answer");
    exchange.finish();
    EXPECT_EQ(relay_answers(session), 0);
    EXPECT_EQ(session.relay.read_packet().body, "answer");
    EXPECT_TRUE(exchange.is_at_end()); // the queue's socket is closed
}

// The router has little memory: an answer costs its own size once, also while it grows.
TEST_F(remote_mq_response, of_20_megabytes_costs_20_megabytes) {
    if (!resident_memory_is_our_own()) {
        GTEST_SKIP() << "the allocator has costs of its own";
    }
    constexpr size_t SIZE = 20 * 1000 * 1000;
    constexpr size_t PIECE = 1000 * 1000;
    constexpr size_t ALLOWANCE_KB = 3000;  // the peers' pieces and TLS
    mallopt(M_MMAP_THRESHOLD, 128 * 1024); // as the daemon sets it
    const std::string piece = patterned_bytes(PIECE);
    web_connection exchange = await_answer(1);
    verb_queue server;
    server.post([&] {
        for (size_t sent = 0; sent < SIZE; sent += PIECE) {
            exchange.answer(piece);
        }
        exchange.close();
    });
    auto relayed = std::async(std::launch::async, [&] {
        bool same = session.relay.read_exact(HEADER_BYTES) == header_bytes(RESPONSE, 1, SIZE);
        for (size_t read = 0; read < SIZE; read += PIECE) {
            same = session.relay.read_exact(PIECE) == piece && same;
        }
        return same;
    });
    reset_resident_peak();
    size_t before = resident_kib();
    EXPECT_EQ(relay_answers(session), 0);
    size_t peak = resident_peak_kib();
    EXPECT_TRUE(relayed.get());
    EXPECT_LT(peak - before, SIZE / 1024 + ALLOWANCE_KB);
    EXPECT_GT(peak - before, SIZE / 1024 - ALLOWANCE_KB); // or the measure is none
    cloud_remote_mq_remove();
    EXPECT_LT(resident_kib() - before, ALLOWANCE_KB); // and all of it is given back
}

// --- Which answers are read

TEST_F(remote_mq_response, needs_a_set) {
    EXPECT_EQ(cloud_remote_mq_response_handle(nullptr, session.cycle->cloudSocket), 100);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line(HANDLE_RESPONSE, "Ensure NULL != pfdset failed.")));
}

TEST_F(remote_mq_response, is_not_looked_for_while_nothing_was_forwarded) {
    fd_set all;
    memset(&all, 0xFF, sizeof all);
    EXPECT_EQ(cloud_remote_mq_response_handle(&all, session.cycle->cloudSocket), 0);
    EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_F(remote_mq_response, is_left_alone_unless_the_set_reports_it) {
    web_connection exchange = await_answer(1);
    exchange.answer("answer");
    exchange.close();
    fd_set none;
    FD_ZERO(&none);
    EXPECT_EQ(cloud_remote_mq_response_handle(&none, session.cycle->cloudSocket), 0);
    EXPECT_EQ(node()->status, REMOTE_MQ_FORWARDED);
    EXPECT_EQ(relay_answers(session), 0);
    EXPECT_EQ(session.relay.read_packet().body, "answer");
}

TEST_F(remote_mq_response, of_several_requests_each_goes_back_in_one_pass_under_its_own_id) {
    web_connection first = await_answer(11);
    web_connection second = await_answer(12);
    web_connection third = await_answer(13);
    fd_set readable;
    FD_ZERO(&readable);
    for (int i : {0, 2}) { // the second keeps us waiting
        FD_SET(node(i)->webSvrSockfd, &readable);
    }
    third.answer("of the third");
    third.close();
    first.answer("of the first");
    first.close();
    EXPECT_EQ(cloud_remote_mq_response_handle(&readable, session.cycle->cloudSocket), 0);
    EXPECT_EQ(session.relay.read_packet(), (packet{RESPONSE, 11, "of the first"}));
    EXPECT_EQ(session.relay.read_packet(), (packet{RESPONSE, 13, "of the third"}));
    expect_counters(0, 3);
    cloud_remote_mq_remove();
    EXPECT_THAT(queued(), ElementsAre(12));
    expect_counters(0, 1);
}

TEST_F(remote_mq_response, is_sent_once) {
    web_connection exchange = await_answer(1);
    exchange.close();
    fd_set all;
    memset(&all, 0xFF, sizeof all);
    EXPECT_EQ(cloud_remote_mq_response_handle(&all, session.cycle->cloudSocket), 0);
    EXPECT_EQ(cloud_remote_mq_response_handle(&all, session.cycle->cloudSocket), 0);
    EXPECT_EQ(session.relay.read_packet(), (packet{RESPONSE, 1, ""}));
    session.disconnect();
    EXPECT_EQ(session.relay.read_exact(1), "");
}

// --- The web server fails

TEST_F(remote_mq_response, that_is_reset_fails) {
    web_connection exchange = await_answer(1);
    int fd = node()->webSvrSockfd;
    exchange.answer("half");
    exchange.reset();
    EXPECT_EQ(relay_answers(session), -1);
    EXPECT_THAT(logged(),
                ElementsAre(error_line(RECV_RESPONSE,
                                       "[CRC:] recv data from " + std::to_string(fd) + " err."),
                            error_line(RECV_RESPONSE, FAILED),
                            error_line(HANDLE_RESPONSE, std::string("E - -1 call ") + CALL_RECV)));
    expect_failed();
}

TEST_F(remote_mq_response, that_fails_ends_the_pass_and_the_next_pass_goes_on) {
    web_connection first = await_answer(11);
    web_connection second = await_answer(12);
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(node(0)->webSvrSockfd, &readable);
    FD_SET(node(1)->webSvrSockfd, &readable);
    first.reset();
    second.answer("of the second");
    second.close();
    EXPECT_EQ(cloud_remote_mq_response_handle(&readable, session.cycle->cloudSocket), -1);
    EXPECT_EQ(node(1)->status, REMOTE_MQ_FORWARDED);
    EXPECT_EQ(relay_answers(session), 0);
    EXPECT_EQ(session.relay.read_packet(), (packet{RESPONSE, 12, "of the second"}));
}

TEST_F(remote_mq_response, that_failed_sets_the_selects_bound_to_minus_one_until_it_is_dropped) {
    moved_clock clock;
    await_answer(1).reset();
    EXPECT_EQ(relay_answers(session), -1);
    fd_set set;
    FD_ZERO(&set);
    int maxFd = 9;
    cloud_remote_mq_fdset_set(&set, &maxFd);
    EXPECT_EQ(maxFd, -1);
    clock.move(10001);
    cloud_remote_mq_remove();
    expect_counters(0, 0);
    maxFd = 9;
    cloud_remote_mq_fdset_set(&set, &maxFd);
    EXPECT_EQ(maxFd, 9);
}

TEST_F(remote_mq_response, of_a_silent_web_server_is_given_up_ten_seconds_after_delivery) {
    moved_clock clock;
    clock.stop();
    web_connection exchange = await_answer(1);
    clock.move(10000);
    cloud_remote_mq_remove();
    ASSERT_THAT(queued(), ElementsAre(1));
    EXPECT_EQ(node()->status, REMOTE_MQ_FORWARDED);
    expect_counters(0, 1);
    clock.move(1);
    cloud_remote_mq_remove();
    expect_counters(0, 0);
    EXPECT_TRUE(exchange.is_at_end());
    session.disconnect();
    EXPECT_EQ(session.relay.read_exact(1), "");
}

TEST_F(remote_mq_response, that_never_closes_fails_when_nothing_comes_for_its_time) {
    web_connection exchange = await_answer(1);
    node()->timeout = 100; // ten seconds otherwise
    exchange.answer("HTTP/1.1 200 OK\r\nConnection: keep-alive\r\n\r\n");
    int64_t start = cloud_now_ms();
    EXPECT_EQ(relay_answers(session), -1);
    EXPECT_GE(cloud_now_ms(), start + 100);
    EXPECT_TRUE(log.has(error_line(RECV_RESPONSE, HasSubstr("[CRC:] recv data from "))));
    EXPECT_TRUE(exchange.is_at_end());
    expect_failed();
}

TEST_F(remote_mq_response, that_flows_is_read_to_its_end_however_long_it_takes) {
    constexpr int PIECES = 8; // nine seconds apart: 72 s in all
    moved_clock clock;
    web_connection exchange = await_answer(1);
    exchange.answer("x");
    verb_queue server;
    server.post([&] {
        for (int piece = 0; piece < PIECES; piece++) {
            wait_until_answer_is_awaited(&clock);
            clock.move(9000);
            exchange.answer("x");
        }
        exchange.close();
    });
    EXPECT_EQ(relay_answers(session), 0);
    EXPECT_EQ(session.relay.read_packet().body, std::string(PIECES + 1, 'x'));
}

TEST_F(remote_mq_response, that_flows_for_90_seconds_fails) {
    moved_clock clock;
    web_connection exchange = await_answer(1);
    exchange.answer("x");
    int64_t start = cloud_now_ms();
    verb_queue server;
    server.post([&] {
        while (exchange.answer("x")) { // until the device hangs up
            clock.move(100);
        }
    });
    EXPECT_EQ(relay_answers(session), -1);
    EXPECT_GE(cloud_now_ms() - start, 90000);
    EXPECT_TRUE(log.has(error_line(RECV_RESPONSE, HasSubstr("[CRC:] recv data from "))));
    expect_failed();
}

TEST_F(remote_mq_response, that_is_there_when_its_time_runs_out_is_still_sent) {
    moved_clock clock;
    web_connection exchange = await_answer(1);
    exchange.answer("in time");
    exchange.close();
    EXPECT_TRUE(eventually([&] { return web_server_has_answered(node()->webSvrSockfd); }));
    clock.move(11000); // spent on another answer
    cloud_remote_mq_remove();
    EXPECT_EQ(relay_answers(session), 0);
    EXPECT_EQ(session.relay.read_packet().body, "in time");
}

TEST_F(remote_mq_response, is_not_waited_for_when_the_session_is_to_end) {
    web_connection exchange = await_answer(1);
    exchange.answer("half");
    worker_wishes wishes;
    wishes.adopt();
    verb_queue control;
    control.post([&] {
        EXPECT_TRUE(eventually(is_answer_being_read));
        wishes.stop = 1;
    });
    EXPECT_EQ(relay_answers(session), -1);
    expect_failed();
}

// --- The relay fails

TEST_F(remote_mq_response, that_cannot_be_sent_is_dropped_and_not_tried_again) {
    web_connection exchange = await_answer(1);
    exchange.answer("answer");
    exchange.close();
    session.cycle->cloudSocket->status = CLOUD_SOCKET_DISCONNECTED;
    EXPECT_EQ(relay_answers(session), 9);
    EXPECT_TRUE(log.has(error_line(HANDLE_RESPONSE, std::string("E - 9 call ") + CALL_SEND)));
    EXPECT_EQ(node()->status, REMOTE_MQ_ANSWERED);
    cloud_remote_mq_remove();
    expect_counters(0, 0);
    session.cycle->cloudSocket->status = CLOUD_SOCKET_CONNECTED;
    session.disconnect();
    EXPECT_EQ(session.relay.read_exact(1), "");
}

TEST_F(remote_mq_response, cannot_be_sent_without_a_socket) {
    web_connection exchange = await_answer(1);
    exchange.close();
    fd_set all;
    memset(&all, 0xFF, sizeof all);
    EXPECT_EQ(cloud_remote_mq_response_handle(&all, nullptr), 100);
    EXPECT_TRUE(log.has(error_line(HANDLE_RESPONSE, std::string("E - 100 call ") + CALL_SEND)));
}

// --- Memory is short

TEST_F(remote_mq_response, without_memory_for_its_first_block_fails) {
    web_connection exchange = await_answer(1);
    exchange.close();
    {
        fail_call noMemory("calloc", 1);
        EXPECT_EQ(relay_answers(session), 101);
    }
    EXPECT_THAT(logged(),
                ElementsAre(error_line(RECV_RESPONSE, "E - 1 call (NULL == (pRespPkt = "
                                                      "malloc(CRC_DATA_BUF_SIZE))) failed."),
                            error_line(HANDLE_RESPONSE, std::string("E - 101 call ") + CALL_RECV)));
    expect_failed();
}

TEST_F(remote_mq_response, without_memory_to_grow_fails) {
    web_connection exchange = await_answer(1);
    verb_queue server;
    server.post([&] { exchange.answer(patterned_bytes(50000)); });
    {
        fail_call noMemory("realloc", 1);
        EXPECT_EQ(relay_answers(session), 101);
    }
    EXPECT_THAT(logged(),
                ElementsAre(error_line(RECV_RESPONSE, "[CRC:] Out of memory."),
                            error_line(RECV_RESPONSE, FAILED),
                            error_line(HANDLE_RESPONSE, std::string("E - 101 call ") + CALL_RECV)));
    expect_failed();
}

TEST_F(remote_mq_response, that_the_routers_memory_does_not_hold_fails) {
    web_connection exchange = await_answer(1);
    verb_queue server;
    server.post([&] { exchange.answer(patterned_bytes(50000)); });
    {
        shown_file low("/proc/meminfo", "MemTotal: 65536 kB\nMemAvailable: 4096 kB\n");
        EXPECT_EQ(relay_answers(session), 101);
    }
    EXPECT_THAT(logged(),
                ElementsAre(error_line(RECV_RESPONSE, "[CRC:] Out of memory."),
                            error_line(RECV_RESPONSE, FAILED),
                            error_line(HANDLE_RESPONSE, std::string("E - 101 call ") + CALL_RECV)));
    expect_failed();
}

} // namespace
