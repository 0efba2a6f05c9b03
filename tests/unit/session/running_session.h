#pragma once

#include <cstdlib>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <thread>
#include <unistd.h>

#include "queue/cloud_remote_mq.h"
#include "session/cloud_cycle.h"
#include "session/main_loop.h"
#include "support/eventually.h"
#include "support/failing_calls.h"
#include "support/forced_tls.h"
#include "support/log_capture.h"
#include "support/namespaces.h"
#include "support/tls_peer.h"
#include "support/web_peer.h"
#include "transport/cloud_socket.h"
#include "transport/packet_header.h"

// Fills every free descriptor below the next one to be had, until it ends: what opens a descriptor
// meanwhile gets one above, and afterwards one below.
class low_descriptors_taken {
public:
    low_descriptors_taken() {
        for (int& fd : taken) {
            fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
        }
    }
    ~low_descriptors_taken() {
        for (int fd : taken) {
            close(fd);
        }
    }
    low_descriptors_taken(const low_descriptors_taken&) = delete;
    low_descriptors_taken& operator=(const low_descriptors_taken&) = delete;

private:
    int taken[64];
};

// The main loop on a thread of its own, as the task controller's worker runs it, with the test as
// its relay and its web server. The cycle may be changed before start(), and looked at after end().
class RunningSession : public testing::Test {
protected:
    RunningSession() {
        if (pCloudRemoteMq == nullptr) {
            cloud_remote_mq_init();
        }
        write_file(DFLT_CER_FILE_PATH, shared_certificates().root);
        write_file("/etc/config/system", "config service 'service_port'\n\toption http_port '" +
                                             std::to_string(web.port()) + "'\n");
        EXPECT_EQ(cloud_cycle_init("127.0.0.1", relay.port(), cycle), 0);
        log.clear();
    }
    ~RunningSession() override {
        if (worker.joinable()) {
            cloud_cycle_stop(cycle);
            end();
        }
        cloud_cycle_destroy(cycle);
    }

    // Through the handshake into the loop.
    void start() {
        relay.accept();
        run();
        ASSERT_TRUE(relay.is_connected());
        EXPECT_EQ(relay.read_packet().type, PACKET_HELLO);
        relay.send(packet_bytes({PACKET_HELLO, 0, R"({"err_code":0})"}));
        ASSERT_TRUE(log.gets(info_line("cloud_cycle_start", "[CRC:] begin cycle loop")));
    }

    void run() {
        worker = std::thread([this] {
            result = cloud_cycle_start(cycle);
            cloud_remote_mq_clear(); // the exchanges are this thread's
        });
    }

    // Waits for the session's end.
    int end() {
        worker.join();
        return result;
    }

    // Where in the log the line first stands.
    size_t place_of(const testing::Matcher<log_line>& line) const {
        std::vector<log_line> lines = log.lines();
        size_t place = 0;
        while (place < lines.size() && !line.Matches(lines[place])) {
            place++;
        }
        return place;
    }

    // Waits until the session has handled all that the relay has sent so far, and until the turn
    // before the last of it is over.
    void settle() {
        for (int turn = 0; turn < 2; turn++) {
            relay.send(packet_bytes({PACKET_RESPONSE, 0, "", MARK}));
            marks++;
            ASSERT_TRUE(log.gets(plain_line(mark_line()), marks));
        }
    }

    // The same, and that the session waits: time that passes now passes while it is not busy.
    void rest() {
        settle();
        counted_calls waits("select");
        ASSERT_TRUE(eventually([&] { return waits.count() > 0; }));
    }

    // Reads a heartbeat, which must be the one with that identifier.
    void expect_heartbeat(uint16_t id) {
        EXPECT_EQ(relay.read_packet(), (packet{PACKET_HEARTBEAT, id, ""}));
    }
    void answer_heartbeat(uint16_t id) { relay.send(packet_bytes({PACKET_HEARTBEAT, id, ""})); }

    static constexpr uint16_t MARK = 54321; // in Reserve, of a packet that is ignored
    static std::string mark_line() {
        return "[CRC:] parse req, resv    : " + std::to_string(MARK) + "\r";
    }

    log_capture log;
    moved_clock clock{1000000}; // however short the machine has been up
    tls_peer relay;
    web_peer web;
    cloud_cycle_t* const cycle = static_cast<cloud_cycle_t*>(calloc(1, sizeof(cloud_cycle_t)));
    std::thread worker;
    size_t marks = 0;
    int result = -2;
};

// The loop's own lines.
inline testing::Matcher<log_line> loop_info(const std::string& message) {
    return info_line("cloud_cycle_start", message);
}
inline testing::Matcher<log_line> loop_error(const std::string& message) {
    return error_line("cloud_cycle_start", message);
}

constexpr char CLOSED_BY_PEER[] = "[CRC:] socket closed by peer";
constexpr char SESSION_CLOSED[] = "[CRC:] This connection is closed by relay-server/client.";
