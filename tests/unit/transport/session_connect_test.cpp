#include "transport/session_connect.h"

#include <cstdlib>
#include <gmock/gmock.h>

#include "core/clock.h"
#include "session/cloud_cycle.h"
#include "support/eventually.h"
#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "support/namespaces.h"
#include "support/tcp.h"
#include "support/tls_peer.h"
#include "support/worker_wishes.h"
#include "transport/cloud_socket.h"

namespace {

const bool isPrivate = private_namespaces();

using testing::Contains;
using testing::ElementsAre;

constexpr char CONNECT[] = "cloud_session_connect";
constexpr char BY_HOST[] = "_cloud_session_connect_default_svr_by_host";
constexpr char ATTEMPT[] = "_cloud_session_connect_default_svr_local";
constexpr char UNREACHABLE[] = "[CRC:] Fail to connect the defaultSvr, result:9";
constexpr uint16_t FRESH = CLOUD_CYCLE_RUNNING | CLOUD_CYCLE_DISCONNECTED;

// A cloud cycle for a relay that the test plays; the device's identity is made up.
struct SessionConnect : testing::Test {
    SessionConnect() {
        write_file(DFLT_CER_FILE_PATH, shared_certificates().root);
        write_file("/etc/hosts", "127.0.0.1 localhost\n");
        install_program("ubus", "echo '{\"device_id\": \"8001\", \"device_token\": \"secret\"}'\n");
    }
    ~SessionConnect() override {
        if (cycle != nullptr) {
            cloud_cycle_destroy(cycle);
        }
    }

    void make_cycle(const char* server, int port) {
        cycle = static_cast<cloud_cycle_t*>(malloc(sizeof(cloud_cycle_t)));
        ASSERT_EQ(cloud_cycle_init(server, port, cycle), 0);
        log.clear();
    }

    // Lets the relay accept a device and its hello, or not.
    void expect_device(int errCode = 0) {
        relay.accept();
        relay.send(packet_bytes({1, 0, "{\"err_code\": " + std::to_string(errCode) + "}"}));
    }

    std::string place(const std::string& server) const {
        return "[" + server + ":" + std::to_string(cycle->defaultPort) + "]";
    }
    std::string spaced_place(const std::string& server) const {
        return "[" + server + " : " + std::to_string(cycle->defaultPort) + "]";
    }
    auto announced(const std::string& ip) const {
        return info_line(BY_HOST, "[CRC:] Connect " + place(ip) + " successfully");
    }
    auto failed(const std::string& ip) const {
        return error_line(BY_HOST, "[CRC:] Connect " + place(ip) + " error");
    }

    // The lines of this module alone.
    std::vector<log_line> said() const {
        std::vector<log_line> result;
        for (const log_line& line : log.lines()) {
            if (line.function.find("cloud_session") != std::string::npos) {
                result.push_back(line);
            }
        }
        return result;
    }

    tls_peer relay;
    cloud_cycle_t* cycle = nullptr;
    log_capture log;
};

// --- cloud_session_connect ---

TEST_F(SessionConnect, AFreshCycleIsConnectedAndIdentified) {
    make_cycle("127.0.0.1", relay.port());
    ASSERT_EQ(cycle->status, FRESH);
    cycle->closeByCloud = 1;
    cycle->closeByClient = 1;
    expect_device();
    int64_t before = cloud_now_ms();
    EXPECT_EQ(cloud_session_connect(cycle), 0);
    EXPECT_EQ(relay.read_packet().type, 1);
    EXPECT_EQ(cycle->status, CLOUD_CYCLE_RUNNING | CLOUD_CYCLE_CONNECTED);
    EXPECT_GE(cycle->lastRequestTime, before);
    EXPECT_GE(cycle->lastConnectedTime, before);
    EXPECT_EQ(cycle->closeByCloud, 0);
    EXPECT_EQ(cycle->closeByClient, 0);
    EXPECT_EQ(cycle->cloudSocket->status, CLOUD_SOCKET_CONNECTED);
    EXPECT_THAT(
        said(),
        ElementsAre(info_line(CONNECT, "[CRC:] Connect relay-server use " + place("127.0.0.1")),
                    announced("127.0.0.1"),
                    info_line(CONNECT, "[CRC:] Connect relay-server successfully, use " +
                                           place("127.0.0.1"))));
}

TEST_F(SessionConnect, TheRunningBitIsNotSetByAConnect) {
    make_cycle("127.0.0.1", relay.port());
    cycle->status = CLOUD_CYCLE_DISCONNECTED;
    expect_device();
    EXPECT_EQ(cloud_session_connect(cycle), 0);
    EXPECT_EQ(cycle->status, CLOUD_CYCLE_CONNECTED);
}

TEST_F(SessionConnect, AConnectedCycleIsLeftAlone) {
    make_cycle("127.0.0.1", relay.port());
    expect_device();
    ASSERT_EQ(cloud_session_connect(cycle), 0);
    int fd = cycle->cloudSocket->sockfd;
    cycle->closeByCloud = 1;
    cycle->closeByClient = 1;
    log.clear();
    EXPECT_EQ(cloud_session_connect(cycle), 0);
    EXPECT_THAT(log.lines(), ElementsAre(info_line(CONNECT, "[CRC:] Connect relay-server use " +
                                                                place("127.0.0.1"))));
    EXPECT_EQ(cycle->cloudSocket->sockfd, fd);
    EXPECT_EQ(cycle->closeByCloud, 1);
    EXPECT_EQ(cycle->closeByClient, 1);
}

TEST_F(SessionConnect, ANullCycleIsRefused) {
    EXPECT_EQ(cloud_session_connect(nullptr), 100);
    EXPECT_THAT(log.lines(), ElementsAre(error_line(CONNECT, "Ensure NULL != cloudCycle "
                                                             "failed.")));
}

TEST_F(SessionConnect, AServerNameIsResolved) {
    write_file("/etc/hosts", "127.0.0.1 relay.example\n");
    make_cycle("relay.example", relay.port());
    expect_device();
    EXPECT_EQ(cloud_session_connect(cycle), 0);
    EXPECT_THAT(
        said(),
        ElementsAre(info_line(CONNECT, "[CRC:] Connect relay-server use " + place("relay.example")),
                    announced("127.0.0.1"),
                    info_line(CONNECT, "[CRC:] Connect relay-server successfully, use " +
                                           place("relay.example"))));
}

TEST_F(SessionConnect, AServerNameThatDoesNotResolveIsUnreachable) {
    make_cycle("nowhere.example", relay.port());
    cycle->closeByCloud = 1;
    EXPECT_EQ(cloud_session_connect(cycle), 9);
    EXPECT_THAT(
        said(),
        ElementsAre(
            info_line(CONNECT, "[CRC:] Connect relay-server use " + place("nowhere.example")),
            error_line(BY_HOST, testing::StartsWith("[CRC:] Gethostbyname nowhere.example err, ")),
            error_line(CONNECT, UNREACHABLE)));
    EXPECT_EQ(cycle->status, FRESH);
    EXPECT_EQ(cycle->closeByCloud, 0);
}

// A name with so many addresses that they need a larger buffer than the first one.
void write_hosts_of(const std::string& name) {
    std::string hosts = "127.0.0.1 " + name + "\n";
    for (int i = 0; i < 2000; i++) {
        hosts += "127.7." + std::to_string(i / 250) + "." + std::to_string(1 + i % 250) + " " +
                 name + "\n";
    }
    write_file("/etc/hosts", hosts);
}

TEST_F(SessionConnect, AServerNameMayHaveHundredsOfAddresses) {
    write_hosts_of("relay.example");
    make_cycle("relay.example", relay.port());
    expect_device();
    EXPECT_EQ(cloud_session_connect(cycle), 0);
    EXPECT_THAT(log.messages(BY_HOST),
                ElementsAre("[CRC:] Connect " + place("127.0.0.1") + " successfully"));
}

TEST_F(SessionConnect, WithoutMemoryForItsAddressesAServerIsUnreachable) {
    write_hosts_of("relay.example");
    make_cycle("relay.example", relay.port());
    for (int nth : {1, 2}) { // of the first buffer, and of a larger one
        log.clear();
        fail_call failure("malloc", nth);
        EXPECT_EQ(cloud_session_connect(cycle), 9);
        EXPECT_TRUE(failure.happened());
        EXPECT_THAT(log.lines(),
                    Contains(error_line(BY_HOST, "[CRC:] Gethostbyname relay.example err, Cannot "
                                                 "allocate memory")));
    }
}

TEST_F(SessionConnect, TheSecondAddressIsUsedWhenTheFirstRefuses) {
    write_file("/etc/hosts", "127.0.0.2 relay.example\n127.0.0.1 relay.example\n");
    make_cycle("relay.example", relay.port());
    expect_device();
    EXPECT_EQ(cloud_session_connect(cycle), 0);
    EXPECT_THAT(
        said(),
        ElementsAre(info_line(CONNECT, testing::_), announced("127.0.0.2"),
                    error_line(ATTEMPT, "[CRC:] Connect " + spaced_place("127.0.0.2") + " error"),
                    failed("127.0.0.2"), announced("127.0.0.1"), info_line(CONNECT, testing::_)));
    EXPECT_EQ(cycle->status, CLOUD_CYCLE_RUNNING | CLOUD_CYCLE_CONNECTED);
}

TEST_F(SessionConnect, EveryAddressIsTriedOnce) {
    write_file("/etc/hosts", "127.0.0.4 relay.example\n127.0.0.2 relay.example\n"
                             "127.0.0.3 relay.example\n");
    make_cycle("relay.example", relay.port());
    EXPECT_EQ(cloud_session_connect(cycle), 9);
    EXPECT_THAT(log.messages(BY_HOST),
                ElementsAre("[CRC:] Connect " + place("127.0.0.4") + " successfully",
                            "[CRC:] Connect " + place("127.0.0.4") + " error",
                            "[CRC:] Connect " + place("127.0.0.2") + " successfully",
                            "[CRC:] Connect " + place("127.0.0.2") + " error",
                            "[CRC:] Connect " + place("127.0.0.3") + " successfully",
                            "[CRC:] Connect " + place("127.0.0.3") + " error"));
    EXPECT_THAT(log.messages(CONNECT), Contains(UNREACHABLE));
}

TEST_F(SessionConnect, ARefusedHelloClosesTheConnection) {
    make_cycle("127.0.0.1", relay.port());
    expect_device(5);
    EXPECT_EQ(cloud_session_connect(cycle), 9);
    EXPECT_THAT(said(), ElementsAre(info_line(CONNECT, testing::_), announced("127.0.0.1"),
                                    error_line(ATTEMPT, "[CRC:] Handshake " +
                                                            spaced_place("127.0.0.1") + " error"),
                                    failed("127.0.0.1"), error_line(CONNECT, UNREACHABLE)));
    EXPECT_EQ(relay.read_packet().type, 1);
    EXPECT_TRUE(relay.is_closed_in_order());
    EXPECT_EQ(cycle->cloudSocket->status, CLOUD_SOCKET_DISCONNECTED);
    EXPECT_EQ(cycle->cloudSocket->sockfd, -1);
    EXPECT_EQ(cycle->status, FRESH);
}

TEST_F(SessionConnect, AReplacedWorkerSaysNoHello) {
    make_cycle("127.0.0.1", relay.port());
    relay.accept();
    worker_wishes wishes;
    wishes.adopt();
    wishes.letGo = 1;
    EXPECT_NE(internal::_cloud_session_connect_default_svr_local(cycle, "127.0.0.1"), 0);
    EXPECT_EQ(relay.read_exact(1), "");
    EXPECT_EQ(cycle->cloudSocket->sockfd, -1);
}

TEST_F(SessionConnect, AReplacedWorkerTriesNoFurtherAddress) {
    make_cycle("127.0.0.1", relay.port());
    worker_wishes wishes;
    wishes.adopt();
    wishes.letGo = 1;
    EXPECT_EQ(cloud_session_connect(cycle), 9);
    EXPECT_THAT(log.messages(BY_HOST), testing::IsEmpty());
}

// --- one attempt ---

TEST_F(SessionConnect, AnAttemptRefusesNullArguments) {
    make_cycle("127.0.0.1", relay.port());
    EXPECT_NE(internal::_cloud_session_connect_default_svr_local(nullptr, "127.0.0.1"), 0);
    EXPECT_NE(internal::_cloud_session_connect_default_svr_local(cycle, nullptr), 0);
    auto refusal = error_line(ATTEMPT, "Ensure NULL != cloudCycle && NULL != ipAddr failed.");
    EXPECT_THAT(log.lines(), ElementsAre(refusal, refusal));
}

// --- cloud_session_disconnect ---

TEST_F(SessionConnect, DisconnectClosesTheConnectionAndForgetsItsHeartbeats) {
    make_cycle("127.0.0.1", relay.port());
    expect_device();
    ASSERT_EQ(cloud_session_connect(cycle), 0);
    cycle->heartbeatSendTime = 5;
    cycle->heartbeatRecvTime = 6;
    cycle->heartbeatStatus = HEARTBEAT_SENT;
    EXPECT_EQ(cloud_session_disconnect(cycle), 0);
    EXPECT_EQ(cycle->status, FRESH);
    EXPECT_EQ(cycle->cloudSocket->sockfd, -1);
    EXPECT_EQ(cycle->heartbeatSendTime, 0);
    EXPECT_EQ(cycle->heartbeatRecvTime, 0);
    EXPECT_EQ(cycle->heartbeatStatus, HEARTBEAT_IDLE);
    EXPECT_EQ(relay.read_packet().type, 1);
    EXPECT_TRUE(relay.is_closed_in_order());
}

TEST_F(SessionConnect, DisconnectKeepsAClearedRunningBit) {
    make_cycle("127.0.0.1", relay.port());
    expect_device();
    ASSERT_EQ(cloud_session_connect(cycle), 0);
    cycle->status = CLOUD_CYCLE_CONNECTED;
    EXPECT_EQ(cloud_session_disconnect(cycle), 0);
    EXPECT_EQ(cycle->status, CLOUD_CYCLE_DISCONNECTED);
}

TEST_F(SessionConnect, ASecondDisconnectIsOnlyLogged) {
    make_cycle("127.0.0.1", relay.port());
    expect_device();
    ASSERT_EQ(cloud_session_connect(cycle), 0);
    ASSERT_EQ(cloud_session_disconnect(cycle), 0);
    log.clear();
    cycle->heartbeatSendTime = 5;
    EXPECT_EQ(cloud_session_disconnect(cycle), 0);
    EXPECT_THAT(log.lines(),
                ElementsAre(info_line("cloud_session_disconnect", "[CRC:] Cloud socket is already "
                                                                  "disconnected")));
    EXPECT_EQ(cycle->heartbeatSendTime, 5);
}

TEST_F(SessionConnect, DisconnectOfANullCycleIsRefused) {
    EXPECT_EQ(cloud_session_disconnect(nullptr), 100);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("cloud_session_disconnect",
                                                    "Ensure NULL != cloudCycle failed.")));
}

TEST_F(SessionConnect, ALostCycleConnectsAgain) {
    make_cycle("127.0.0.1", relay.port());
    for (int round = 0; round < 2; round++) {
        expect_device();
        EXPECT_EQ(cloud_session_connect(cycle), 0);
        EXPECT_EQ(cloud_session_disconnect(cycle), 0);
    }
}

} // namespace
