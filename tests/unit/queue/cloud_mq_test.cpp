#include "queue/cloud_mq.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <memory>
#include <string>

#include "core/clock.h"
#include "core/cloud_cycle_record.h"
#include "core/session_notice.h"
#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "unit/queue/messages.h"

using testing::Each;
using testing::ElementsAre;

namespace {

constexpr unsigned SLOTS = 40;

struct mq_deleter {
    void operator()(cloud_mq_t* mq) const { cloud_mq_destroy(mq); }
};
using mq_ptr = std::unique_ptr<cloud_mq_t, mq_deleter>;

class cloud_mq : public testing::Test {
protected:
    void SetUp() override {
        mq.reset(cloud_mq_init(SLOTS));
        ASSERT_NE(mq, nullptr);
        log.clear();
    }

    // Queues a message, which is then in its slot, and gives its identifier.
    int insert(int type = HEARTBEAT, int32_t timeout = TIMEOUT_MS) {
        int id = cloud_mq_get_id(mq.get());
        uint8_t* packet = packet_block(type, id);
        EXPECT_EQ(cloud_mq_insert_request(mq.get(), packet, HEADER_BYTES, id, NO_CLIENT, timeout),
                  0);
        return id;
    }

    void fill() {
        for (unsigned i = 0; i < SLOTS; i++) {
            insert();
        }
    }

    // The result of one more insertion; a refused packet is freed here.
    int try_insert(int id) {
        uint8_t* packet = packet_block(HEARTBEAT, id);
        int result =
            cloud_mq_insert_request(mq.get(), packet, HEADER_BYTES, id, NO_CLIENT, TIMEOUT_MS);
        if (result != 0) {
            free(packet);
        }
        return result;
    }

    int respond(int id) {
        return cloud_mq_set_response(mq.get(), id, packet_block(HEARTBEAT, id), HEADER_BYTES);
    }

    cloud_mq_node_t& slot(int index) { return mq->node[index]; }

    log_capture log;
    mq_ptr mq;
};

// --- Creation and end

TEST_F(cloud_mq, starts_empty_with_all_counters_at_zero) {
    EXPECT_EQ(mq->nodeTotal, 40);
    EXPECT_EQ(mq->nodeReady, 0);
    EXPECT_EQ(mq->idNext, 0);
    EXPECT_EQ(mq->nodeNext, 0);
    for (unsigned i = 0; i < SLOTS; i++) {
        EXPECT_EQ(mq->node[i].id, 0);
        EXPECT_EQ(mq->node[i].status, 0);
        EXPECT_EQ(mq->node[i].reqStr, nullptr);
        EXPECT_EQ(mq->node[i].resStr, nullptr);
    }
}

TEST_F(cloud_mq, has_at_least_one_slot) {
    EXPECT_EQ(cloud_mq_init(0), nullptr);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("cloud_mq_init", "Ensure 0 != num failed.")));
}

TEST_F(cloud_mq, is_not_made_when_memory_is_short) {
    fail_call noMemory("calloc", 1);
    EXPECT_EQ(cloud_mq_init(SLOTS), nullptr);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line("cloud_mq_init", "[CRC:] msg queue malloc error")));
}

TEST_F(cloud_mq, counts_the_packets_it_frees_at_its_end) {
    insert();
    respond(insert());
    log.clear();
    mq.reset();
    EXPECT_THAT(log.lines(),
                ElementsAre(info_line("cloud_mq_destroy", "[CRC:] begin cloud mq destroy"),
                            info_line("cloud_mq_destroy",
                                      "[CRC:] free 2 request string, 1 response string"),
                            info_line("cloud_mq_destroy", "[CRC:] end cloud mq destroy")));
}

TEST_F(cloud_mq, is_as_new_after_a_clean) {
    insert();
    respond(insert());
    log.clear();
    cloud_mq_clean(mq.get());
    EXPECT_THAT(log.lines(),
                ElementsAre(info_line("cloud_mq_clean",
                                      "[CRC:] free 2 request string, 1 response string")));
    EXPECT_EQ(mq->nodeReady, 0);
    EXPECT_EQ(mq->idNext, 0);
    EXPECT_EQ(mq->nodeNext, 0);
    EXPECT_EQ(slot(1).id, 0);
    EXPECT_EQ(slot(1).status, 0);
    EXPECT_EQ(slot(1).reqStr, nullptr);
    EXPECT_EQ(slot(1).resStr, nullptr);
    EXPECT_EQ(insert(), 1);
}

TEST_F(cloud_mq, refuses_null_arguments) {
    uint8_t packet[HEADER_BYTES] = {};
    cloud_mq_destroy(nullptr);
    cloud_mq_clean(nullptr);
    cloud_mq_dump(nullptr);
    EXPECT_EQ(cloud_mq_get_id(nullptr), 100);
    EXPECT_EQ(cloud_mq_insert_request(nullptr, packet, sizeof packet, 1, NO_CLIENT, 1), 100);
    EXPECT_EQ(cloud_mq_insert_request(mq.get(), nullptr, 0, 1, NO_CLIENT, 1), 100);
    EXPECT_EQ(cloud_mq_set_response(nullptr, 1, packet, sizeof packet), 100);
    EXPECT_EQ(cloud_mq_set_response(mq.get(), 1, nullptr, 0), 100);
    constexpr char QUEUE[] = "Ensure NULL != mq failed.";
    constexpr char REQUEST[] = "Ensure NULL != mq && NULL != reqBuf failed.";
    constexpr char RESPONSE[] = "Ensure NULL != mq && NULL != respBuf failed.";
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line("cloud_mq_destroy", QUEUE),
                            error_line("cloud_mq_clean", QUEUE), error_line("cloud_mq_dump", QUEUE),
                            error_line("cloud_mq_get_id", QUEUE),
                            error_line("cloud_mq_insert_request", REQUEST),
                            error_line("cloud_mq_insert_request", REQUEST),
                            error_line("cloud_mq_set_response", RESPONSE),
                            error_line("cloud_mq_set_response", RESPONSE)));
}

// --- Identifiers

TEST_F(cloud_mq, the_65535th_identifier_is_1_again_and_neither_0_nor_65535_ever_occurs) {
    for (int expected = 1; expected <= 65534; expected++) {
        ASSERT_EQ(cloud_mq_get_id(mq.get()), expected);
    }
    EXPECT_EQ(cloud_mq_get_id(mq.get()), 1);
    EXPECT_EQ(cloud_mq_get_id(mq.get()), 2);
}

TEST_F(cloud_mq, recovers_from_a_negative_counter) {
    mq->idNext = -5;
    EXPECT_EQ(cloud_mq_get_id(mq.get()), 1);
}

// --- Insertion

TEST_F(cloud_mq, an_inserted_message_is_ready_in_the_next_slot) {
    int64_t before = cloud_now_ms();
    uint8_t* packet = packet_block(HEARTBEAT, 77);
    ASSERT_EQ(cloud_mq_insert_request(mq.get(), packet, HEADER_BYTES, 77, 12, TIMEOUT_MS), 0);
    EXPECT_EQ(slot(0).id, 77);
    EXPECT_EQ(slot(0).clientFd, 12);
    EXPECT_EQ(slot(0).status, CLOUD_MQ_READY);
    EXPECT_EQ(slot(0).timeout, 5000);
    EXPECT_GE(slot(0).reqTime, before);
    EXPECT_LE(slot(0).reqTime, cloud_now_ms());
    EXPECT_EQ(slot(0).reqStr, packet);
    EXPECT_EQ(slot(0).reqLen, 12);
    EXPECT_EQ(slot(0).resStr, nullptr);
    EXPECT_EQ(slot(0).resLen, 0);
    EXPECT_EQ(mq->nodeReady, 1);
    EXPECT_EQ(mq->nodeNext, 1);
    EXPECT_THAT(log.lines(),
                ElementsAre(info_line("cloud_mq_insert_request",
                                      "[CRC:] Insert heartbeat pkt successfully, ready 1.")));
}

TEST_F(cloud_mq, keeps_the_sign_of_a_timeout) {
    insert(HEARTBEAT, -1);
    EXPECT_EQ(slot(0).timeout, -1);
}

TEST_F(cloud_mq, forty_live_messages_leave_no_room_for_another) {
    fill();
    slot(3).status = CLOUD_MQ_SENT;
    log.clear();
    EXPECT_EQ(try_insert(99), -1); // which also frees it: the queue did not take it
    EXPECT_THAT(log.lines(),
                ElementsAre(info_line("cloud_mq_insert_request",
                                      "[CRC:] Insert heartbeat pkt successfully, ready 40."),
                            error_line("cloud_mq_insert_request", "[CRC:] Msg queue full")));
    EXPECT_EQ(mq->nodeReady, 40);
    EXPECT_EQ(mq->nodeNext, 0); // once round the ring
    EXPECT_FALSE(cloud_mq_has_request(mq.get(), 99));
}

TEST_F(cloud_mq, an_answered_slot_is_taken_again) {
    fill();
    respond(18);
    EXPECT_EQ(try_insert(99), 0);
    EXPECT_EQ(slot(17).id, 99);
    EXPECT_EQ(slot(17).status, CLOUD_MQ_READY);
    EXPECT_EQ(slot(17).resStr, nullptr);
    EXPECT_EQ(slot(17).resLen, 0);
    EXPECT_EQ(mq->nodeNext, 18);
}

TEST_F(cloud_mq, an_expired_slot_is_taken_again_whatever_its_status) {
    fill();
    for (int status : {CLOUD_MQ_READY, CLOUD_MQ_SENT}) {
        slot(20).status = status;
        slot(20).reqTime = cloud_now_ms() - TIMEOUT_MS - 1;
        EXPECT_EQ(try_insert(100 + status), 0);
        EXPECT_EQ(slot(20).id, 100 + status);
    }
}

TEST_F(cloud_mq, a_slot_is_alive_for_the_whole_of_its_timeout) {
    moved_clock clock;
    clock.stop();
    fill();
    clock.move(TIMEOUT_MS);
    EXPECT_EQ(try_insert(99), -1);
    clock.move(1);
    EXPECT_EQ(try_insert(99), 0);
    EXPECT_EQ(slot(0).id, 99);
}

TEST_F(cloud_mq, searches_on_round_the_ring_from_where_it_stopped) {
    fill();
    respond(1);  // slot 0
    respond(40); // slot 39
    EXPECT_EQ(try_insert(101), 0);
    EXPECT_EQ(slot(0).id, 101);
    EXPECT_EQ(try_insert(102), 0);
    EXPECT_EQ(slot(39).id, 102);
    EXPECT_EQ(mq->nodeNext, 0);
}

TEST_F(cloud_mq, counts_every_insertion_and_never_less) {
    respond(insert());
    insert();
    EXPECT_EQ(mq->nodeReady, 2);
}

// --- Replies

TEST_F(cloud_mq, a_reply_is_kept_with_its_message) {
    int id = insert(WEB_TOKEN);
    slot(0).status = CLOUD_MQ_SENT;
    uint8_t* reply = packet_block(WEB_TOKEN, id);
    EXPECT_EQ(cloud_mq_set_response(mq.get(), id, reply, HEADER_BYTES), 0);
    EXPECT_EQ(slot(0).status, CLOUD_MQ_ANSWERED);
    EXPECT_EQ(slot(0).resStr, reply);
    EXPECT_EQ(slot(0).resLen, 12);
    EXPECT_NE(slot(0).reqStr, nullptr);
}

TEST_F(cloud_mq, a_heartbeats_reply_is_booked_on_the_queues_session) {
    cloud_cycle_t cycle = {};
    cycle.heartbeatStatus = HEARTBEAT_SENT;
    cycle.heartbeatTimeoutTimes = 3;
    mq->owner = &cycle;
    EXPECT_EQ(respond(insert(HEARTBEAT)), 0);
    EXPECT_EQ(cycle.heartbeatStatus, HEARTBEAT_ANSWERED);
    EXPECT_EQ(cycle.heartbeatTimeoutTimes, 0);
    EXPECT_GT(cycle.heartbeatRecvTime, 0);
}

TEST_F(cloud_mq, the_reply_to_another_message_is_no_heartbeats) {
    cloud_cycle_t cycle = {};
    cycle.heartbeatStatus = HEARTBEAT_SENT;
    mq->owner = &cycle;
    EXPECT_EQ(respond(insert(WEB_TOKEN)), 0); // what counts is the request's type
    EXPECT_EQ(cycle.heartbeatStatus, HEARTBEAT_SENT);
}

TEST_F(cloud_mq, a_reply_to_an_expired_message_is_freed_and_refused) {
    int id = insert();
    slot(0).status = CLOUD_MQ_SENT;
    slot(0).reqTime = cloud_now_ms() - TIMEOUT_MS - 1;
    log.clear();
    EXPECT_EQ(respond(id), -1); // the leak checker sees the reply go
    EXPECT_THAT(log.lines(), ElementsAre(error_line("cloud_mq_set_response",
                                                    "[CRC:]response timeout, will discard")));
    EXPECT_EQ(slot(0).status, CLOUD_MQ_SENT);
    EXPECT_EQ(slot(0).resStr, nullptr);
}

TEST_F(cloud_mq, a_reply_is_in_time_for_the_whole_of_the_timeout) {
    moved_clock clock;
    clock.stop();
    int first = insert();
    int second = insert();
    clock.move(TIMEOUT_MS);
    EXPECT_EQ(respond(first), 0);
    clock.move(1);
    EXPECT_EQ(respond(second), -1);
}

TEST_F(cloud_mq, forgives_sent_messages_the_time_in_which_no_reply_could_be_seen) {
    moved_clock clock;
    clock.stop();
    int first = insert();
    int second = insert();
    slot(0).status = CLOUD_MQ_SENT;
    slot(1).status = CLOUD_MQ_SENT;
    cloud_mq_forgive(mq.get(), 3000);
    cloud_mq_forgive(mq.get(), 100); // which adds up
    clock.move(TIMEOUT_MS + 3100);
    EXPECT_EQ(respond(first), 0);
    clock.move(1);
    EXPECT_EQ(respond(second), -1);
}

TEST_F(cloud_mq, forgives_no_message_that_awaits_nothing) {
    insert();
    respond(insert());
    cloud_mq_forgive(mq.get(), 3000);
    EXPECT_EQ(slot(0).status, CLOUD_MQ_READY);
    EXPECT_EQ(slot(0).timeout, TIMEOUT_MS);
    EXPECT_EQ(slot(1).status, CLOUD_MQ_ANSWERED);
    EXPECT_EQ(slot(1).timeout, TIMEOUT_MS);
    EXPECT_EQ(slot(2).timeout, 0);
}

TEST_F(cloud_mq, a_reply_to_nothing_stays_with_the_caller) {
    insert();
    log.clear();
    uint8_t* reply = packet_block(HEARTBEAT, 2);
    EXPECT_EQ(cloud_mq_set_response(mq.get(), 2, reply, HEADER_BYTES), -1);
    EXPECT_THAT(log.lines(), ElementsAre(info_line("cloud_mq_set_response",
                                                   "[CRC:] coresponding request not found")));
    free(reply); // twice, had the queue freed it
}

TEST_F(cloud_mq, a_reply_with_identifier_0_meets_an_unused_slot_and_is_freed) {
    EXPECT_EQ(respond(0), -1);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("cloud_mq_set_response",
                                                    "[CRC:]response timeout, will discard")));
}

TEST_F(cloud_mq, a_second_reply_replaces_the_first) {
    int id = insert();
    respond(id);
    uint8_t* second = packet_block(HEARTBEAT, id);
    EXPECT_EQ(cloud_mq_set_response(mq.get(), id, second, HEADER_BYTES), 0);
    EXPECT_EQ(slot(0).resStr, second); // the leak checker sees the first go
}

TEST_F(cloud_mq, of_two_messages_with_one_identifier_the_lower_slot_gets_the_reply) {
    EXPECT_EQ(try_insert(7), 0);
    EXPECT_EQ(try_insert(7), 0);
    EXPECT_EQ(respond(7), 0);
    EXPECT_EQ(slot(0).status, CLOUD_MQ_ANSWERED);
    EXPECT_EQ(slot(1).status, CLOUD_MQ_READY);
}

TEST_F(cloud_mq, knows_its_messages_whatever_their_status) {
    int id = insert();
    EXPECT_TRUE(cloud_mq_has_request(mq.get(), id));
    respond(id);
    EXPECT_TRUE(cloud_mq_has_request(mq.get(), id));
    EXPECT_FALSE(cloud_mq_has_request(mq.get(), id + 1));
}

// --- The dump

TEST_F(cloud_mq, prints_itself_plainly) {
    mq.reset(cloud_mq_init(2));
    respond(insert());
    slot(0).reqTime = 123456;
    log.clear();
    cloud_mq_dump(mq.get());
    char counters[128];
    snprintf(counters, sizeof counters,
             "       2             1          1          1         %-10p          ",
             static_cast<void*>(mq->node));
    char used[128];
    snprintf(used, sizeof used, "   1     -1      4     5000          123456        %-12p%-12p",
             static_cast<void*>(slot(0).reqStr), static_cast<void*>(slot(0).resStr));
    const std::string unused =
        "   0     0       0     0             0             (nil)       (nil)       ";
    const std::string stars(68, '*');
    const std::string hyphens(68, '-');
    EXPECT_THAT(
        log.messages(),
        ElementsAre(stars, "**********************cloud msg queue dump**************************",
                    hyphens, "     nodeTotal    nodeReady    idNext    nodeNext    node[0]        ",
                    counters, hyphens,
                    "   id  clientFd   status   timeout   reqTime   reqStr   resStr   ", hyphens,
                    used, unused, stars));
    EXPECT_THAT(log.lines(), Each(plain_line(testing::_)));
}
} // namespace
