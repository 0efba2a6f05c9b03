// The session's pass over the requests that await an answer.

#include "queue/answer_block.h"
#include "transport/tcp_connect.h"
#include "unit/queue/remote_requests.h"

using testing::ElementsAre;

namespace {

const bool isPrivate = private_namespaces();

class remote_mq_pass : public remote_mq {};

// The session's turn between two passes serves the relay and its heartbeats.
TEST_F(remote_mq_pass, begins_no_answer_ten_seconds_after_its_own_beginning) {
    web_connection exchanges[] = {await_answer(1), await_answer(2)};
    fd_set readable;
    FD_ZERO(&readable);
    for (int i : {0, 1}) {
        FD_SET(node(i)->webSvrSockfd, &readable);
        exchanges[i].answer("answer");
        exchanges[i].close();
    }
    answer_block_release_kept(true); // so that the first answer allocates
    moved_clock clock;
    clock.stop();
    before_call first("calloc", [&] { clock.move(10000); });
    EXPECT_EQ(cloud_remote_mq_response_handle(&readable, session.cycle->cloudSocket), 0);
    EXPECT_EQ(session.relay.read_packet().id, 1);
    EXPECT_EQ(node(1)->status, REMOTE_MQ_FORWARDED);
    EXPECT_EQ(relay_answers(session), 0);
    EXPECT_EQ(session.relay.read_packet().id, 2);
}

TEST_F(remote_mq_pass, begins_no_answer_when_the_session_is_to_end) {
    web_connection exchange = await_answer(1);
    exchange.answer("answer");
    worker_wishes wishes;
    wishes.adopt();
    wishes.stop = 1;
    EXPECT_EQ(relay_answers(session), 0);
    EXPECT_EQ(node()->status, REMOTE_MQ_FORWARDED);
    EXPECT_NE(node()->webSvrSockfd, -1) << "the answer was begun";
}

// The kernel holds what the web server has not read yet.
TEST_F(remote_mq_pass, gives_a_web_server_that_still_takes_the_body_its_time_anew) {
    const std::string body(120000, 'b');
    moved_clock clock;
    verb_queue relay;
    relay.post([&] { session.relay.send(body); });
    ASSERT_EQ(handle_request(session, header_bytes(REQUEST, 1, 120000)), 0);
    int unsent = node()->unsent;
    ASSERT_GT(unsent, 0);
    web_connection exchange = web.accept();
    EXPECT_EQ(exchange.read_exact(body.size()), body);
    ASSERT_TRUE(eventually([&] { return unsent_bytes(node()->webSvrSockfd) < unsent; }));
    clock.move(10001);
    cloud_remote_mq_remove();
    EXPECT_THAT(queued(), ElementsAre(1));
    clock.move(5000);
    cloud_remote_mq_remove();
    EXPECT_THAT(queued(), ElementsAre(1));
    clock.move(5001); // nothing was taken meanwhile
    cloud_remote_mq_remove();
    expect_counters(0, 0);
}

} // namespace
