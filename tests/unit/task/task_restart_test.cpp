#include <chrono>

#include "controlled_task.h"
#include "support/failing_calls.h"

using testing::_;
using testing::ElementsAre;

namespace {

const bool isPrivate = private_namespaces();

using steady = std::chrono::steady_clock;

constexpr std::chrono::seconds RESTART_PAUSE{3};

using TaskRestartTest = ControlledTask;

TEST_F(TaskRestartTest, ARestartEndsTheOldSessionAndTakesThreeSeconds) {
    tls_peer former;
    tls_peer next;
    start_session(former);
    next.accept();
    auto begin = steady::now();
    EXPECT_EQ(cloudRelayClientReload(HOST, static_cast<uint32_t>(next.port())), 0);
    EXPECT_GE(steady::now() - begin, RESTART_PAUSE);
    EXPECT_EQ(log.count(worker_exits()), 1U) << "the old worker was done in the meantime";
    greet(next);
    ASSERT_TRUE(log.gets(loop_begins(), 2));
    expect_alive(next);
    EXPECT_THAT(log.messages(RESTART),
                ElementsAre("[CRC:] Restart cloudRelayClient-task on cfg [127.0.0.1:" +
                                std::to_string(next.port()) + "].",
                            "[CRC:] ReStart cloudRelayClient-task ok"));
}

TEST_F(TaskRestartTest, AWorkerStillInItsConnectIsLetGoByARestart) {
    tls_peer former;
    tls_peer next;
    former.accept_tcp();
    ASSERT_EQ(start(former.port()), 0);
    ASSERT_TRUE(former.is_done());
    next.accept();
    ASSERT_EQ(start(next.port()), 0);
    ASSERT_TRUE(log.gets(worker_exits())) << "its relay never began with TLS";
    greet(next);
    ASSERT_TRUE(log.gets(loop_begins()));
    expect_alive(next);
    EXPECT_EQ(log.count(worker_exits()), 1U);
    EXPECT_EQ(log.count(info_line("cloud_cycle_destroy", "[CRC:] Destroy cloud-cycle end.")), 1U);

    EXPECT_EQ(swCloudRelayClientTaskStop(), 0) << "the new session is the controller's";
    EXPECT_TRUE(log.gets(worker_exits(), 2));
    expect_idle();
}

TEST_F(TaskRestartTest, AWorkerThatWaitsForTheHellosAnswerIsLetGoByARestart) {
    tls_peer former;
    tls_peer next;
    former.accept();
    ASSERT_EQ(start(former.port()), 0);
    EXPECT_EQ(former.read_packet().type, PACKET_HELLO); // and never an answer
    next.accept();
    ASSERT_EQ(start(next.port()), 0);
    greet(next);
    ASSERT_TRUE(log.gets(worker_exits()));
    ASSERT_TRUE(log.gets(loop_begins()));
    expect_alive(next);
}

TEST_F(TaskRestartTest, ARestartThatFailsLeavesTheControllerIdle) {
    tls_peer relay;
    start_session(relay);
    {
        fail_call failure("calloc"); // of this thread: the new cycle
        EXPECT_EQ(start(relay.port()), 8);
    }
    EXPECT_THAT(log.messages(RESTART),
                ElementsAre(_, "E - 101 call _swCloudRelayClientTaskInit(ipAddr, port) failed.",
                            "[CRC:] Create cloud-brd-task failed"));
    EXPECT_THAT(log.messages(START),
                ElementsAre("E - -1 call _swCloudRelayClientTaskRestart(ipaddr, port) failed."));
    ASSERT_TRUE(log.gets(worker_exits()));
    expect_idle();
}

TEST_F(TaskRestartTest, ARestartTowardPortZeroEndsTheSessionAndFails) {
    tls_peer relay;
    start_session(relay);
    EXPECT_EQ(start(0), 8);
    ASSERT_TRUE(log.gets(worker_exits()));
    expect_idle();
}

} // namespace
