#include "session/cloud_cycle.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <pthread.h>
#include <set>

#include "core/clock.h"
#include "handshake/hello_cloud.h"
#include "queue/cloud_mq.h"
#include "queue/cloud_remote_mq.h"
#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "support/namespaces.h"
#include "support/packet.h"
#include "support/web_peer.h"
#include "transport/cloud_socket.h"

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Ge;
using testing::IsEmpty;
using testing::Le;
using testing::StrEq;

namespace {

// The mutexes that the calling thread makes and destroys in its scope.
class mutex_watch {
public:
    mutex_watch() { ofThread = this; }
    ~mutex_watch() { ofThread = nullptr; }
    mutex_watch(const mutex_watch&) = delete;
    mutex_watch& operator=(const mutex_watch&) = delete;

    static inline thread_local mutex_watch* ofThread = nullptr;

    std::set<pthread_mutex_t*> made; // and not destroyed
    int destroyedUnmade = 0;
};

} // namespace

extern "C" int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* kind);
extern "C" int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* kind);
extern "C" int __real_pthread_mutex_destroy(pthread_mutex_t* mutex);
extern "C" int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex);

extern "C" int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* kind) {
    if (mutex_watch::ofThread != nullptr) {
        mutex_watch::ofThread->made.insert(mutex);
    }
    return __real_pthread_mutex_init(mutex, kind);
}

extern "C" int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex) {
    if (mutex_watch::ofThread != nullptr && mutex_watch::ofThread->made.erase(mutex) == 0) {
        mutex_watch::ofThread->destroyedUnmade++;
        return 0;
    }
    return __real_pthread_mutex_destroy(mutex);
}

namespace {

const bool isPrivate = private_namespaces();

constexpr char SERVER[] = "relay.example";
constexpr int PORT = 4433;

class CloudCycleTest : public testing::Test {
protected:
    CloudCycleTest() {
        if (pCloudRemoteMq == nullptr) {
            cloud_remote_mq_init();
        }
    }
    ~CloudCycleTest() override {
        if (cycle != nullptr) {
            cloud_cycle_destroy(cycle);
        }
    }

    void destroy() { cloud_cycle_destroy(std::exchange(cycle, nullptr)); }

    log_capture log;
    cloud_cycle_t* cycle = static_cast<cloud_cycle_t*>(calloc(1, sizeof(cloud_cycle_t)));
};

testing::Matcher<log_line> ensure_line(const char* function) {
    return error_line(function, "Ensure NULL != cycle failed.");
}

TEST_F(CloudCycleTest, InitFillsTheRecord) {
    memset(static_cast<void*>(cycle), 0xAB, sizeof *cycle);
    ASSERT_EQ(cloud_cycle_init(SERVER, PORT, cycle), 0);
    EXPECT_EQ(cycle->status, CLOUD_CYCLE_RUNNING | CLOUD_CYCLE_DISCONNECTED);
    EXPECT_EQ(cycle->status, 9);
    EXPECT_EQ(cycle->closeByCloud, 0);
    EXPECT_EQ(cycle->closeByClient, 0);
    EXPECT_EQ(cycle->defaultPort, PORT);
    EXPECT_THAT(cycle->defaultSvr, StrEq(SERVER));
    EXPECT_THAT(cycle->cerFile, StrEq("/etc/cloud-sdk/velmora-root-CA.pem"));
    ASSERT_NE(cycle->cloudSocket, nullptr);
    EXPECT_EQ(cycle->cloudSocket->sockfd, -1);
    ASSERT_NE(cycle->msgQueue, nullptr);
    EXPECT_EQ(cycle->msgQueue->nodeTotal, 40);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(CloudCycleTest, InitSetsTheTimesAndTheHooks) {
    memset(static_cast<void*>(cycle), 0xAB, sizeof *cycle);
    ASSERT_EQ(cloud_cycle_init(SERVER, PORT, cycle), 0);
    EXPECT_EQ(cycle->heartbeatStatus, HEARTBEAT_IDLE);
    EXPECT_EQ(cycle->heartbeatTimeoutTimes, 0);
    EXPECT_EQ(cycle->heartbeatTimeoutMaxTimes, 4);
    EXPECT_EQ(cycle->heartbeatInterval, 100000);
    EXPECT_EQ(cycle->requestTimeout, 5000);
    EXPECT_EQ(cycle->lastRequestTime, 0);
    EXPECT_EQ(cycle->lastConnectedTime, 0);
    EXPECT_EQ(cycle->heartbeatSendTime, 0);
    EXPECT_EQ(cycle->heartbeatRecvTime, 0);
    EXPECT_EQ(cycle->build_hellocloud, zemc_build_request_of_hello_cloud_v2);
    EXPECT_EQ(cycle->response_hellocloud, zemc_recv_response_of_hello_cloud_v2);
    EXPECT_EQ(cycle->free_fn, free);
    cycle->respond_cloud(); // does nothing
    EXPECT_EQ(pthread_mutex_trylock(&cycle->lock), 0);
    pthread_mutex_unlock(&cycle->lock);
}

TEST_F(CloudCycleTest, InitCopiesTheServersName) {
    std::string name = SERVER;
    ASSERT_EQ(cloud_cycle_init(name.c_str(), PORT, cycle), 0);
    name.assign(name.size(), '?');
    EXPECT_THAT(cycle->defaultSvr, StrEq(SERVER));
}

TEST_F(CloudCycleTest, InitAcceptsTheLargestPortAndPortZero) {
    EXPECT_EQ(cloud_cycle_init(SERVER, 65535, cycle), 0);
    EXPECT_EQ(cycle->defaultPort, 65535);
    destroy();
    cycle = static_cast<cloud_cycle_t*>(calloc(1, sizeof(cloud_cycle_t)));
    EXPECT_EQ(cloud_cycle_init(SERVER, 0, cycle), 0);
}

TEST_F(CloudCycleTest, InitRefusesBadArguments) {
    for (int port : {65536, 70000, INT_MAX, -1, INT_MIN}) {
        EXPECT_EQ(cloud_cycle_init(SERVER, port, cycle), 100);
    }
    EXPECT_EQ(cloud_cycle_init(nullptr, PORT, cycle), 100);
    EXPECT_EQ(cloud_cycle_init(SERVER, PORT, nullptr), 100);
    EXPECT_THAT(log.lines(),
                AllOf(testing::SizeIs(7),
                      Each(error_line("cloud_cycle_init",
                                      "Ensure NULL != ipaddr && port <= 65535 && port >= 0 && "
                                      "NULL != cycle failed."))));
    EXPECT_EQ(cycle->defaultSvr, nullptr) << "a refused record is left alone";
}

struct failing_step {
    const char* call;
    int nth;
    int result;
    const char* source;
};

void PrintTo(const failing_step& step, std::ostream* out) {
    *out << step.call << " " << step.nth;
}

class CloudCycleOutOfMemoryTest : public CloudCycleTest,
                                  public testing::WithParamInterface<failing_step> {};

// Also: what was made before is released, or the leak checkers complain.
TEST_P(CloudCycleOutOfMemoryTest, InitSaysWhichStepFailed) {
    const failing_step& step = GetParam();
    {
        fail_call failure(step.call, step.nth);
        EXPECT_EQ(cloud_cycle_init(SERVER, PORT, cycle), step.result);
        EXPECT_TRUE(failure.happened());
    }
    EXPECT_THAT(log.messages("cloud_cycle_init"),
                ElementsAre(std::string("E - 1 call ") + step.source + " failed."));
    log.clear();
    destroy();
    EXPECT_THAT(log.lines(),
                Contains(info_line("cloud_cycle_destroy", "[CRC:] Destroy cloud-cycle end.")));
}

TEST_P(CloudCycleOutOfMemoryTest, DestroyLeavesMutexesAloneThatWereNotMade) {
    const failing_step& step = GetParam();
    mutex_watch mutexes;
    {
        fail_call failure(step.call, step.nth);
        EXPECT_EQ(cloud_cycle_init(SERVER, PORT, cycle), step.result);
        EXPECT_TRUE(failure.happened());
    }
    destroy();
    EXPECT_EQ(mutexes.destroyedUnmade, 0);
    EXPECT_THAT(mutexes.made, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    EveryAllocation, CloudCycleOutOfMemoryTest,
    testing::Values(
        failing_step{"malloc", 1, 101,
                     "(NULL == (cycle->cerFile = cloud_string_dup(DFLT_CER_FILE_PATH)))"},
        failing_step{"malloc", 2, 101, "(NULL == (cycle->defaultSvr = cloud_string_dup(ipaddr)))"},
        failing_step{"malloc", 3, -1, "(NULL == (cycle->cloudSocket = cloud_socket_init()))"},
        failing_step{"malloc", 4, -1, "(NULL == (cycle->cloudSocket = cloud_socket_init()))"},
        failing_step{"calloc", 1, -1,
                     "(NULL == (cycle->msgQueue = cloud_mq_init(MQ_INIT_NUMBER_DEFAULT)))"}));

TEST_F(CloudCycleTest, DestroyOfARefusedRecordLeavesItsMutexAlone) {
    mutex_watch mutexes;
    EXPECT_EQ(cloud_cycle_init(nullptr, PORT, cycle), 100);
    destroy();
    EXPECT_EQ(mutexes.destroyedUnmade, 0);
}

TEST_F(CloudCycleTest, DestroyOfACompleteRecordDestroysEveryMutexOnce) {
    mutex_watch mutexes;
    ASSERT_EQ(cloud_cycle_init(SERVER, PORT, cycle), 0);
    EXPECT_THAT(mutexes.made, Contains(&cycle->lock));
    destroy();
    EXPECT_EQ(mutexes.destroyedUnmade, 0);
    EXPECT_THAT(mutexes.made, IsEmpty());
}

TEST_F(CloudCycleTest, DestroyReleasesSocketQueueAndExchangesInThatOrder) {
    ASSERT_EQ(cloud_cycle_init(SERVER, PORT, cycle), 0);
    destroy();
    std::vector<std::string> functions;
    for (const log_line& line : log.lines()) {
        if (functions.empty() || functions.back() != line.function) {
            functions.push_back(line.function);
        }
    }
    EXPECT_THAT(functions,
                ElementsAre("cloud_socket_disconnect", "cloud_socket_destroy", "cloud_mq_destroy",
                            "cloud_remote_mq_clear", "cloud_cycle_destroy"));
    EXPECT_THAT(log.lines().back(),
                info_line("cloud_cycle_destroy", "[CRC:] Destroy cloud-cycle end."));
}

TEST_F(CloudCycleTest, DestroyDropsTheExchangesWithTheWebServer) {
    web_peer web;
    write_file("/etc/config/system", "config service 'service_port'\n\toption http_port '" +
                                         std::to_string(web.port()) + "'\n");
    ASSERT_EQ(cloud_cycle_init(SERVER, PORT, cycle), 0);
    std::string request = header_bytes(3, 1, 0);
    ASSERT_EQ(
        cloud_remote_mq_request_handle(cycle, reinterpret_cast<const uint8_t*>(request.data()), 0),
        0);
    web_connection exchange = web.accept();
    destroy();
    EXPECT_TRUE(exchange.is_at_end());
    EXPECT_EQ(pCloudRemoteMq->forwardedNum, 0U);
}

TEST_F(CloudCycleTest, StopOnlySetsTheFlag) {
    ASSERT_EQ(cloud_cycle_init(SERVER, PORT, cycle), 0);
    EXPECT_EQ(cloud_cycle_stop(cycle), 0);
    EXPECT_EQ(cycle->closeByClient, 1);
    EXPECT_EQ(cycle->closeByCloud, 0);
    EXPECT_EQ(cycle->status, 9);
    EXPECT_THAT(log.lines(),
                ElementsAre(info_line("cloud_cycle_stop", "[CRC:] Close cloud-cycle by client.")));
}

TEST_F(CloudCycleTest, ResettingForgetsBothWishesToClose) {
    cycle->closeByCloud = 1;
    cycle->closeByClient = 1;
    cloud_cycle_reset_notify_flags(cycle);
    EXPECT_EQ(cycle->closeByCloud, 0);
    EXPECT_EQ(cycle->closeByClient, 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(CloudCycleTest, UpdatesTakeThePresentTime) {
    int64_t before = cloud_now_ms();
    cloud_cycle_update_last_request_time(cycle);
    EXPECT_EQ(cycle->lastConnectedTime, 0);
    cloud_cycle_update_last_connected_time(cycle);
    int64_t after = cloud_now_ms();
    EXPECT_THAT(cycle->lastRequestTime, AllOf(Ge(before), Le(after)));
    EXPECT_THAT(cycle->lastConnectedTime, AllOf(Ge(before), Le(after)));
}

TEST_F(CloudCycleTest, ANullCycleIsOnlyLogged) {
    cloud_cycle_destroy(nullptr);
    cloud_cycle_reset_notify_flags(nullptr);
    cloud_cycle_update_last_request_time(nullptr);
    cloud_cycle_update_last_connected_time(nullptr);
    cloud_cycle_dump(nullptr);
    EXPECT_THAT(log.lines(), ElementsAre(ensure_line("cloud_cycle_destroy"),
                                         ensure_line("cloud_cycle_reset_notify_flags"),
                                         ensure_line("cloud_cycle_update_last_request_time"),
                                         ensure_line("cloud_cycle_update_last_connected_time"),
                                         ensure_line("cloud_cycle_dump")));
}

std::string address_of(const void* pointer) {
    char text[32];
    snprintf(text, sizeof text, "%p", pointer);
    return text;
}

TEST_F(CloudCycleTest, DumpPrintsTheRecordPlainly) {
    ASSERT_EQ(cloud_cycle_init(SERVER, PORT, cycle), 0);
    cycle->closeByCloud = 1;
    cycle->lastRequestTime = 1234567890123;
    cycle->lastConnectedTime = 22;
    cycle->heartbeatStatus = HEARTBEAT_ANSWERED;
    cycle->heartbeatSendTime = 33;
    cycle->heartbeatRecvTime = 44;
    cloud_cycle_dump(cycle);
    std::string stars(53, '*');
    EXPECT_EQ(log.text(),
              stars +
                  "\n  cycle->status:                        9\n"
                  "\n  cycle->closeByCloud:                  1\n"
                  "  cycle->closeByClient:               0\n"
                  "\n  cycle->defaultSvr:                    relay.example\n"
                  "  cycle->defaultPort:                   4433\n"
                  "\n  cycle->cloudSocket:                   " +
                  address_of(cycle->cloudSocket) +
                  "\n        cloudSocket->sockfd:            -1\n"
                  "        cloudSocket->cerFile:           /etc/cloud-sdk/velmora-root-CA.pem\n"
                  "        cloudSocket->status:            0\n"
                  "\n  cycle->heartbeatInterval:             100000\n"
                  "  heartbeatTimeoutMaxTimes              4\n"
                  "  cycle->requestTimeout:                5000\n"
                  "  cycle->lastRequestTime:               1234567890123\n"
                  "  cycle->lastConnectedTime:             22\n"
                  "\n  cycle->heartbeatStatus:               2\n"
                  "  cycle->heartbeatSendTime:             33\n"
                  "  cycle->heartbeatRecvTime:             44\n"
                  "\n\n  cycle->build_hellocloud:              " +
                  address_of(reinterpret_cast<void*>(cycle->build_hellocloud)) +
                  "\n  cycle->response_hellocloud:           " +
                  address_of(reinterpret_cast<void*>(cycle->response_hellocloud)) +
                  "\n  cycle->respond_cloud:                 " +
                  address_of(reinterpret_cast<void*>(cycle->respond_cloud)) +
                  "\n  cycle->free_fn:                       " +
                  address_of(reinterpret_cast<void*>(cycle->free_fn)) + "\n" + stars + "\n");
}

} // namespace
