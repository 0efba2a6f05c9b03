#pragma once

#include <cstdlib>
#include <gmock/gmock.h>
#include <utility>

#include "control/start_up.h"
#include "queue/cloud_remote_mq.h"
#include "support/eventually.h"
#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "support/namespaces.h"
#include "support/tls_peer.h"
#include "task/task_controller.h"
#include "transport/cloud_socket.h"
#include "transport/packet_header.h"

constexpr char HOST[] = "127.0.0.1";
constexpr char WORKER[] = "_swCloudRelayClientTask"; // what the worker's own lines are called
constexpr char INIT[] = "_swCloudRelayClientTaskInit";
constexpr char START[] = "swCloudRelayClientTaskStart";
constexpr char RESTART[] = "_swCloudRelayClientTaskRestart";
constexpr char TASK_EXIT[] = "[CRC:] CloudRelayClient task exit.";
constexpr char TASK_CREATED[] = "[CRC:] Create cloudRelayClient task ok";

// While set, no cycle can be stopped; the test's thread alone stops cycles.
inline bool isStopFailing = false;

// The controller, with relays that the test plays. Each test leaves it idle.
class ControlledTask : public testing::Test {
protected:
    // Without a bus the set-up comes back at once.
    static void SetUpTestSuite() {
        log_capture quiet;
        free(std::exchange(pCloudRemoteMq, nullptr));
        swCloudRelayClientInit();
    }

    ControlledTask() { write_file(DFLT_CER_FILE_PATH, shared_certificates().root); }

    ~ControlledTask() override {
        swCloudRelayClientTaskStop();
        EXPECT_TRUE(all_workers_exit());
    }

    static int start(int port) {
        return swCloudRelayClientTaskStart(HOST, static_cast<uint32_t>(port));
    }

    // Takes part in the handshake of the session that connects to `relay`, up to its first turn.
    static void greet(tls_peer& relay) {
        EXPECT_TRUE(relay.is_connected());
        EXPECT_EQ(relay.read_packet().type, PACKET_HELLO);
        relay.send(packet_bytes({PACKET_HELLO, 0, R"({"err_code":0})"}));
    }

    // A session in its loop.
    void start_session(tls_peer& relay) {
        relay.accept();
        ASSERT_EQ(start(relay.port()), 0);
        greet(relay);
        ASSERT_TRUE(log.gets(loop_begins()));
    }

    static testing::Matcher<log_line> loop_begins() {
        return info_line("cloud_cycle_start", "[CRC:] begin cycle loop");
    }
    static testing::Matcher<log_line> worker_exits() { return info_line(WORKER, TASK_EXIT); }

    bool all_workers_exit() const {
        return eventually(
            [&] { return log.count(worker_exits()) == log.count(info_line(INIT, TASK_CREATED)); });
    }

    // Lets the worker go without the pause of a restart: one that cannot stop its session.
    static void let_go_of_worker() {
        isStopFailing = true;
        EXPECT_EQ(start(1), 8);
        isStopFailing = false;
    }

    // A restart that makes no pause.
    static int restart_at_once(const char* host, int port) {
        fail_call pause("clock_nanosleep");
        int result = swCloudRelayClientTaskStart(host, static_cast<uint32_t>(port));
        EXPECT_TRUE(pause.happened());
        return result;
    }

    // The session goes on: the relay's packet is handled.
    void expect_alive(tls_peer& relay) {
        size_t before = log.count(plain_line(MARK_LINE));
        relay.send(packet_bytes({PACKET_RESPONSE, 0, "", 54321}));
        EXPECT_TRUE(log.gets(plain_line(MARK_LINE), before + 1));
    }

    // An idle controller takes a stop without a word.
    void expect_idle() {
        size_t before = log.lines().size();
        EXPECT_EQ(swCloudRelayClientTaskStop(), 0);
        EXPECT_EQ(log.lines().size(), before) << "there was something to stop";
    }

    static constexpr char MARK_LINE[] = "[CRC:] parse req, resv    : 54321\r";
    log_capture log;
};
