#include <chrono>
#include <csignal>
#include <set>
#include <thread>

#include "controlled_task.h"
#include "silent_resolver.h"
#include "support/failing_calls.h"
#include "support/tcp.h"

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

// --- the pause ---

// Interrupts a thread again and again.
class signal_storm {
public:
    signal_storm() : target(pthread_self()), former() {
        struct sigaction handled = {};
        handled.sa_handler = [](int) {}; // without SA_RESTART
        sigaction(SIGUSR1, &handled, &former);
        storm = std::thread([this] {
            while (!ended) {
                pthread_kill(target, SIGUSR1);
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        });
    }
    ~signal_storm() {
        ended = true;
        storm.join();
        sigaction(SIGUSR1, &former, nullptr);
    }
    signal_storm(const signal_storm&) = delete;
    signal_storm& operator=(const signal_storm&) = delete;

private:
    pthread_t target;
    struct sigaction former;
    std::atomic<bool> ended = false;
    std::thread storm;
};

TEST_F(TaskRestartTest, ThePauseLastsThreeSecondsWhateverSignalsArrive) {
    constexpr std::chrono::seconds NOT_MUCH_MORE{1};
    tls_peer former;
    tls_peer next;
    start_session(former);
    next.accept();
    auto begin = steady::now();
    {
        signal_storm storm;
        EXPECT_EQ(start(next.port()), 0);
    }
    auto taken = steady::now() - begin;
    EXPECT_GE(taken, RESTART_PAUSE);
    EXPECT_LT(taken, RESTART_PAUSE + NOT_MUCH_MORE);
    greet(next);
    ASSERT_TRUE(log.gets(loop_begins(), 2));
}

// --- a worker that is let go ---

struct TaskLetGoTest : ControlledTask {
    static constexpr std::chrono::seconds PROMPTLY{1};

    static std::string hung_since() { return scratch_path("hung"); }

    TaskLetGoTest() { remove_file(hung_since()); }
    ~TaskLetGoTest() override { remove_file(scratch_path("bin/ubus")); }

    void expect_worker_ends_when_let_go() {
        EXPECT_FALSE(log.has(worker_exits()));
        let_go_of_worker();
        EXPECT_TRUE(eventually([&] { return log.has(worker_exits()); }, PROMPTLY));
        EXPECT_EQ(log.count(info_line("cloud_cycle_destroy", "[CRC:] Destroy cloud-cycle end.")),
                  1U);
    }
};

TEST_F(TaskLetGoTest, InItsTcpConnectEndsWithinASecond) {
    deaf_listener deaf;
    ASSERT_EQ(start(deaf.port()), 0);
    ASSERT_TRUE(log.gets(info_line("cloud_socket_connect",
                                   testing::StartsWith("[CRC:] begin to connect the socket"))));
    expect_worker_ends_when_let_go();
}

TEST_F(TaskLetGoTest, InItsTlsHandshakeEndsWithinASecond) {
    tls_peer relay;
    relay.accept_tcp();
    ASSERT_EQ(start(relay.port()), 0);
    ASSERT_TRUE(log.gets(info_line("cloud_socket_connect", testing::StartsWith("[CRC:] ctx:"))));
    expect_worker_ends_when_let_go();
}

TEST_F(TaskLetGoTest, WaitingForTheHellosAnswerEndsWithinASecond) {
    tls_peer relay;
    relay.accept();
    ASSERT_EQ(start(relay.port()), 0);
    EXPECT_EQ(relay.read_packet().type, PACKET_HELLO); // and never an answer
    expect_worker_ends_when_let_go();
}

TEST_F(TaskLetGoTest, InAnIdentityQueryThatHangsEndsWithinASecond) {
    install_program("ubus", "echo $$ >" + hung_since() + "\nsleep 60\n");
    tls_peer relay;
    relay.accept();
    ASSERT_EQ(start(relay.port()), 0);
    ASSERT_TRUE(eventually([] { return read_file(hung_since()).ends_with("\n"); }));
    expect_worker_ends_when_let_go();
    std::string asked = "/proc/" + std::to_string(std::stoi(read_file(hung_since()))) + "/stat";
    EXPECT_TRUE(eventually([&] { // gone, or dead and not yet waited for
        std::string stat = read_file(asked);
        return stat.empty() || stat.find(") Z") != std::string::npos;
    })) << "the query goes on";
    EXPECT_EQ(relay.read_exact(1), "") << "an identity was told";
}

// --- workers that the resolver holds up ---

struct TaskResolverTest : ControlledTask {
    ~TaskResolverTest() override { resolver.answer_all(); }

    static constexpr char STUCK[] = "relay.example."; // looked up as it is

    // Starts, or restarts, a session whose worker asks for the relay's address.
    void start_stuck_worker(size_t nth) {
        if (nth == 1) {
            ASSERT_EQ(swCloudRelayClientTaskStart(STUCK, 4433), 0);
        } else {
            ASSERT_EQ(restart_at_once(STUCK, 4433), 0);
        }
        ASSERT_TRUE(eventually([&] { return resolver.asked() == nth; }));
    }

    silent_resolver resolver;
};

TEST_F(TaskResolverTest, ARestartWaitsWhenTwoEarlierWorkersWindUp) {
    constexpr size_t SOME_LOOKS = 3;
    for (size_t nth : {1U, 2U, 3U}) {
        start_stuck_worker(nth);
    }
    counted_calls looks("usleep"); // which a worker in the resolver does not call
    std::thread restart([&] { EXPECT_EQ(restart_at_once(STUCK, 4433), 0); });
    EXPECT_TRUE(eventually([&] { return looks.count() > static_cast<int>(SOME_LOOKS); }));
    EXPECT_EQ(log.count(info_line(INIT, TASK_CREATED)), 3U);
    EXPECT_EQ(log.count(worker_exits()), 0U);

    resolver.answer_one();
    restart.join();
    ASSERT_TRUE(log.gets(worker_exits()));
    ASSERT_TRUE(eventually([&] { return resolver.asked() == 4; }));
    EXPECT_EQ(log.count(worker_exits()), 1U) << "two others are still held up";
}

// A reload does not wait for one or two workers that are stuck and let go.
TEST_F(TaskResolverTest, TwoEarlierWorkersAreNotWaitedFor) {
    counted_calls looks("usleep");
    for (size_t nth : {1U, 2U, 3U}) {
        start_stuck_worker(nth);
    }
    EXPECT_EQ(looks.count(), 0);
    EXPECT_EQ(log.count(worker_exits()), 0U);
}

TEST_F(TaskResolverTest, WorkersThatWoundUpMakeRoomForOthers) {
    for (size_t nth : {1U, 2U, 3U}) {
        start_stuck_worker(nth);
    }
    resolver.answer_all();
    ASSERT_TRUE(log.gets(worker_exits(), 3));
    expect_idle();
    counted_calls looks("usleep");
    for (size_t nth : {1U, 2U, 3U}) {
        start_stuck_worker(nth);
    }
    EXPECT_EQ(looks.count(), 0);
}

TEST_F(TaskResolverTest, TheNamesOfWorkersGoOnCounting) {
    for (size_t nth : {1U, 2U, 3U}) {
        start_stuck_worker(nth);
    }
    resolver.answer_all();
    ASSERT_TRUE(log.gets(worker_exits(), 3));
    std::set<int> numbers;
    for (const log_line& line : log.lines()) {
        if (line.function == WORKER) {
            numbers.insert(std::stoi(line.thread.substr(strlen("cycleHnd_"))));
        }
    }
    ASSERT_EQ(numbers.size(), 3U);
    EXPECT_EQ(*numbers.rbegin(), *numbers.begin() + 2);
}

} // namespace
