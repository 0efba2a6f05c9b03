#pragma once

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <future>
#include <gmock/gmock.h>
#include <string>
#include <sys/select.h>
#include <sys/socket.h>
#include <vector>

#include "core/clock.h"
#include "core/cloud_cycle_record.h"
#include "queue/cloud_remote_mq.h"
#include "support/eventually.h"
#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "support/namespaces.h"
#include "support/packet.h"
#include "support/relay_session.h"
#include "support/tcp.h"
#include "support/verb_queue.h"
#include "support/web_peer.h"
#include "support/worker_wishes.h"
#include "transport/cloud_socket.h"

// What the files of the remote request queue's tests share: a queue, a relay, a web server, and
// the session's part in between.

constexpr char HANDLE_REQUEST[] = "cloud_remote_mq_request_handle";
constexpr char CONNECT_WEB[] = "_cloud_remote_mq_request_con_web_server";
constexpr char SEND_TO_WEB[] = "_cloud_remote_mq_request_send_to_web_server";
constexpr char HANDLE_RESPONSE[] = "cloud_remote_mq_response_handle";
constexpr char RECV_RESPONSE[] = "_cloud_remote_mq_response_recv";
constexpr uint16_t REQUEST = 3;
constexpr uint16_t RESPONSE = 4;

// The process's queue, as start-up makes it, for one test.
struct remote_queue {
    remote_queue() { EXPECT_EQ(cloud_remote_mq_init(), 0); }
    ~remote_queue() {
        // A session ends with its own thread's requests; those of a test's helpers remain.
        while (pCloudRemoteMq->head != nullptr) {
            cloud_remote_mq_node_t* prev = nullptr;
            internal::_cloud_remote_mq_sp_remove(&prev, &pCloudRemoteMq->head);
        }
        free(pCloudRemoteMq);
        pCloudRemoteMq = nullptr;
        pthread_mutex_destroy(&gRemoteMqLock);
    }
    remote_queue(const remote_queue&) = delete;
    remote_queue& operator=(const remote_queue&) = delete;
};

// Sets the option that names the web server's port, as text.
inline void configure_port(const std::string& port) {
    write_file("/etc/config/system",
               "config service_port 'service_port'\n\toption http_port '" + port + "'\n");
}

inline int handle_request(const relay_session& session, const std::string& header,
                          int64_t timeout = PATIENCE_MS) {
    return cloud_remote_mq_request_handle(session.cycle,
                                          reinterpret_cast<const uint8_t*>(header.data()), timeout);
}

// Takes a request with this body, which the relay sends, to the web server.
inline int forward(relay_session& session, uint16_t id, const std::string& body) {
    session.relay.send(body);
    return handle_request(session, header_bytes(REQUEST, id, static_cast<uint32_t>(body.size())));
}

// One turn of the session: waits until an answer can be read, and has it relayed.
inline int relay_answers(const relay_session& session) {
    fd_set readable;
    FD_ZERO(&readable);
    int maxFd = -1;
    cloud_remote_mq_fdset_set(&readable, &maxFd);
    timeval limit = {PATIENCE_MS / 1000, 0};
    EXPECT_GT(select(maxFd + 1, &readable, nullptr, nullptr, &limit), 0) << "no answer came";
    return cloud_remote_mq_response_handle(&readable, session.cycle->cloudSocket);
}

class remote_mq : public testing::Test {
protected:
    void SetUp() override {
        configure_port(std::to_string(web.port()));
        log.clear();
    }

    // The queue is for one thread's nodes; what a test leaves goes with its session.
    cloud_remote_mq_node_t* node(int index = 0) {
        cloud_remote_mq_node_t* node = pCloudRemoteMq->head;
        for (; index > 0; index--) {
            node = node->next;
        }
        return node;
    }

    // The identifiers of the queued requests, in order; the tail must be the last.
    std::vector<int> queued() {
        std::vector<int> ids;
        cloud_remote_mq_node_t* last = nullptr;
        for (last = pCloudRemoteMq->head; last != nullptr; last = last->next) {
            ids.push_back(last->reqHdr[4] << 8 | last->reqHdr[5]);
            if (last->next == nullptr) {
                EXPECT_EQ(pCloudRemoteMq->tail, last);
            }
        }
        if (ids.empty()) {
            EXPECT_EQ(pCloudRemoteMq->tail, nullptr);
        }
        return ids;
    }

    void expect_counters(unsigned pending, unsigned forwarded) {
        EXPECT_EQ(pCloudRemoteMq->pendingNum, pending);
        EXPECT_EQ(pCloudRemoteMq->forwardedNum, forwarded);
    }

    // A request that is with the web server, which owes the answer.
    web_connection await_answer(uint16_t id, const std::string& body = "GET /") {
        EXPECT_EQ(forward(session, id, body), 0);
        web_connection exchange = web.accept();
        EXPECT_EQ(exchange.read_exact(body.size()), body);
        log.clear();
        return exchange;
    }

    // The messages of the log macro alone: a packet's header is printed as well.
    std::vector<log_line> logged() {
        std::vector<log_line> lines = log.lines();
        std::erase_if(lines, [](const log_line& line) { return line.kind == line_kind::plain; });
        return lines;
    }

    log_capture log;
    remote_queue queue;
    relay_session session;
    web_peer web;
};
