#include "session/main_loop.h"

#include "running_session.h"
#include "support/tcp.h"
#include "token_helper.h"

using testing::_;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

const bool isPrivate = private_namespaces();

constexpr char LOOP[] = "cloud_cycle_start";
constexpr uint16_t UNKNOWN = 7; // ends the session when it is read
constexpr int64_t IDLE_LIMIT_MS = 600000;
constexpr int64_t NEVER_MS = INT64_MAX;

using steady = std::chrono::steady_clock;

class MainLoopTest : public RunningSession {
protected:
    void send_unknown() { relay.send(packet_bytes({UNKNOWN, 1, ""})); }

    void expect_ended_by(int code) {
        EXPECT_EQ(end(), 0);
        EXPECT_THAT(log.messages(LOOP),
                    ElementsAre("[CRC:] begin cycle loop",
                                "[CRC:] socket receive/send error: " + std::to_string(code),
                                SESSION_CLOSED));
        EXPECT_EQ(cycle->closeByCloud, 1);
        EXPECT_EQ(cycle->status, CLOUD_CYCLE_DISCONNECTED);
    }
};

TEST_F(MainLoopTest, AConnectThatFailsIsReturnedWithoutALoop) {
    cycle->defaultPort = refusing_port();
    run();
    EXPECT_EQ(end(), 9);
    EXPECT_THAT(log.messages(LOOP), ElementsAre("E - 9 call cloud_session_connect(cycle) failed."));
    EXPECT_EQ(cycle->status, CLOUD_CYCLE_RUNNING | CLOUD_CYCLE_DISCONNECTED) << "goes on running";
}

TEST_F(MainLoopTest, ANullCycleDoesNotConnect) {
    EXPECT_EQ(cloud_cycle_start(nullptr), 100);
    EXPECT_THAT(log.messages(LOOP),
                ElementsAre("E - 100 call cloud_session_connect(cycle) failed."));
}

TEST_F(MainLoopTest, TheFirstTurnSendsAHeartbeat) {
    start();
    expect_heartbeat(1);
}

TEST_F(MainLoopTest, AStopEndsTheSessionWithinATurn) {
    start();
    auto begin = steady::now();
    EXPECT_EQ(cloud_cycle_stop(cycle), 0);
    EXPECT_EQ(end(), 0);
    EXPECT_LT(steady::now() - begin, std::chrono::seconds(5));
    EXPECT_THAT(log.messages(LOOP), ElementsAre("[CRC:] begin cycle loop", SESSION_CLOSED));
    EXPECT_EQ(cycle->status, CLOUD_CYCLE_DISCONNECTED);
    EXPECT_EQ(cycle->closeByCloud, 0);
    expect_heartbeat(1);
    EXPECT_TRUE(relay.is_closed_in_order());
}

TEST_F(MainLoopTest, AWorkerThatIsLetGoEndsItsSession) {
    start();
    cloud_cycle_let_go(cycle);
    EXPECT_EQ(end(), 0);
    EXPECT_THAT(log.messages(LOOP), ElementsAre("[CRC:] begin cycle loop", SESSION_CLOSED));
}

TEST_F(MainLoopTest, APeersCloseIsNoError) {
    start();
    relay.close_notify();
    EXPECT_EQ(end(), 0);
    EXPECT_THAT(log.messages(LOOP),
                ElementsAre("[CRC:] begin cycle loop", CLOSED_BY_PEER, SESSION_CLOSED));
    EXPECT_THAT(log.lines(), Contains(info_line("cloud_session_disconnect",
                                                "[CRC:] Cloud socket is already disconnected")));
    EXPECT_EQ(cycle->closeByCloud, 1);
    EXPECT_EQ(cycle->closeByClient, 0);
    EXPECT_EQ(cycle->status, CLOUD_CYCLE_DISCONNECTED);
}

TEST_F(MainLoopTest, AVanishedPeerEndsTheSession) {
    start();
    relay.reset();
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(cycle->closeByCloud, 1);
    EXPECT_THAT(log.messages(LOOP), Contains(SESSION_CLOSED).Times(1));
}

TEST_F(MainLoopTest, AHeaderThatNeverEndsIsAReceiveError) {
    start();
    settle();
    relay.send("half");
    ASSERT_TRUE(relay.is_done());
    // More than five seconds after the loop began to read; when that is cannot be seen.
    ASSERT_TRUE(eventually([&] {
        clock.move(5001);
        return eventually(
            [&] { return log.has(error_line("cloud_socket_recv_buf", "[CRC:] recv timeout")); },
            std::chrono::milliseconds(300));
    }));
    EXPECT_EQ(end(), 0);
    EXPECT_THAT(log.messages(LOOP),
                ElementsAre("[CRC:] begin cycle loop", "[CRC:] socket receive error:4",
                            "[CRC:] socket receive/send error: 4", SESSION_CLOSED));
    EXPECT_EQ(cycle->closeByCloud, 1);
}

TEST_F(MainLoopTest, EveryReceiveFailureIsCalledNumberFourFirst) {
    start();
    settle();
    fail_call failure("malloc", 1, calls_of::every_thread);
    relay.send(packet_bytes({PACKET_HELLO, 1, ""}));
    EXPECT_EQ(end(), 0);
    EXPECT_THAT(log.messages(LOOP),
                ElementsAre("[CRC:] begin cycle loop", "[CRC:] socket receive error:4",
                            "[CRC:] socket receive/send error: 101", SESSION_CLOSED));
}

TEST_F(MainLoopTest, ABadMagicNumberEndsTheSession) {
    start();
    relay.send(packet_bytes({PACKET_HELLO, 1, "", 0, 0x0BB0}));
    expect_ended_by(10);
}

TEST_F(MainLoopTest, AnUnknownTypeEndsTheSession) {
    start();
    send_unknown();
    expect_ended_by(-1);
}

TEST_F(MainLoopTest, AReplyThatNobodyWaitsForEndsTheSession) {
    start();
    answer_heartbeat(999);
    expect_ended_by(-1);
}

TEST_F(MainLoopTest, ARefusedRequestEndsTheSession) {
    write_file("/etc/config/system", "config service 'service_port'\n\toption http_port '" +
                                         std::to_string(refusing_port()) + "'\n");
    start();
    relay.send(packet_bytes({PACKET_REQUEST, 1, "GET /\r\n\r\n"}));
    expect_ended_by(-1);
}

TEST_F(MainLoopTest, APeersCloseWithinABodyEndsTheSessionWithoutAReceiveErrorLine) {
    start();
    relay.send(header_bytes(PACKET_REQUEST, 1, 1000) + "the first bytes");
    relay.close_notify();
    EXPECT_EQ(end(), 0);
    EXPECT_THAT(log.messages("cloud_remote_mq_request_handle"),
                Contains("E - 9 call _cloud_remote_mq_request_send_to_web_server(cycle, "
                         "pRemoteMqNode, timeout) failed."));
    EXPECT_THAT(log.messages(LOOP), ElementsAre("[CRC:] begin cycle loop", SESSION_CLOSED));
    EXPECT_EQ(cycle->closeByCloud, 1);
    EXPECT_EQ(cycle->status, CLOUD_CYCLE_DISCONNECTED);
}

TEST_F(MainLoopTest, PacketsOfOneRecordAreHandledAtOnce) {
    constexpr int COUNT = 60;
    start();
    settle();
    std::string record;
    for (uint16_t id = 1; id <= COUNT; id++) {
        record += packet_bytes({PACKET_HELLO, id, ""});
    }
    auto begin = steady::now();
    relay.send(record + packet_bytes({UNKNOWN, 0, ""}));
    EXPECT_EQ(end(), 0);
    EXPECT_LT(steady::now() - begin, std::chrono::seconds(6)) << "turns of 200 ms would take 12 s";
    EXPECT_EQ(log.count(plain_line("[CRC:] parse req, id      : 60\r")), 1U);
}

TEST_F(MainLoopTest, ARecordThatComesInTwoSegmentsIsReadWhenItIsWhole) {
    start();
    settle();
    relay.send_part(packet_bytes({PACKET_HELLO, 77, ""}), 9);
    ASSERT_TRUE(relay.is_done());
    expect_heartbeat(1);
    clock.move(100000); // the next heartbeat shows that the loop turns meanwhile
    expect_heartbeat(2);
    clock.move(5001);
    expect_heartbeat(3);
    relay.send_rest();
    EXPECT_TRUE(log.gets(plain_line("[CRC:] parse req, id      : 77\r")));
    settle();
}

TEST_F(MainLoopTest, ARequestIsAnsweredByTheWebServer) {
    start();
    expect_heartbeat(1);
    relay.send(packet_bytes({PACKET_REQUEST, 0x1234, "GET /\r\n\r\n"}));
    web_connection exchange = web.accept();
    EXPECT_EQ(exchange.read_exact(9), "GET /\r\n\r\n");
    exchange.answer("hello");
    exchange.close();
    EXPECT_EQ(relay.read_packet(), (packet{PACKET_RESPONSE, 0x1234, "hello"}));
    settle();
}

// The body ends in bytes that are not TLS: a read error, but not the end of the connection.
TEST_F(MainLoopTest, ATokenRequestWhoseBodyArrivesShortIsDroppedAndTheSessionGoesOn) {
    constexpr char BROKEN_RECORD[] = "\x63\x03\x03\0\x10"; // a record of unknown type
    install_token_helper("io.write('0123456789abcdef')");
    start();
    expect_heartbeat(1);
    settle();
    relay.send(header_bytes(PACKET_WEB_TOKEN, 2, 16) + "{\"na");
    relay.send_raw(std::string(BROKEN_RECORD, sizeof BROKEN_RECORD - 1));
    ASSERT_TRUE(
        log.gets(error_line("cloud_server_handle_request_web_token", "[CRC:] Bad request.")));
    clock.move(100000);
    expect_heartbeat(2); // the next packet: the request got no reply
    EXPECT_EQ(cloud_cycle_stop(cycle), 0);
    EXPECT_EQ(end(), 0);
    EXPECT_THAT(log.messages(LOOP), ElementsAre("[CRC:] begin cycle loop", SESSION_CLOSED));
    EXPECT_EQ(cycle->closeByCloud, 0);
}

// The helper holds the loop while both the relay and the web server have something for it.
TEST_F(MainLoopTest, TheRelayGoesBeforeTheWebServersAnswers) {
    constexpr char GATE[] = "/run/gate";
    install_token_helper("io.open('/run/gate'):read()");
    unlink(GATE);
    ASSERT_EQ(mkfifo(GATE, 0600), 0);
    start();
    low_descriptors_taken onlyHigherOnes; // so that the relay is watched while an answer is awaited
    relay.send(packet_bytes({PACKET_REQUEST, 1, ""}));
    web_connection exchange = web.accept();
    ASSERT_TRUE(log.gets(info_line("cloud_remote_mq_request_handle",
                                   "[CRC:] Send remote request to web-server successfully.")));
    relay.send(packet_bytes({PACKET_WEB_TOKEN, 2, "{}"}));
    int gate = -1;
    ASSERT_TRUE(eventually([&] {
        gate = open(GATE, O_WRONLY | O_NONBLOCK | O_CLOEXEC); // fails until the helper reads
        return gate >= 0;
    }));
    exchange.answer("hello");
    exchange.close();
    for (uint16_t id = 101; id <= 105; id++) {
        relay.send(packet_bytes({PACKET_HELLO, id, ""}));
    }
    ASSERT_TRUE(relay.is_done());
    close(gate);

    testing::Matcher<log_line> answered = info_line("_cloud_remote_mq_response_recv", _);
    ASSERT_TRUE(log.gets(answered));
    EXPECT_LT(place_of(plain_line("[CRC:] parse req, id      : 105\r")), place_of(answered));
}

// --- TLS records without data ---

class SilentRecordTest : public MainLoopTest, public testing::WithParamInterface<int> {};

TEST_P(SilentRecordTest, DoesNotEndTheSession) {
    start();
    settle();
    if (GetParam() == 0) {
        relay.send_ticket();
    } else {
        relay.update_keys(GetParam() == 2);
    }
    ASSERT_TRUE(relay.is_done());
    settle();
    send_unknown();
    expect_ended_by(-1);
    EXPECT_THAT(log.messages("cloud_socket_recv_buf"), Not(Contains("[CRC:] recv timeout")));
}

INSTANTIATE_TEST_SUITE_P(TicketKeyUpdateAndRequestedKeyUpdate, SilentRecordTest,
                         testing::Values(0, 1, 2));

// --- descriptors above the bound ---

class QuirkTurnTest : public MainLoopTest {
protected:
    // Heartbeats that follow each other closely show that turns go by.
    QuirkTurnTest() { cycle->heartbeatInterval = 100; }

    void wait_for_turns(int number) {
        for (int turn = 0; turn < number; turn++) {
            EXPECT_EQ(relay.read_packet().type, PACKET_HEARTBEAT);
        }
    }

    // The next packet that is no heartbeat.
    packet read_other() {
        packet next = relay.read_packet();
        while (next.type == PACKET_HEARTBEAT) {
            next = relay.read_packet();
        }
        return next;
    }

    // Has the web server take a request and keep it.
    web_connection begin_exchange() {
        relay.send(packet_bytes({PACKET_REQUEST, 5, ""}));
        web_connection exchange = web.accept();
        EXPECT_TRUE(log.gets(info_line("cloud_remote_mq_request_handle",
                                       "[CRC:] Send remote request to web-server successfully.")));
        return exchange;
    }
};

TEST_F(QuirkTurnTest, TheRelayIsNotWatchedWhileAnAnswerBelowItIsAwaited) {
    {
        low_descriptors_taken untilTheRelayHasOneAbove;
        start();
    }
    web_connection exchange = begin_exchange();
    send_unknown();
    ASSERT_TRUE(relay.is_done());
    wait_for_turns(4);
    EXPECT_EQ(log.count(loop_error("[CRC:] socket receive/send error: -1")), 0U);

    exchange.answer("hello");
    exchange.close();
    EXPECT_EQ(read_other(), (packet{PACKET_RESPONSE, 5, "hello"}));
    expect_ended_by(-1);
}

TEST_F(QuirkTurnTest, TheRelayIsWatchedWhileAnAnswerAboveItIsAwaited) {
    start();
    low_descriptors_taken onlyHigherOnes;
    web_connection exchange = begin_exchange();
    send_unknown();
    expect_ended_by(-1);
    EXPECT_TRUE(exchange.is_at_end());
}

TEST_F(QuirkTurnTest, NothingIsWatchedWhileAFailedExchangeWaitsToBeDropped) {
    start();
    web_connection exchange = begin_exchange();
    exchange.reset();
    ASSERT_TRUE(
        log.gets(error_line("_cloud_remote_mq_response_recv", "=======HTTPD -> CRC: FAILED.")));
    send_unknown();
    ASSERT_TRUE(relay.is_done());
    wait_for_turns(4);
    EXPECT_EQ(log.count(loop_error("[CRC:] socket receive/send error: -1")), 0U);

    clock.move(10001); // the exchange's life
    expect_ended_by(-1);
}

TEST_F(QuirkTurnTest, WhatTlsHoldsAlreadyIsHandledAllTheSame) {
    {
        low_descriptors_taken untilTheRelayHasOneAbove;
        start();
    }
    relay.send(packet_bytes({PACKET_REQUEST, 5, ""}) + packet_bytes({UNKNOWN, 0, ""}));
    web_connection exchange = web.accept();
    expect_ended_by(-1);
}

TEST_F(MainLoopTest, AFailedWaitIsLoggedAndTheNextTurnGoesOn) {
    start();
    settle();
    fail_call failure("select", 1, calls_of::every_thread);
    ASSERT_TRUE(log.gets(loop_error("[CRC:] select error Interrupted system call")));
    settle();
    EXPECT_EQ(log.count(loop_error("[CRC:] select error Interrupted system call")), 1U);
}

// --- waits that do not work ---

TEST_F(MainLoopTest, AWaitThatKeepsFailingTakesATurnsTimeEachTime) {
    start();
    settle();
    auto begin = steady::now();
    {
        fail_every_call failure("select", EBADF);
        ASSERT_TRUE(eventually([&] { return failure.times() >= 6; }));
    }
    EXPECT_GE(steady::now() - begin, 5 * std::chrono::milliseconds(200));
    settle();
    EXPECT_TRUE(log.has(loop_error("[CRC:] select error Bad file descriptor")));
}

TEST_F(MainLoopTest, AnInterruptedWaitIsRepeatedAtOnce) {
    start();
    settle();
    auto begin = steady::now();
    {
        fail_every_call failure("select", EINTR);
        ASSERT_TRUE(eventually([&] { return failure.times() >= 100; }));
    }
    EXPECT_LT(steady::now() - begin, std::chrono::seconds(10)) << "turns of 200 ms take 20 s";
    settle();
}

// As when a key update is to be answered while the connection takes nothing.
TEST_F(MainLoopTest, APacketBehindTlsThatWantsToWriteIsWaitedForWithPauses) {
    start();
    settle();
    auto begin = steady::now();
    {
        forced_tls noPeek("wolfSSL_peek", -1, TLS_WANT_WRITE);
        relay.send(packet_bytes({PACKET_HELLO, 77, ""}));
        ASSERT_TRUE(eventually([&] { return noPeek.count() >= 20; }));
        EXPECT_GE(steady::now() - begin, 19 * std::chrono::milliseconds(20));
        EXPECT_FALSE(log.has(plain_line("[CRC:] parse req, id      : 77\r")));
    }
    EXPECT_TRUE(log.gets(plain_line("[CRC:] parse req, id      : 77\r")));
    settle();
}

// --- the idle watchdog ---

class IdleTest : public MainLoopTest {
protected:
    // Without heartbeats, each of which counts as a sign of life.
    IdleTest() { cycle->heartbeatInterval = NEVER_MS; }

    void expect_ended_as_if_by_client() {
        EXPECT_EQ(end(), 0);
        EXPECT_THAT(log.messages(LOOP), ElementsAre("[CRC:] begin cycle loop", SESSION_CLOSED));
        EXPECT_EQ(cycle->closeByClient, 1);
        EXPECT_EQ(cycle->closeByCloud, 0);
    }
};

TEST_F(IdleTest, TenMinutesWithoutSignOfLifeEndTheSession) {
    start();
    clock.move(IDLE_LIMIT_MS - 60000);
    settle();
    clock.move(60001);
    expect_ended_as_if_by_client();
    EXPECT_TRUE(relay.is_closed_in_order());
}

TEST_F(IdleTest, TenMinutesAreExact) {
    clock.stop();
    start();
    clock.move(IDLE_LIMIT_MS);
    settle();
    EXPECT_EQ(cycle->closeByClient, 0);
    clock.move(1);
    expect_ended_as_if_by_client();
}

TEST_F(IdleTest, ARequestIsASignOfLife) {
    start();
    clock.move(IDLE_LIMIT_MS - 60000);
    relay.send(packet_bytes({PACKET_REQUEST, 1, ""}));
    web.accept().close();
    ASSERT_EQ(relay.read_packet().type, PACKET_RESPONSE);
    clock.move(IDLE_LIMIT_MS - 60000);
    settle();
    clock.move(60001);
    expect_ended_as_if_by_client();
}

TEST_F(IdleTest, AnUncountedRequestIsNone) {
    start();
    clock.move(IDLE_LIMIT_MS - 60000);
    relay.send(packet_bytes({PACKET_REQUEST_UNCOUNTED, 1, ""}));
    web.accept().close();
    ASSERT_EQ(relay.read_packet().type, PACKET_RESPONSE);
    settle();
    clock.move(60001);
    expect_ended_as_if_by_client();
}

TEST_F(IdleTest, ATimeAheadOfTheClockCountsAsLongAgo) {
    start();
    settle();
    clock.move(-10000);
    expect_ended_as_if_by_client();
}

TEST_F(IdleTest, ATurnWhoseWaitFailedDoesNotEndAnIdleSession) {
    start();
    settle();
    {
        fail_every_call failure("select");
        ASSERT_TRUE(eventually([&] { return failure.times() > 0; }));
        clock.move(IDLE_LIMIT_MS + 1);
        int before = failure.times();
        ASSERT_TRUE(eventually([&] { return failure.times() >= before + 2; }))
            << "the session ended after a wait that failed";
    }
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(cycle->closeByClient, 1) << "after the first wait that succeeded";
    EXPECT_EQ(cycle->closeByCloud, 0);
}

// --- heartbeats through their whole life ---

using HeartbeatLifeTest = MainLoopTest;

TEST_F(HeartbeatLifeTest, AnsweredOnesFollowEveryHundredSecondsAndTheSessionStays) {
    start();
    for (uint16_t id = 1; id <= 12; id++) { // more than the ten minutes of the idle watchdog
        expect_heartbeat(id);
        answer_heartbeat(id);
        settle();
        clock.move(50000);
        settle();
        clock.move(50000);
    }
    expect_heartbeat(13);
    EXPECT_THAT(log.messages("cloud_heartbeat_insert_into_mq"), IsEmpty());
    cloud_cycle_stop(cycle);
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(relay.read_exact(1), "") << "no heartbeat in between";
}

TEST_F(HeartbeatLifeTest, UnansweredOnesEndTheSession) {
    start();
    expect_heartbeat(1);
    clock.move(100000);
    for (uint16_t id = 2; id <= 6; id++) {
        expect_heartbeat(id);
        clock.move(id < 6 ? 5001 : 0);
    }
    EXPECT_EQ(end(), 0);
    std::vector<std::string> expected;
    for (int times : {1, 2, 3, 4, 5, 5}) {
        expected.push_back("[CRC:] Send heartBeat timeout " + std::to_string(times) +
                           " times ....");
    }
    EXPECT_EQ(log.messages("cloud_heartbeat_insert_into_mq"), expected);
    EXPECT_EQ(cycle->closeByClient, 1);
    EXPECT_THAT(log.messages(LOOP), ElementsAre("[CRC:] begin cycle loop", SESSION_CLOSED));
    EXPECT_TRUE(relay.is_closed_in_order());
}

TEST_F(HeartbeatLifeTest, AReplyAfterTimeOutsKeepsTheSession) {
    start();
    expect_heartbeat(1);
    clock.move(100000);
    expect_heartbeat(2);
    clock.move(5001);
    expect_heartbeat(3);
    answer_heartbeat(3);
    settle();
    clock.move(100000);
    expect_heartbeat(4);
    clock.move(100000);
    expect_heartbeat(5);
    std::string once = "[CRC:] Send heartBeat timeout 1 times ....";
    EXPECT_THAT(log.messages("cloud_heartbeat_insert_into_mq"),
                ElementsAre(once, "[CRC:] Send heartBeat timeout 2 times ....", once));
}

TEST_F(HeartbeatLifeTest, ALateReplyEndsTheSession) {
    start();
    expect_heartbeat(1);
    rest();
    clock.move(6000);
    answer_heartbeat(1);
    expect_ended_by(-1);
    EXPECT_THAT(log.messages("cloud_mq_set_response"),
                ElementsAre("[CRC:]response timeout, will discard"));
}

} // namespace
