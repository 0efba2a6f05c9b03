#pragma once

#include <atomic>
#include <cstdint>
#include <pthread.h>

// The cloud cycle: the context of one relay session, used by every room above core. The functions
// over it stand in session/cloud_cycle.h; what lower rooms tell the session, in
// core/session_notice.h.
//
// Owner: the task controller allocates it; the worker that runs its session destroys it.
// Threads: the worker's alone, except closeByClient and letGo.

struct cloud_socket_t;
struct cloud_mq_t;
struct hello_cloud_request_t;
struct hello_cloud_response_t;

// Bits of cloud_cycle_t::status.
constexpr uint16_t CLOUD_CYCLE_RUNNING = 1; // the main loop goes on while set
constexpr uint16_t CLOUD_CYCLE_CONNECTED = 2;
constexpr uint16_t CLOUD_CYCLE_DISCONNECTED = 8; // 4 is not used

// Values of cloud_cycle_t::heartbeatStatus.
constexpr int HEARTBEAT_IDLE = 0;
constexpr int HEARTBEAT_SENT = 1; // and unanswered
constexpr int HEARTBEAT_ANSWERED = 2;

constexpr unsigned CLOUD_MAX_PORT = 65535;

struct cloud_cycle_t {
    pthread_mutex_t lock; // initialised and destroyed with the record, taken by nobody
    uint16_t status;
    int closeByCloud;               // the connection was lost or its traffic was unusable
    std::atomic<int> closeByClient; // this side wants the end; the event loop's thread sets it too
    int defaultPort;
    char* defaultSvr;            // owned: host name or dotted address, as given
    cloud_socket_t* cloudSocket; // owned
    cloud_mq_t* msgQueue;        // owned
    char* cerFile;               // owned: path of the CA certificate
    int heartbeatStatus;
    int heartbeatTimeoutTimes; // consecutive time-outs counted so far
    int heartbeatTimeoutMaxTimes;
    int64_t heartbeatInterval; // this and all below: milliseconds; points in time of cloud_now_ms
    int64_t requestTimeout;    // life of a queued message, and of the wait for a heartbeat's reply
    int64_t lastRequestTime;   // last connect, relay request received, or queued message sent
    int64_t lastConnectedTime;
    int64_t heartbeatSendTime; // 0 after a reset
    int64_t heartbeatRecvTime; // 0 after a reset or a send
    void (*build_hellocloud)(hello_cloud_request_t** request);
    int (*response_hellocloud)(hello_cloud_response_t* response);
    void (*respond_cloud)();      // does nothing, called by nobody
    void (*free_fn)(void* block); // called by nobody
    std::atomic<int> letGo;       // a newer worker took this session's place; main sets it
    int64_t blindTime;            // since the last heartbeat left: when no reply could be seen
    bool isLockMade;
};
