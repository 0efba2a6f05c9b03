// The heartbeat's rules, turn by turn, on a real connection and a clock that the test moves. The
// same life inside the main loop is in main_loop_test.cpp.

#include "session/heartbeat.h"

#include <climits>
#include <cstdlib>

#include "core/clock.h"
#include "queue/cloud_mq.h"
#include "queue/cloud_remote_mq.h"
#include "session/dispatch.h"
#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "support/namespaces.h"
#include "support/relay_session.h"
#include "transport/packet_header.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const bool isPrivate = private_namespaces();

constexpr char INSERT[] = "cloud_heartbeat_insert_into_mq";
constexpr int64_t LONG_UP_MS = 1000000000; // when the tests begin, by the moved clock
constexpr int64_t INTERVAL_MS = 100000;
constexpr int64_t REPLY_TIMEOUT_MS = 5000;
constexpr int SLOTS = 40;

std::string timeout_message(int count) {
    return "[CRC:] Send heartBeat timeout " + std::to_string(count) + " times ....";
}

class HeartbeatTest : public testing::Test {
protected:
    HeartbeatTest() {
        if (pCloudRemoteMq == nullptr) {
            cloud_remote_mq_init();
        }
        session.cycle->status = CLOUD_CYCLE_RUNNING | CLOUD_CYCLE_CONNECTED;
        set_clock(LONG_UP_MS);
        log.clear();
    }

    void set_clock(int64_t now) { clock.move(now - cloud_now_ms()); }

    // What the main loop does for heartbeats in a turn.
    void turn() {
        cloud_heartbeat_insert_into_mq(cycle);
        cloud_mq_send_request(cycle);
    }

    // A turn so long after the last heartbeat left.
    void turn_after_send(int64_t elapsed) {
        set_clock(cycle->heartbeatSendTime + elapsed);
        turn();
    }

    int answer(uint16_t id) {
        std::string reply = header_bytes(PACKET_HEARTBEAT, id, 0);
        return cloud_server_handle_dispatch(cycle, reinterpret_cast<const uint8_t*>(reply.data()),
                                            reply.size(), 0);
    }

    std::vector<std::string> said() const { return log.messages(INSERT); }
    int inserted() const { return cycle->msgQueue->nodeReady; }

    log_capture log;
    moved_clock clock;
    relay_session session;
    cloud_cycle_t* const cycle = session.cycle;
};

TEST_F(HeartbeatTest, ResetForgetsEverything) {
    cycle->heartbeatStatus = HEARTBEAT_ANSWERED;
    cycle->heartbeatTimeoutTimes = 3;
    cycle->heartbeatSendTime = 1;
    cycle->heartbeatRecvTime = 2;
    cloud_heartbeat_reset_record(cycle);
    EXPECT_EQ(cycle->heartbeatStatus, HEARTBEAT_IDLE);
    EXPECT_EQ(cycle->heartbeatTimeoutTimes, 0);
    EXPECT_EQ(cycle->heartbeatSendTime, 0);
    EXPECT_EQ(cycle->heartbeatRecvTime, 0);
}

TEST_F(HeartbeatTest, ASendIsRecordedWithoutTouchingTheCount) {
    cycle->heartbeatTimeoutTimes = 3;
    cycle->heartbeatRecvTime = 2;
    cloud_heartbeat_send_record(cycle);
    EXPECT_EQ(cycle->heartbeatStatus, HEARTBEAT_SENT);
    EXPECT_NEAR(static_cast<double>(cycle->heartbeatSendTime), LONG_UP_MS, 10000);
    EXPECT_EQ(cycle->heartbeatRecvTime, 0);
    EXPECT_EQ(cycle->heartbeatTimeoutTimes, 3);
}

TEST_F(HeartbeatTest, AReplyIsRecordedAndClearsTheCount) {
    cycle->heartbeatTimeoutTimes = 3;
    cycle->heartbeatSendTime = 1;
    cloud_heartbeat_recv_record(cycle);
    EXPECT_EQ(cycle->heartbeatStatus, HEARTBEAT_ANSWERED);
    EXPECT_EQ(cycle->heartbeatTimeoutTimes, 0);
    EXPECT_NEAR(static_cast<double>(cycle->heartbeatRecvTime), LONG_UP_MS, 10000);
    EXPECT_EQ(cycle->heartbeatSendTime, 1);
}

TEST_F(HeartbeatTest, ANullCycleIsOnlyLogged) {
    cloud_heartbeat_reset_record(nullptr);
    cloud_heartbeat_send_record(nullptr);
    cloud_heartbeat_recv_record(nullptr);
    cloud_heartbeat_insert_into_mq(nullptr);
    std::vector<testing::Matcher<log_line>> expected;
    for (const char* function : {"cloud_heartbeat_reset_record", "cloud_heartbeat_send_record",
                                 "cloud_heartbeat_recv_record", INSERT}) {
        expected.push_back(error_line(function, "Ensure NULL != cycle failed."));
    }
    EXPECT_THAT(log.lines(), testing::ElementsAreArray(expected));
}

TEST_F(HeartbeatTest, ThePacketIsTwelveBytesAndOneSpareZero) {
    uint8_t* packet = cloud_heartbeat_generate_pkt(0x1234);
    ASSERT_NE(packet, nullptr);
    EXPECT_THAT(std::vector<int>(packet, packet + 13),
                ElementsAre(0xB0, 0x0B, 0x00, 0x02, 0x12, 0x34, 0, 0, 0, 0, 0, 0, 0));
    free(packet);
}

TEST_F(HeartbeatTest, ThePacketIsNothingWithoutMemory) {
    fail_call failure("calloc");
    EXPECT_EQ(cloud_heartbeat_generate_pkt(1), nullptr);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("cloud_heartbeat_generate_pkt",
                                                    "[CRC:] Out of memory for heartbeat pkt.")));
}

TEST_F(HeartbeatTest, TheFirstTurnSendsTheFirst) {
    turn();
    EXPECT_EQ(session.relay.read_exact(12), std::string("\xB0\x0B\0\2\0\1\0\0\0\0\0\0", 12));
    const cloud_mq_node_t& node = cycle->msgQueue->node[0];
    EXPECT_EQ(node.id, 1);
    EXPECT_EQ(node.clientFd, -1);
    EXPECT_EQ(node.reqLen, 12);
    EXPECT_EQ(node.timeout, REPLY_TIMEOUT_MS);
    EXPECT_EQ(node.status, CLOUD_MQ_SENT);
    EXPECT_EQ(cycle->heartbeatStatus, HEARTBEAT_SENT);
    EXPECT_THAT(said(), IsEmpty());
}

TEST_F(HeartbeatTest, TheFirstWaitsOnASystemThatIsUpForLessThanTheInterval) {
    set_clock(INTERVAL_MS - 10000);
    turn();
    EXPECT_EQ(inserted(), 0);
    set_clock(INTERVAL_MS);
    turn();
    EXPECT_EQ(inserted(), 1);
}

TEST_F(HeartbeatTest, AnAnsweredOneIsFollowedAfterTheInterval) {
    turn();
    ASSERT_EQ(answer(1), 0);
    turn_after_send(INTERVAL_MS - 10000);
    EXPECT_EQ(inserted(), 1);
    turn_after_send(INTERVAL_MS);
    EXPECT_EQ(inserted(), 2);
    EXPECT_THAT(said(), IsEmpty());
    session.relay.read_packet();
    EXPECT_EQ(session.relay.read_packet(), (packet{PACKET_HEARTBEAT, 2, ""}));
}

TEST_F(HeartbeatTest, AnUnansweredOneCountsAfterTheIntervalAndIsRepeatedAtOnce) {
    turn();
    turn_after_send(INTERVAL_MS - 10000);
    EXPECT_THAT(said(), IsEmpty());
    EXPECT_EQ(inserted(), 1);
    turn_after_send(INTERVAL_MS);
    EXPECT_THAT(said(), ElementsAre(timeout_message(1)));
    EXPECT_EQ(inserted(), 2);
}

TEST_F(HeartbeatTest, ARepeatCountsAfterMoreThanFiveSeconds) {
    turn();
    turn_after_send(INTERVAL_MS);
    turn_after_send(REPLY_TIMEOUT_MS - 2000);
    EXPECT_THAT(said(), ElementsAre(timeout_message(1)));
    EXPECT_EQ(inserted(), 2);
    turn_after_send(REPLY_TIMEOUT_MS + 1);
    EXPECT_THAT(said(), ElementsAre(timeout_message(1), timeout_message(2)));
    EXPECT_EQ(inserted(), 3);
}

TEST_F(HeartbeatTest, FiveTimeOutsEndTheSession) {
    turn();
    turn_after_send(INTERVAL_MS);
    for (int repeat = 2; repeat <= 5; repeat++) {
        turn_after_send(REPLY_TIMEOUT_MS + 1);
    }
    EXPECT_EQ(cycle->closeByClient, 0);
    EXPECT_EQ(cycle->heartbeatTimeoutTimes, 5);

    turn_after_send(0); // the very next turn
    EXPECT_THAT(said(), ElementsAre(timeout_message(1), timeout_message(2), timeout_message(3),
                                    timeout_message(4), timeout_message(5), timeout_message(5)));
    EXPECT_EQ(cycle->closeByClient, 1);
    EXPECT_EQ(cycle->closeByCloud, 0);
    EXPECT_EQ(cycle->status, CLOUD_CYCLE_RUNNING | CLOUD_CYCLE_DISCONNECTED);
    EXPECT_EQ(cycle->heartbeatStatus, HEARTBEAT_IDLE);
    EXPECT_EQ(cycle->heartbeatTimeoutTimes, 0);
    for (uint16_t id = 1; id <= 6; id++) {
        EXPECT_EQ(session.relay.read_packet(), (packet{PACKET_HEARTBEAT, id, ""}));
    }
    EXPECT_TRUE(session.relay.is_closed_in_order());
}

TEST_F(HeartbeatTest, ARepeatIsDueAMillisecondAfterTheReplyTimeout) {
    clock.stop();
    turn();
    turn_after_send(INTERVAL_MS);
    turn_after_send(REPLY_TIMEOUT_MS);
    EXPECT_THAT(said(), ElementsAre(timeout_message(1)));
    turn_after_send(REPLY_TIMEOUT_MS + 1);
    EXPECT_THAT(said(), ElementsAre(timeout_message(1), timeout_message(2)));
}

TEST_F(HeartbeatTest, AReplyInTimeClearsTheCount) {
    turn();
    turn_after_send(INTERVAL_MS);
    turn_after_send(REPLY_TIMEOUT_MS + 1);
    set_clock(cycle->heartbeatSendTime + REPLY_TIMEOUT_MS - 2000);
    EXPECT_EQ(answer(3), 0);
    EXPECT_EQ(cycle->heartbeatTimeoutTimes, 0);
    EXPECT_EQ(cycle->heartbeatStatus, HEARTBEAT_ANSWERED);
    log.clear();
    turn_after_send(INTERVAL_MS - 10000);
    EXPECT_EQ(inserted(), 3);
    turn_after_send(INTERVAL_MS);
    EXPECT_EQ(inserted(), 4);
    EXPECT_THAT(said(), IsEmpty());
}

TEST_F(HeartbeatTest, AReplyAfterSixSecondsDoesNotClearTheCount) {
    turn();
    turn_after_send(INTERVAL_MS);
    set_clock(cycle->heartbeatSendTime + 6000);
    EXPECT_EQ(answer(2), -1);
    EXPECT_THAT(log.messages("cloud_mq_set_response"),
                ElementsAre("[CRC:]response timeout, will discard"));
    EXPECT_EQ(cycle->heartbeatTimeoutTimes, 1);
    EXPECT_EQ(cycle->heartbeatStatus, HEARTBEAT_SENT);
}

// --- time in which the worker was busy, so that no reply could be seen

TEST_F(HeartbeatTest, AnAnsweredOneIsFollowedAfterTheIntervalHoweverBusyTheWorkerWas) {
    turn();
    cycle->blindTime += 50000;
    ASSERT_EQ(answer(1), 0);
    turn_after_send(INTERVAL_MS);
    EXPECT_EQ(inserted(), 2);
    EXPECT_THAT(said(), IsEmpty());
}

TEST_F(HeartbeatTest, AnUnansweredOneCountsLaterByTheTimeThatTheWorkerWasBusy) {
    turn();
    cycle->blindTime += 8000;
    turn_after_send(INTERVAL_MS + 8000 - 2000);
    EXPECT_THAT(said(), IsEmpty());
    EXPECT_EQ(inserted(), 1);
    turn_after_send(INTERVAL_MS + 8000);
    EXPECT_THAT(said(), ElementsAre(timeout_message(1)));
    EXPECT_EQ(inserted(), 2);
}

TEST_F(HeartbeatTest, ARepeatCountsLaterByTheTimeThatTheWorkerWasBusy) {
    turn();
    turn_after_send(INTERVAL_MS);
    cycle->blindTime += 8000;
    turn_after_send(REPLY_TIMEOUT_MS + 8000 - 2000);
    EXPECT_THAT(said(), ElementsAre(timeout_message(1)));
    turn_after_send(REPLY_TIMEOUT_MS + 8000 + 1);
    EXPECT_THAT(said(), ElementsAre(timeout_message(1), timeout_message(2)));
}

TEST_F(HeartbeatTest, TheBusyTimeBeforeASendOrAResetDoesNotCount) {
    cycle->blindTime = 8000;
    cloud_heartbeat_send_record(cycle);
    EXPECT_EQ(cycle->blindTime, 0);
    cycle->blindTime = 8000;
    cloud_heartbeat_reset_record(cycle);
    EXPECT_EQ(cycle->blindTime, 0);
}

// Not with the times that a cycle is made with, but the rule does not depend on them.
TEST_F(HeartbeatTest, AnIntervalShorterThanTheReplyTimeoutRepeatsWithoutCounting) {
    cycle->heartbeatInterval = REPLY_TIMEOUT_MS / 5;
    turn();
    turn_after_send(cycle->heartbeatInterval);
    turn_after_send(cycle->heartbeatInterval);
    turn_after_send(cycle->heartbeatInterval);
    EXPECT_EQ(inserted(), 4);
    EXPECT_THAT(said(), ElementsAre(timeout_message(1)));
}

TEST_F(HeartbeatTest, WithoutMemoryNothingIsQueuedAndTheNextTurnTriesAgain) {
    {
        fail_call failure("calloc");
        turn();
        EXPECT_TRUE(failure.happened());
    }
    EXPECT_EQ(inserted(), 0);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line("cloud_heartbeat_generate_pkt",
                                       "[CRC:] Out of memory for heartbeat pkt."),
                            error_line(INSERT, "[CRC:] Generate heartbeat pkt error")));
    turn();
    EXPECT_EQ(inserted(), 1);
}

TEST_F(HeartbeatTest, ARepeatThatCannotBeBuiltStillCounts) {
    turn();
    fail_call failure("calloc");
    turn_after_send(INTERVAL_MS);
    EXPECT_TRUE(failure.happened());
    EXPECT_THAT(said(), ElementsAre(timeout_message(1), "[CRC:] Generate heartbeat pkt error"));
    EXPECT_EQ(cycle->heartbeatTimeoutTimes, 1);
    EXPECT_EQ(inserted(), 1);
}

// Also: the packet that the queue refuses is released, or the leak checkers complain.
TEST_F(HeartbeatTest, AFullQueueLosesTheHeartbeatOfThisTurn) {
    for (int id = 1; id <= SLOTS; id++) {
        uint8_t* packet = packet_allocate(0);
        packet_header_write(packet,
                            {PACKET_MAGIC, PACKET_REQUEST, static_cast<uint16_t>(id), 0, 0});
        ASSERT_EQ(cloud_mq_insert_request(cycle->msgQueue, packet, 12, id, -1, INT_MAX), 0);
    }
    log.clear();
    cloud_heartbeat_insert_into_mq(cycle);
    EXPECT_THAT(log.lines(),
                Contains(error_line("cloud_mq_insert_request", "[CRC:] Msg queue full")));
    EXPECT_EQ(inserted(), SLOTS);
    EXPECT_EQ(cycle->heartbeatStatus, HEARTBEAT_IDLE);

    cycle->msgQueue->node[0].status = CLOUD_MQ_ANSWERED;
    cloud_heartbeat_insert_into_mq(cycle);
    EXPECT_EQ(inserted(), SLOTS + 1) << "the next turn tries again";
}

} // namespace
