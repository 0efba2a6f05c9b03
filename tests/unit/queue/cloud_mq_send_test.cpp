// Messages on their way from the queue to the relay.

#include <gmock/gmock.h>
#include <string>

#include "core/clock.h"
#include "core/cloud_cycle_record.h"
#include "queue/cloud_mq.h"
#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "support/namespaces.h"
#include "support/relay_session.h"
#include "transport/cloud_socket.h"
#include "unit/queue/messages.h"

using testing::Each;
using testing::ElementsAre;

namespace {

const bool isPrivate = private_namespaces();

class cloud_mq_sending : public testing::Test {
protected:
    cloud_mq_sending() : mq(session.cycle->msgQueue) {}

    void SetUp() override { log.clear(); }

    // Queues a packet without body.
    void insert(int id, int type = HEARTBEAT, int32_t timeout = TIMEOUT_MS) {
        ASSERT_EQ(cloud_mq_insert_request(mq, packet_block(type, id), HEADER_BYTES, id, NO_CLIENT,
                                          timeout),
                  0);
        log.clear();
    }

    int send() { return cloud_mq_send_request(session.cycle); }

    // The messages of the log macro alone: a packet's header is printed as well.
    std::vector<log_line> logged() {
        std::vector<log_line> lines = log.lines();
        std::erase_if(lines, [](const log_line& line) { return line.kind == line_kind::plain; });
        return lines;
    }

    void expect_nothing_more() {
        session.disconnect();
        EXPECT_EQ(session.relay.read_exact(1), "");
    }

    log_capture log;
    relay_session session;
    cloud_mq_t* mq;
};

TEST_F(cloud_mq_sending, a_heartbeat_leaves_as_it_was_queued_and_is_booked) {
    session.cycle->heartbeatRecvTime = 5;
    int64_t before = cloud_now_ms();
    insert(0x1234);
    EXPECT_EQ(send(), 1);
    EXPECT_EQ(session.relay.read_packet(), (packet{HEARTBEAT, 0x1234, ""}));
    EXPECT_EQ(mq->node[0].status, CLOUD_MQ_SENT);
    EXPECT_EQ(session.cycle->heartbeatStatus, HEARTBEAT_SENT);
    EXPECT_GE(session.cycle->heartbeatSendTime, before);
    EXPECT_EQ(session.cycle->heartbeatRecvTime, 0);
    EXPECT_GE(session.cycle->lastRequestTime, before);
    EXPECT_THAT(logged(),
                ElementsAre(info_line("cloud_mq_send_request", "[CRC:] Send requset ok.")));
}

TEST_F(cloud_mq_sending, a_heartbeats_reply_is_booked_on_the_cycle_that_owns_the_queue) {
    relay_session other;
    insert(7);
    EXPECT_EQ(send(), 1);
    EXPECT_EQ(cloud_mq_set_response(mq, 7, packet_block(HEARTBEAT, 7), HEADER_BYTES), 0);
    EXPECT_EQ(session.cycle->heartbeatStatus, HEARTBEAT_ANSWERED);
    EXPECT_GE(session.cycle->heartbeatRecvTime, session.cycle->heartbeatSendTime);
    EXPECT_EQ(other.cycle->heartbeatStatus, HEARTBEAT_IDLE);
    EXPECT_EQ(other.cycle->heartbeatRecvTime, 0);
}

TEST_F(cloud_mq_sending, another_message_is_no_heartbeat) {
    insert(7, WEB_TOKEN);
    EXPECT_EQ(send(), 1);
    EXPECT_EQ(session.relay.read_packet(), (packet{WEB_TOKEN, 7, ""}));
    EXPECT_EQ(session.cycle->heartbeatStatus, HEARTBEAT_IDLE);
    EXPECT_GT(session.cycle->lastRequestTime, 0);
}

TEST_F(cloud_mq_sending, all_ready_messages_leave_in_the_order_of_their_slots_and_once) {
    for (int id : {3, 1, 2}) {
        insert(id);
    }
    EXPECT_EQ(send(), 3);
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(session.relay.read_packet().id, 3);
    EXPECT_EQ(session.relay.read_packet().id, 1);
    EXPECT_EQ(session.relay.read_packet().id, 2);
    expect_nothing_more();
}

TEST_F(cloud_mq_sending, a_packet_with_a_body_leaves_whole) {
    packet message = {WEB_TOKEN, 9, patterned_bytes(100000)};
    std::string bytes = packet_bytes(message);
    auto* block = static_cast<uint8_t*>(malloc(bytes.size()));
    memcpy(block, bytes.data(), bytes.size());
    ASSERT_EQ(cloud_mq_insert_request(mq, block, static_cast<int>(bytes.size()), 9, NO_CLIENT,
                                      TIMEOUT_MS),
              0);
    EXPECT_EQ(send(), 1);
    EXPECT_EQ(session.relay.read_packet(), message);
}

TEST_F(cloud_mq_sending, an_answered_message_is_not_sent_again) {
    insert(1, WEB_TOKEN);
    EXPECT_EQ(cloud_mq_set_response(mq, 1, packet_block(WEB_TOKEN, 1), HEADER_BYTES), 0);
    EXPECT_EQ(send(), 0);
    expect_nothing_more();
}

TEST_F(cloud_mq_sending, a_message_that_stayed_unsent_for_its_whole_timeout_is_never_sent) {
    moved_clock clock;
    clock.stop();
    insert(1);
    insert(2, HEARTBEAT, TIMEOUT_MS + 1);
    clock.move(TIMEOUT_MS);
    EXPECT_EQ(send(), 1);
    EXPECT_EQ(mq->node[0].status, CLOUD_MQ_READY);
    EXPECT_EQ(session.relay.read_packet().id, 2);
    expect_nothing_more();
}

TEST_F(cloud_mq_sending, a_failed_send_is_logged_and_tried_again) {
    insert(1);
    session.cycle->lastRequestTime = 0;
    session.cycle->cloudSocket->status = CLOUD_SOCKET_DISCONNECTED;
    EXPECT_EQ(send(), 0);
    EXPECT_TRUE(
        log.has(error_line("cloud_mq_send_request", "[CRC:] Send request error, result:9")));
    EXPECT_EQ(mq->node[0].status, CLOUD_MQ_READY);
    EXPECT_EQ(session.cycle->lastRequestTime, 0);
    session.cycle->cloudSocket->status = CLOUD_SOCKET_CONNECTED;
    EXPECT_EQ(send(), 1);
    EXPECT_EQ(session.relay.read_packet().id, 1);
}

TEST_F(cloud_mq_sending, waits_for_the_lock_only_once_something_was_inserted) {
    pthread_mutex_lock(&mq->lock);
    EXPECT_EQ(send(), 0); // with the lock it would never return
    pthread_mutex_unlock(&mq->lock);
}

TEST_F(cloud_mq_sending, scans_the_slots_from_the_first_insertion_on) {
    insert(1);
    send();
    EXPECT_EQ(mq->nodeReady, 1);
    mq->node[0].status = CLOUD_MQ_READY;
    EXPECT_EQ(send(), 1);
}

TEST_F(cloud_mq_sending, needs_a_cycle_with_socket_and_queue) {
    EXPECT_EQ(cloud_mq_send_request(nullptr), -1);
    cloud_cycle_t incomplete = {};
    incomplete.msgQueue = mq;
    EXPECT_EQ(cloud_mq_send_request(&incomplete), -1);
    incomplete.msgQueue = nullptr;
    incomplete.cloudSocket = session.cycle->cloudSocket;
    EXPECT_EQ(cloud_mq_send_request(&incomplete), -1);
    EXPECT_THAT(log.lines(),
                testing::AllOf(testing::SizeIs(3),
                               Each(error_line("cloud_mq_send_request",
                                               "Ensure NULL != cycle && NULL != cycle->cloudSocket "
                                               "&& NULL != cycle->msgQueue failed."))));
}

} // namespace
