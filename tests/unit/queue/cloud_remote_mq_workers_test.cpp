// Two workers at once, as when a restart overtakes a session that still winds up: each sees its own
// requests and no others. The test's thread is the newer one, the older one a thread of its own.

#include "unit/queue/remote_requests.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const bool isPrivate = private_namespaces();

class remote_mq_workers : public remote_mq {
protected:
    remote_mq_workers() {
        olderSession = older.run([] { return std::make_unique<relay_session>(); });
    }
    ~remote_mq_workers() override {
        older.run([this] {
            olderSession.reset();
            return true;
        });
    }

    // Requests of either worker that await their answers.
    web_connection await_answer_of_older(uint16_t id) {
        EXPECT_EQ(older.run([&] { return forward(*olderSession, id, "old"); }), 0);
        web_connection exchange = web.accept();
        EXPECT_EQ(exchange.read_exact(3), "old");
        log.clear();
        return exchange;
    }

    void remove_by_older() {
        older.run([] {
            cloud_remote_mq_remove();
            return true;
        });
    }

    verb_queue older;
    std::unique_ptr<relay_session> olderSession;
};

// The bound of a select whose own descriptor is 9, and whether `fd` is in its set.
struct selection {
    int maxFd = 9;
    bool isWatched = false;
};

selection select_for_queue(int fd) {
    selection chosen;
    fd_set set;
    FD_ZERO(&set);
    cloud_remote_mq_fdset_set(&set, &chosen.maxFd);
    chosen.isWatched = FD_ISSET(fd, &set);
    return chosen;
}

TEST_F(remote_mq_workers, do_not_wait_for_each_others_answers) {
    web_connection theirs = await_answer_of_older(1);
    int fd = node()->webSvrSockfd;
    EXPECT_EQ(select_for_queue(fd).maxFd, 9); // untouched: nothing of ours was forwarded
    EXPECT_FALSE(select_for_queue(fd).isWatched);
    selection chosen = older.run([&] { return select_for_queue(fd); });
    EXPECT_EQ(chosen.maxFd, fd);
    EXPECT_TRUE(chosen.isWatched);
}

TEST_F(remote_mq_workers, have_bounds_of_their_own) {
    web_connection ours = await_answer(1);
    web_connection theirs = await_answer_of_older(2);
    EXPECT_EQ(select_for_queue(0).maxFd, node(0)->webSvrSockfd);
    EXPECT_EQ(older.run([] { return select_for_queue(0).maxFd; }), node(1)->webSvrSockfd);
}

TEST_F(remote_mq_workers, are_told_of_their_own_failed_exchange_alone) {
    web_connection theirs = await_answer_of_older(1);
    await_answer(2).reset();
    EXPECT_EQ(relay_answers(session), -1);
    EXPECT_EQ(select_for_queue(0).maxFd, -1);
    EXPECT_EQ(older.run([] { return select_for_queue(0).maxFd; }), node(0)->webSvrSockfd);
}

TEST_F(remote_mq_workers, are_not_held_up_by_each_others_pending_requests) {
    configure_port(std::to_string(refusing_port()));
    EXPECT_EQ(older.run([this] { return forward(*olderSession, 1, "old"); }), -1);
    configure_port(std::to_string(web.port()));
    EXPECT_EQ(select_for_queue(0).maxFd, 9);
    web_connection ours = await_answer(2);
    EXPECT_EQ(select_for_queue(0).maxFd, node(1)->webSvrSockfd);
    expect_counters(1, 1);
}

TEST_F(remote_mq_workers, do_not_send_each_others_answers) {
    web_connection theirs = await_answer_of_older(1);
    theirs.answer("for the older relay");
    theirs.close();
    fd_set all;
    memset(&all, 0xFF, sizeof all);
    EXPECT_EQ(cloud_remote_mq_response_handle(&all, session.cycle->cloudSocket), 0);
    EXPECT_EQ(node()->status, REMOTE_MQ_FORWARDED);
    EXPECT_EQ(older.run([this] { return relay_answers(*olderSession); }), 0);
    EXPECT_EQ(olderSession->relay.read_packet(), (packet{RESPONSE, 1, "for the older relay"}));
    session.disconnect();
    EXPECT_EQ(session.relay.read_exact(1), "");
}

TEST_F(remote_mq_workers, do_not_drop_each_others_finished_or_late_exchanges) {
    moved_clock clock;
    web_connection answered = await_answer_of_older(1);
    answered.close();
    EXPECT_EQ(older.run([this] { return relay_answers(*olderSession); }), 0);
    web_connection silent = await_answer_of_older(2);
    configure_port(std::to_string(refusing_port()));
    EXPECT_EQ(older.run([this] { return forward(*olderSession, 3, "old"); }), -1);
    clock.move(10001);
    cloud_remote_mq_remove();
    EXPECT_THAT(queued(), ElementsAre(1, 2, 3));
    expect_counters(1, 2);
    remove_by_older();
    EXPECT_THAT(queued(), IsEmpty());
    expect_counters(0, 0);
}

TEST_F(remote_mq_workers, drop_their_own_from_among_each_others) {
    web_connection first = await_answer_of_older(1);
    web_connection second = await_answer(2);
    web_connection third = await_answer_of_older(3);
    web_connection fourth = await_answer(4);
    second.close();
    fourth.close();
    EXPECT_EQ(relay_answers(session), 0);
    EXPECT_TRUE(eventually([&] {
        cloud_remote_mq_remove();
        return queued().size() == 2 || relay_answers(session) != 0;
    }));
    EXPECT_THAT(queued(), ElementsAre(1, 3));
    expect_counters(0, 2);
    first.close();
    third.close();
}

TEST_F(remote_mq_workers, clear_their_own_requests_alone) {
    web_connection theirs = await_answer_of_older(1);
    web_connection ours = await_answer(2);
    cloud_remote_mq_clear();
    EXPECT_THAT(queued(), ElementsAre(1));
    expect_counters(0, 1);
    EXPECT_TRUE(ours.is_at_end());
    cloud_remote_mq_clear(); // which finds the queue neither empty nor ours
    EXPECT_THAT(queued(), ElementsAre(1));
    EXPECT_THAT(logged(), IsEmpty());
    theirs.answer("still relayed");
    theirs.close();
    EXPECT_EQ(older.run([this] { return relay_answers(*olderSession); }), 0);
    EXPECT_EQ(olderSession->relay.read_packet(), (packet{RESPONSE, 1, "still relayed"}));
}

TEST_F(remote_mq_workers, clear_their_own_requests_when_their_session_ends) {
    web_connection theirs = await_answer_of_older(1);
    web_connection ours = await_answer(2);
    older.run([this] {
        olderSession.reset();
        return true;
    });
    EXPECT_TRUE(theirs.is_at_end());
    EXPECT_THAT(queued(), ElementsAre(2));
    expect_counters(0, 1);
}

// Many exchanges of both at the same time; the thread sanitizer watches.
TEST_F(remote_mq_workers, work_side_by_side) {
    constexpr int EXCHANGES = 20;
    std::atomic<bool> ended = false;
    auto work = [](relay_session& own, uint16_t base) {
        for (uint16_t i = 0; i < EXCHANGES; i++) {
            EXPECT_EQ(forward(own, static_cast<uint16_t>(base + i), std::string(4, char(base))), 0);
            EXPECT_EQ(relay_answers(own), 0);
            EXPECT_EQ(own.relay.read_packet(), (packet{RESPONSE, static_cast<uint16_t>(base + i),
                                                       std::string(4, char(base))}));
            cloud_remote_mq_remove();
        }
    };
    verb_queue server;
    server.post([&] { // answers each request with its own body
        while (!ended) {
            if (web.is_called(10)) {
                web_connection exchange = web.accept();
                exchange.answer(exchange.read_exact(4));
            }
        }
    });
    older.post([&] { work(*olderSession, 'A'); });
    work(session, 'a');
    older.run([] { return true; });
    ended = true;
    expect_counters(0, 0);
    EXPECT_THAT(queued(), IsEmpty());
}

} // namespace
