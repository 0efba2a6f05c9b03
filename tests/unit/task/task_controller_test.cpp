#include "task/task_controller.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "controlled_task.h"
#include "session/cloud_cycle.h"
#include "support/failing_calls.h"
#include "support/tcp.h"

using testing::_;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

namespace {

const bool isPrivate = private_namespaces();

using TaskControllerTest = ControlledTask;

// The signals that the first thread of that name blocks, bit n - 1 for signal n; 0 without one.
uint64_t blocked_signals(const std::string& name) {
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string status = read_file(thread.path() / "status");
        size_t mask = status.find("SigBlk:\t");
        if (status.starts_with("Name:\t" + name) && mask != std::string::npos) {
            return strtoull(status.c_str() + mask + strlen("SigBlk:\t"), nullptr, 16);
        }
    }
    return 0;
}

uint64_t signal_bits(std::initializer_list<int> signals) {
    uint64_t bits = 0;
    for (int signal : signals) {
        bits |= uint64_t{1} << (signal - 1);
    }
    return bits;
}

} // namespace

extern "C" int __real__Z16cloud_cycle_stopP13cloud_cycle_t(cloud_cycle_t* cycle);
extern "C" int __wrap__Z16cloud_cycle_stopP13cloud_cycle_t(cloud_cycle_t* cycle);

extern "C" int __wrap__Z16cloud_cycle_stopP13cloud_cycle_t(cloud_cycle_t* cycle) {
    return isStopFailing ? 1 : __real__Z16cloud_cycle_stopP13cloud_cycle_t(cycle);
}

namespace {

// --- the process's start-up ---

TEST(ControlSideTest, WithoutMemoryForTheRemoteQueueTheBusIsNotTried) {
    log_capture log;
    free(std::exchange(pCloudRemoteMq, nullptr));
    {
        fail_call failure("calloc");
        swCloudRelayClientInit();
    }
    EXPECT_THAT(log.messages("swCloudRelayClientInit"),
                ElementsAre("E - -1 call cloud_remote_mq_init() failed."));
    EXPECT_THAT(log.messages("ubus_init"), IsEmpty());
}

TEST(ControlSideTest, WithoutABusItSaysSoAndReturns) {
    log_capture log;
    free(std::exchange(pCloudRemoteMq, nullptr));
    swCloudRelayClientInit();
    EXPECT_NE(pCloudRemoteMq, nullptr);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("ubus_init", _),
                                         error_line("swCloudRelayClientInit",
                                                    "E - -1 call ubus_init() failed.")));
}

// --- arguments ---

TEST_F(TaskControllerTest, StartRefusesANullAddressAndALargePort) {
    EXPECT_EQ(swCloudRelayClientTaskStart(nullptr, 4433), 100);
    for (uint32_t port : {65536U, 70000U, UINT32_MAX}) {
        EXPECT_EQ(swCloudRelayClientTaskStart(HOST, port), 100);
    }
    EXPECT_THAT(log.lines(),
                AllOf(testing::SizeIs(4),
                      Each(error_line(START, "Ensure NULL != ipaddr && port <= 65535 && port >= 0 "
                                             "failed."))));
}

TEST_F(TaskControllerTest, AStartWithPortZeroIsRefusedOneStepLater) {
    EXPECT_EQ(start(0), 6);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line(INIT, "Ensure NULL != ipAddr && port <= 65535 && port > 0 "
                                             "failed."),
                            error_line(START, "E - 100 call _swCloudRelayClientTaskStart(ipaddr, "
                                              "port) failed.")));
    expect_idle();
}

TEST_F(TaskControllerTest, ReloadWithoutAddressIsCodeThree) {
    EXPECT_EQ(cloudRelayClientReload(nullptr, 4433), 3);
    EXPECT_EQ(cloudRelayClientReload(nullptr, 0), 3);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line("cloudRelayClientReload",
                                       "[CRC_SLP] Invalid param. addr is invalid and port 4433"),
                            error_line("cloudRelayClientReload",
                                       "[CRC_SLP] Invalid param. addr is invalid and port 0")));
}

TEST_F(TaskControllerTest, ReloadWithPortZeroWhileIdleTouchesNothing) {
    EXPECT_EQ(cloudRelayClientReload(HOST, 0), 0);
    EXPECT_THAT(log.lines(), ElementsAre(info_line("cloudRelayClientReload",
                                                   "[CRC_SLP] Disconnect relay-server ok.")));
}

TEST_F(TaskControllerTest, ReloadReturnsTheFailedStartsCode) {
    EXPECT_EQ(cloudRelayClientReload(HOST, 70000), 100);
    EXPECT_THAT(log.lines(), Contains(error_line("cloudRelayClientReload",
                                                 "E - 100 call swCloudRelayClientTaskStart("
                                                 "addrStr, port) failed.")));
}

// --- a session's life ---

TEST_F(TaskControllerTest, StartRunsASessionOnAWorkerAndReturnsBeforeItConnects) {
    tls_peer relay;
    ASSERT_EQ(start(relay.port()), 0); // nobody accepts yet
    EXPECT_THAT(log.messages(INIT),
                ElementsAre("[CRC:] Start cloudRelayClient task.", TASK_CREATED));
    relay.accept();
    greet(relay);
    ASSERT_TRUE(log.gets(loop_begins()));
    for (const log_line& line : log.lines()) {
        if (line.function == "cloud_cycle_start") {
            EXPECT_THAT(line.thread, MatchesRegex("cycleHnd_[0-9]+"));
        }
    }
    expect_alive(relay);
}

TEST_F(TaskControllerTest, WorkersAreNumbered) {
    std::vector<int> numbers;
    for (int session = 0; session < 3; session++) {
        log.clear();
        ASSERT_EQ(start(refusing_port()), 0);
        ASSERT_TRUE(log.gets(worker_exits()));
        for (const log_line& line : log.lines()) {
            if (line.function == WORKER) {
                numbers.push_back(std::stoi(line.thread.substr(strlen("cycleHnd_"))));
            }
        }
    }
    ASSERT_EQ(numbers.size(), 3U);
    EXPECT_EQ(numbers[1], numbers[0] + 1);
    EXPECT_EQ(numbers[2], numbers[0] + 2);
}

TEST_F(TaskControllerTest, AWorkerCleansUpBeforeItSaysGoodbye) {
    ASSERT_EQ(start(refusing_port()), 0);
    ASSERT_TRUE(log.gets(worker_exits()));
    std::vector<std::string> messages = log.messages();
    ASSERT_GE(messages.size(), 2U);
    EXPECT_EQ(messages.back(), TASK_EXIT);
    EXPECT_THAT(messages, Contains("[CRC:] Destroy cloud-cycle end.").Times(1));
    expect_idle();
}

TEST_F(TaskControllerTest, AWorkerLeavesSignalsOfTheEventLoopToTheMainThread) {
    tls_peer relay;
    start_session(relay);
    EXPECT_EQ(blocked_signals("cycleHnd_"), signal_bits({SIGCHLD, SIGINT, SIGTERM}));
    sigset_t own;
    pthread_sigmask(SIG_SETMASK, nullptr, &own);
    EXPECT_TRUE(sigisemptyset(&own));
}

TEST_F(TaskControllerTest, StopAsksTheSessionToEndAndDoesNotWait) {
    tls_peer relay;
    start_session(relay);
    EXPECT_EQ(swCloudRelayClientTaskStop(), 0);
    EXPECT_THAT(log.lines(), Contains(info_line("_swCloudRelayClientTaskStop",
                                                "[CRC:] Stop cloudRelayClient-task")));
    EXPECT_THAT(log.lines(),
                Contains(info_line("cloud_cycle_stop", "[CRC:] Close cloud-cycle by client.")));
    ASSERT_TRUE(log.gets(worker_exits()));
    expect_idle();
}

TEST_F(TaskControllerTest, ReloadWithPortZeroStopsTheSession) {
    tls_peer relay;
    start_session(relay);
    EXPECT_EQ(cloudRelayClientReload(HOST, 0), 0);
    ASSERT_TRUE(log.gets(worker_exits()));
    EXPECT_THAT(log.lines(), Contains(info_line("cloudRelayClientReload",
                                                "[CRC_SLP] Disconnect relay-server ok.")));
}

TEST_F(TaskControllerTest, ASessionThatEndsByItselfLeavesTheControllerIdle) {
    tls_peer relay;
    start_session(relay);
    relay.close_notify();
    ASSERT_TRUE(log.gets(worker_exits()));
    expect_idle();

    relay.accept();
    EXPECT_EQ(cloudRelayClientReload(HOST, static_cast<uint32_t>(relay.port())), 0);
    greet(relay);
    EXPECT_TRUE(log.gets(loop_begins(), 2));
    EXPECT_THAT(log.messages(RESTART), IsEmpty()) << "a first start again";
    EXPECT_THAT(log.lines(), Contains(info_line("cloudRelayClientReload",
                                                "[CRC_SLP] Connect relay-server(127.0.0.1:" +
                                                    std::to_string(relay.port()) + ") ok.")));
}

// The connect, when it succeeds, forgets both wishes to close.
TEST_F(TaskControllerTest, AStopDuringTheConnectIsWipedOut) {
    tls_peer relay;
    relay.accept_tcp();
    ASSERT_EQ(start(relay.port()), 0);
    ASSERT_TRUE(relay.is_done());
    EXPECT_EQ(swCloudRelayClientTaskStop(), 0);
    relay.hello_tls();
    greet(relay);
    ASSERT_TRUE(log.gets(loop_begins()));
    expect_alive(relay);
    expect_alive(relay);

    EXPECT_EQ(swCloudRelayClientTaskStop(), 0);
    EXPECT_TRUE(log.gets(worker_exits()));
}

// No cycle refuses to stop today.
TEST_F(TaskControllerTest, AStopThatTheCycleRefusesIsCodeSeven) {
    tls_peer relay;
    start_session(relay);
    isStopFailing = true;
    EXPECT_EQ(swCloudRelayClientTaskStop(), 7);
    EXPECT_EQ(cloudRelayClientReload(HOST, 0), 7);
    isStopFailing = false;
    EXPECT_THAT(log.messages("swCloudRelayClientTaskStop"),
                ElementsAre("E - 1 call _swCloudRelayClientTaskStop() failed.",
                            "E - 1 call _swCloudRelayClientTaskStop() failed."));
    EXPECT_THAT(log.messages("cloudRelayClientReload"),
                ElementsAre("E - 7 call swCloudRelayClientTaskStop() failed."));
    expect_alive(relay);

    EXPECT_EQ(swCloudRelayClientTaskStop(), 0);
    EXPECT_TRUE(log.gets(worker_exits()));
}

// The worker goes on with its cycle, so the restart must not free it; the address sanitizer
// watches.
TEST_F(TaskControllerTest, ARestartThatCannotStopTheSessionLeavesItsEndToTheWorker) {
    tls_peer relay;
    start_session(relay);
    EXPECT_EQ(relay.read_packet().type, PACKET_HEARTBEAT);
    let_go_of_worker();
    EXPECT_EQ(log.messages(RESTART).back(), "[CRC:] Create cloud-brd-task failed");
    EXPECT_THAT(log.messages(RESTART),
                Contains("E - 1 call _swCloudRelayClientTaskStop() failed."));
    EXPECT_TRUE(eventually([&] { return log.has(worker_exits()); }, std::chrono::seconds(1)));
    EXPECT_TRUE(relay.is_closed_in_order());
    EXPECT_EQ(log.count(info_line("cloud_cycle_destroy", "[CRC:] Destroy cloud-cycle end.")), 1U);
    expect_idle();
}

TEST_F(TaskControllerTest, StoppingTwiceIsFine) {
    tls_peer relay;
    start_session(relay);
    EXPECT_EQ(swCloudRelayClientTaskStop(), 0);
    EXPECT_EQ(swCloudRelayClientTaskStop(), 0);
    EXPECT_TRUE(log.gets(worker_exits()));
}

// --- failing starts ---

TEST_F(TaskControllerTest, AStartWithoutMemoryForTheCycleFails) {
    {
        fail_call failure("calloc");
        EXPECT_EQ(start(4433), 6);
    }
    EXPECT_THAT(log.lines(), Contains(error_line("_swCloudRelayClientParamsInit",
                                                 "[CRC:] Cloud cycle malloc error")));
    EXPECT_THAT(log.messages(INIT),
                ElementsAre("[CRC:] Start cloudRelayClient task.",
                            "E - 101 call _swCloudRelayClientParamsInit() failed.",
                            "[CRC:] Create cloudRelayClient task failed"));
    EXPECT_THAT(log.messages(START),
                ElementsAre("E - 101 call _swCloudRelayClientTaskStart(ipaddr, port) failed."));
    expect_idle();
}

TEST_F(TaskControllerTest, AStartWhoseCycleCannotBeFilledFails) {
    struct step {
        const char* call;
        int nth;
        int code;
    };
    for (const step& failing :
         {step{"malloc", 1, 101}, step{"malloc", 2, 101}, step{"malloc", 3, -1},
          step{"malloc", 4, -1}, step{"calloc", 2, -1}}) {
        log.clear();
        std::string code = std::to_string(failing.code);
        fail_call failure(failing.call, failing.nth);
        EXPECT_EQ(start(4433), 6);
        EXPECT_THAT(log.messages(INIT),
                    ElementsAre("[CRC:] Start cloudRelayClient task.",
                                "E - " + code +
                                    " call cloud_cycle_init(ipAddr, port, cloudCycle) "
                                    "failed.",
                                "[CRC:] Create cloudRelayClient task failed"));
        EXPECT_THAT(log.messages(START),
                    ElementsAre("E - " + code +
                                " call _swCloudRelayClientTaskStart(ipaddr, port) "
                                "failed."));
        expect_idle();
    }
}

TEST_F(TaskControllerTest, AStartWithoutThreadFails) {
    {
        fail_call failure("pthread_create");
        EXPECT_EQ(start(4433), 6);
    }
    EXPECT_THAT(log.messages(INIT), ElementsAre("[CRC:] Start cloudRelayClient task.",
                                                "E - 11 call pthread_create(&lCloudBrdTask, NULL, "
                                                "_swCloudRelayClientTaskEntry, NULL) failed.",
                                                "[CRC:] Create cloudRelayClient task failed"));
    EXPECT_THAT(log.messages(START),
                ElementsAre("E - 5 call _swCloudRelayClientTaskStart(ipaddr, port) failed."));
    EXPECT_THAT(log.messages(), Contains("[CRC:] Destroy cloud-cycle end.").Times(1));
    expect_idle();

    EXPECT_EQ(start(refusing_port()), 0) << "the next start is a good one";
    EXPECT_TRUE(log.gets(worker_exits()));
}

} // namespace
