// A worker that is busy with the web server or the token's helper: heartbeats whose replies wait
// meanwhile, and a session that is to end.

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "running_session.h"
#include "support/tcp.h"
#include "token_helper.h"

using testing::IsEmpty;
using testing::StartsWith;

namespace {

const bool isPrivate = private_namespaces();

using steady = std::chrono::steady_clock;

constexpr char GATE[] = "/run/gate"; // the token's helper waits until it is closed
constexpr int SMALL_BUFFER = 65536;
constexpr int64_t BUSY_MS = 8000; // longer than a heartbeat's reply may take

class BusyWorkerTest : public RunningSession {
protected:
    // Has the web server take a request.
    web_connection begin_exchange(uint16_t id) {
        relay.send(packet_bytes({PACKET_REQUEST, id, "GET /"}));
        web_connection exchange = web.accept();
        EXPECT_EQ(exchange.read_exact(5), "GET /");
        return exchange;
    }

    // The first part of an answer. It is more than the buffers hold, so that the worker is reading
    // it afterwards, and reads on until the answer ends.
    void begin_answer(web_connection& exchange) const {
        setsockopt(exchange.fd(), SOL_SOCKET, SO_SNDBUF, &SMALL_BUFFER, sizeof SMALL_BUFFER);
        EXPECT_TRUE(exchange.answer(part));
    }

    // Asks for a token. Returns the gate once the helper waits there, which it does until the gate
    // is closed.
    int begin_token() {
        install_token_helper("io.open('/run/gate'):read()");
        unlink(GATE);
        EXPECT_EQ(mkfifo(GATE, 0600), 0);
        relay.send(packet_bytes({PACKET_WEB_TOKEN, 2, "{}"}));
        int gate = -1;
        EXPECT_TRUE(eventually([&] {
            gate = open(GATE, O_WRONLY | O_NONBLOCK | O_CLOEXEC); // fails until the helper reads
            return gate >= 0;
        }));
        return gate;
    }

    const std::string part = std::string(1024 * 1024, 'x');
};

// --- heartbeats

class BusyHeartbeatTest : public BusyWorkerTest {
protected:
    // The session goes on, and the heartbeat counts as answered.
    void expect_accepted() {
        settle();
        EXPECT_THAT(log.messages("cloud_mq_set_response"), IsEmpty());
        clock.move(100000);
        expect_heartbeat(2);
        settle();
        EXPECT_THAT(log.messages("cloud_heartbeat_insert_into_mq"), IsEmpty());
    }
};

TEST_F(BusyHeartbeatTest, AReplyThatWaitedBehindALongAnswerIsAccepted) {
    start();
    expect_heartbeat(1);
    web_connection exchange = begin_exchange(1);
    begin_answer(exchange);
    clock.move(BUSY_MS);
    answer_heartbeat(1);
    ASSERT_TRUE(relay.is_done());
    exchange.close();
    EXPECT_EQ(relay.read_packet(), (packet{PACKET_RESPONSE, 1, part}));
    expect_accepted();
}

TEST_F(BusyHeartbeatTest, AReplyThatWaitedBehindTwoLongAnswersIsAccepted) {
    start();
    expect_heartbeat(1);
    for (uint16_t id = 1; id <= 2; id++) {
        web_connection exchange = begin_exchange(id);
        begin_answer(exchange);
        clock.move(BUSY_MS);
        if (id == 2) {
            answer_heartbeat(1);
        }
        ASSERT_TRUE(relay.is_done());
        exchange.close();
        EXPECT_EQ(relay.read_packet(), (packet{PACKET_RESPONSE, id, part}));
    }
    expect_accepted();
}

TEST_F(BusyHeartbeatTest, AReplyThatWaitedBehindASlowUploadIsAccepted) {
    constexpr size_t MORE_THAN_BUFFERED = 6 * 1024 * 1024;
    const std::string body = patterned_bytes(MORE_THAN_BUFFERED + 2 * 1024 * 1024);
    start();
    expect_heartbeat(1);
    relay.send(packet_bytes({PACKET_REQUEST, 1, body}));
    answer_heartbeat(1);
    web_connection exchange = web.accept();
    setsockopt(exchange.fd(), SOL_SOCKET, SO_RCVBUF, &SMALL_BUFFER, sizeof SMALL_BUFFER);
    // Half the time at once: no piece of the body may take the relay 5 s.
    clock.move(BUSY_MS / 2);
    EXPECT_EQ(exchange.read_exact(MORE_THAN_BUFFERED), body.substr(0, MORE_THAN_BUFFERED));
    clock.move(BUSY_MS / 2);
    EXPECT_EQ(exchange.read_exact(body.size() - MORE_THAN_BUFFERED),
              body.substr(MORE_THAN_BUFFERED));
    exchange.close();
    EXPECT_EQ(relay.read_packet(), (packet{PACKET_RESPONSE, 1, ""}));
    expect_accepted();
}

TEST_F(BusyHeartbeatTest, AReplyThatWaitedBehindASlowTokenHelperIsAccepted) {
    start();
    expect_heartbeat(1);
    int gate = begin_token();
    clock.move(BUSY_MS);
    answer_heartbeat(1);
    ASSERT_TRUE(relay.is_done());
    close(gate);
    EXPECT_EQ(relay.read_packet().type, PACKET_WEB_TOKEN);
    expect_accepted();
}

TEST_F(BusyHeartbeatTest, TheTimeInWhichTheWorkerWasNotBusyCounts) {
    start();
    expect_heartbeat(1);
    web_connection exchange = begin_exchange(1);
    begin_answer(exchange);
    clock.move(BUSY_MS);
    exchange.close();
    EXPECT_EQ(relay.read_packet(), (packet{PACKET_RESPONSE, 1, part}));
    rest();
    clock.move(5001);
    answer_heartbeat(1);
    EXPECT_EQ(end(), 0);
    EXPECT_THAT(log.messages("cloud_mq_set_response"),
                testing::ElementsAre("[CRC:]response timeout, will discard"));
}

TEST_F(BusyHeartbeatTest, AnUnansweredOneCountsLaterByTheTimeInWhichTheWorkerWasBusy) {
    start();
    expect_heartbeat(1);
    web_connection exchange = begin_exchange(1);
    begin_answer(exchange);
    clock.move(BUSY_MS);
    exchange.close();
    EXPECT_EQ(relay.read_packet(), (packet{PACKET_RESPONSE, 1, part}));
    rest();
    clock.move(100000 - BUSY_MS / 2);
    rest();
    EXPECT_THAT(log.messages("cloud_heartbeat_insert_into_mq"), IsEmpty());
    clock.move(BUSY_MS / 2);
    expect_heartbeat(2);
    EXPECT_THAT(log.messages("cloud_heartbeat_insert_into_mq"),
                testing::ElementsAre("[CRC:] Send heartBeat timeout 1 times ...."));
}

// --- a token helper that hangs

TEST_F(BusyWorkerTest, ATokenHelperThatHangsIsEndedAndTheSessionGoesOn) {
    start();
    expect_heartbeat(1);
    int gate = begin_token();
    clock.move(10001);
    EXPECT_EQ(relay.read_packet(),
              (packet{PACKET_WEB_TOKEN, 2, R"({"err_code": 0,"webToken":""})"}));
    close(gate);
    settle();
}

// --- the end of the session

class BusyStopTest : public BusyWorkerTest {
protected:
    void expect_end_within_a_second() {
        auto begin = steady::now();
        EXPECT_EQ(cloud_cycle_stop(cycle), 0);
        EXPECT_EQ(end(), 0);
        EXPECT_LT(steady::now() - begin, std::chrono::seconds(1) * SLOWNESS);
        EXPECT_TRUE(log.has(loop_info(SESSION_CLOSED)));
    }
};

TEST_F(BusyStopTest, AStopEndsTheWaitForAWebServerThatTakesNoConnection) {
    deaf_listener deaf;
    write_file("/etc/config/system", "config service 'service_port'\n\toption http_port '" +
                                         std::to_string(deaf.port()) + "'\n");
    start();
    relay.send(packet_bytes({PACKET_REQUEST, 1, "GET /"}));
    ASSERT_TRUE(log.gets(info_line("_cloud_remote_mq_request_con_web_server",
                                   StartsWith("Connect web-server, lWebSvrProxySockfd "))));
    expect_end_within_a_second();
}

TEST_F(BusyStopTest, AStopEndsTheWaitForAWebServerThatDoesNotTakeTheBody) {
    start();
    relay.send(packet_bytes({PACKET_REQUEST, 1, std::string(16 * 1024 * 1024, 'x')}));
    web_connection exchange = web.accept();
    ASSERT_TRUE(eventually([&] {
        int waiting = 0;
        ioctl(exchange.fd(), FIONREAD, &waiting);
        return waiting >= SMALL_BUFFER;
    }));
    expect_end_within_a_second();
}

TEST_F(BusyStopTest, AStopEndsTheWaitForTheRestOfAnAnswer) {
    start();
    web_connection exchange = begin_exchange(1);
    begin_answer(exchange);
    expect_end_within_a_second();
}

} // namespace
