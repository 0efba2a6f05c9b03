#include "session/main_loop.h"

#include <cerrno>
#include <cstring>
#include <sys/select.h>
#include <unistd.h>

#include "core/block.h"
#include "core/clock.h"
#include "core/cloud_cycle_record.h"
#include "core/footprint.h"
#include "core/log.h"
#include "core/result.h"
#include "core/wanted.h"
#include "queue/cloud_mq.h"
#include "queue/cloud_remote_mq.h"
#include "session/dispatch.h"
#include "session/heartbeat.h"
#include "transport/cloud_socket.h"
#include "transport/relay_packet.h"
#include "transport/session_connect.h"

namespace {

constexpr char START[] = "cloud_cycle_start";
constexpr suseconds_t TURN_US = 200000;
constexpr useconds_t UNREADY_PAUSE_US = 20 * 1000;
constexpr int64_t PACKET_TIMEOUT_MS = 5000;
constexpr uint64_t IDLE_LIMIT_MS = 600000; // 10 minutes

// What one turn's wait brought.
struct turn_events {
    fd_set readable;
    int ready;          // as select returns it
    bool relayReadable; // the relay sent something, if only part of a TLS record
};

bool _wants_end(const cloud_cycle_t* cycle) {
    return cycle->closeByCloud == 1 || cycle->closeByClient == 1 || is_let_go();
}

void _clear_running(cloud_cycle_t* cycle) {
    cycle->status = static_cast<uint16_t>(cycle->status & ~CLOUD_CYCLE_RUNNING);
}

// A worker that is busy with a request or an answer sees no reply: that time does not count
// against the messages that await one.
void _forgive(cloud_cycle_t* cycle, int64_t blind) {
    cycle->blindTime += blind;
    cloud_mq_forgive(cycle->msgQueue, blind);
}

// Waits for the relay and for the web server's answers, not at all when TLS holds a packet already
// that the descriptor no longer shows.
void _wait(const cloud_cycle_t* cycle, turn_events* events) {
    FD_ZERO(&events->readable);
    bool connected = (cycle->status & CLOUD_CYCLE_CONNECTED) != 0;
    int relay = cycle->cloudSocket->sockfd;
    int maxFd = 0;
    if (connected) {
        FD_SET(relay, &events->readable);
        maxFd = relay;
        cloud_remote_mq_fdset_set(&events->readable, &maxFd);
    }
    bool buffered = connected && cloud_socket_has_buffered_data(cycle->cloudSocket);
    timeval limit = {0, buffered ? 0 : TURN_US};
    events->ready = select(maxFd + 1, &events->readable, nullptr, nullptr, &limit);
    // select ignores descriptors above its bound, so the relay's bit may be stale.
    bool reported =
        connected && events->ready > 0 && relay <= maxFd && FD_ISSET(relay, &events->readable);
    events->relayReadable = buffered || reported;
}

// Reads one packet's header and has the packet handled. Returns 0 or why the session must end.
int _receive_packet(cloud_cycle_t* cycle) {
    uint8_t* received = nullptr;
    size_t length = 0;
    int result =
        cloud_socket_recv_pkt_hdr(cycle->cloudSocket, &received, &length, PACKET_TIMEOUT_MS);
    block_ptr packet(received);
    if (result == CLOUD_UNREACHABLE) {
        LOG_INFO_AS(START, "[CRC:] socket closed by peer");
        return result;
    }
    if (result != CLOUD_OK) {
        // Always the number of a receive error, whatever went wrong.
        LOG_ERROR_AS(START, "[CRC:] socket receive error:%d", CLOUD_RECV_ERROR);
        return result;
    }
    int64_t start = cloud_now_ms();
    result = cloud_server_handle_dispatch(cycle, packet.get(), length, PACKET_TIMEOUT_MS);
    _forgive(cycle, cloud_now_ms() - start);
    return result;
}

void _lose_connection(cloud_cycle_t* cycle, int reason) {
    cloud_session_disconnect(cycle);
    cycle->closeByCloud = 1;
    if (reason != CLOUD_UNREACHABLE) {
        LOG_ERROR_AS(START, "[CRC:] socket receive/send error: %d", reason);
    }
}

void _relay_answers(cloud_cycle_t* cycle, const turn_events& events) {
    int64_t start = cloud_now_ms();
    cloud_remote_mq_response_handle(&events.readable, cycle->cloudSocket);
    _forgive(cycle, cloud_now_ms() - start);
}

// Answers of the web server are read only when the relay has nothing for us. Bytes from the relay
// may carry no data, as a session ticket does; waiting for a header would then take the session
// down.
void _handle(cloud_cycle_t* cycle, const turn_events& events) {
    tls_data waiting =
        events.relayReadable ? cloud_socket_look(cycle->cloudSocket) : tls_data::none;
    if (waiting == tls_data::some) {
        int result = _receive_packet(cycle);
        if (result != CLOUD_OK) {
            _lose_connection(cycle, result);
        }
        return;
    }
    if (waiting == tls_data::blocked) { // still readable: without a pause the loop would spin
        usleep(UNREADY_PAUSE_US);
    }
    if (events.ready > 0) {
        _relay_answers(cycle, events);
    }
}

void _check_idle(cloud_cycle_t* cycle) {
    if (static_cast<uint64_t>(cloud_now_ms() - cycle->lastRequestTime) > IDLE_LIMIT_MS) {
        cycle->closeByClient = 1;
    }
}

void _turn(cloud_cycle_t* cycle) {
    cloud_heartbeat_insert_into_mq(cycle);
    cloud_remote_mq_remove();
    cloud_mq_send_request(cycle);
    turn_events events;
    _wait(cycle, &events);
    if (events.ready < 0) {
        int error = errno;
        LOG_ERROR_AS(START, "[CRC:] select error %s", strerror(error));
        if (error != EINTR) { // lasting errors: a turn takes its time, as one without events does
            usleep(TURN_US);
        }
        return;
    }
    _handle(cycle, events);
    _check_idle(cycle);
}

// What ends the worker's waits, for the time of its session. A stop does so once the connection
// stands: a successful connect forgets the stops that came before.
struct session_wishes {
    explicit session_wishes(const cloud_cycle_t* ofCycle) : cycle(ofCycle) {
        thread_wishes_set({nullptr, cycle != nullptr ? &cycle->letGo : nullptr});
    }
    ~session_wishes() { thread_wishes_set({}); }
    session_wishes(const session_wishes&) = delete;
    session_wishes& operator=(const session_wishes&) = delete;

    void heed_stop() const { thread_wishes_set({&cycle->closeByClient, &cycle->letGo}); }

    const cloud_cycle_t* cycle;
};

} // namespace

int cloud_cycle_start(cloud_cycle_t* cycle) {
    session_wishes wishes(cycle);
    int result = cloud_session_connect(cycle);
    if (result != 0) {
        LOG_ERROR(CALL_FAILED, result, "cloud_session_connect(cycle)");
        return result;
    }
    wishes.heed_stop();
    release_idle_memory();
    LOG_INFO("[CRC:] begin cycle loop");
    while ((cycle->status & CLOUD_CYCLE_RUNNING) != 0) {
        if (_wants_end(cycle)) {
            _clear_running(cycle);
            cloud_session_disconnect(cycle);
            LOG_INFO("[CRC:] This connection is closed by relay-server/client.");
            break;
        }
        _turn(cycle);
    }
    return CLOUD_OK;
}
