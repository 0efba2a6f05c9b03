#include "session/heartbeat.h"

#include <cstdlib>

#include "core/clock.h"
#include "core/log.h"
#include "queue/cloud_mq.h"
#include "transport/packet_header.h"
#include "transport/session_connect.h"

namespace {

constexpr int NO_CLIENT = -1;

void _queue_heartbeat(cloud_cycle_t* cycle) {
    int id = cloud_mq_get_id(cycle->msgQueue);
    uint8_t* packet = cloud_heartbeat_generate_pkt(static_cast<uint16_t>(id));
    if (packet == nullptr) {
        LOG_ERROR_AS("cloud_heartbeat_insert_into_mq", "[CRC:] Generate heartbeat pkt error");
        return;
    }
    if (cloud_mq_insert_request(cycle->msgQueue, packet, PACKET_HEADER_SIZE, id, NO_CLIENT,
                                static_cast<int32_t>(cycle->requestTimeout)) != 0) {
        free(packet); // the queue, being full, did not take it over
    }
}

void _log_timeout(const cloud_cycle_t* cycle) {
    LOG_INFO_AS("cloud_heartbeat_insert_into_mq", "[CRC:] Send heartBeat timeout %d times ....",
                cycle->heartbeatTimeoutTimes);
}

void _repeat_heartbeat(cloud_cycle_t* cycle) {
    cycle->heartbeatTimeoutTimes++;
    _log_timeout(cycle);
    _queue_heartbeat(cycle);
}

void _give_up(cloud_cycle_t* cycle) {
    _log_timeout(cycle);
    cloud_heartbeat_reset_record(cycle);
    cycle->closeByClient = 1;
    cloud_session_disconnect(cycle);
}

} // namespace

void cloud_heartbeat_reset_record(cloud_cycle_t* cycle) {
    ENSURE(NULL != cycle, );
    cycle->heartbeatStatus = HEARTBEAT_IDLE;
    cycle->heartbeatTimeoutTimes = 0;
    cycle->heartbeatSendTime = 0;
    cycle->heartbeatRecvTime = 0;
    cycle->blindTime = 0;
}

void cloud_heartbeat_send_record(cloud_cycle_t* cycle) {
    ENSURE(NULL != cycle, );
    cycle->heartbeatStatus = HEARTBEAT_SENT;
    cycle->heartbeatSendTime = cloud_now_ms();
    cycle->heartbeatRecvTime = 0;
    cycle->blindTime = 0;
}

void cloud_heartbeat_recv_record(cloud_cycle_t* cycle) {
    ENSURE(NULL != cycle, );
    cycle->heartbeatStatus = HEARTBEAT_ANSWERED;
    cycle->heartbeatTimeoutTimes = 0;
    cycle->heartbeatRecvTime = cloud_now_ms();
}

uint8_t* cloud_heartbeat_generate_pkt(uint16_t id) {
    uint8_t* packet = packet_allocate(0);
    if (packet == nullptr) {
        LOG_ERROR("[CRC:] Out of memory for heartbeat pkt.");
        return nullptr;
    }
    packet_header_write(packet, {PACKET_MAGIC, PACKET_HEARTBEAT, id, 0, 0});
    return packet;
}

void cloud_heartbeat_insert_into_mq(cloud_cycle_t* cycle) {
    ENSURE(NULL != cycle, );
    // After a connect the send time is 0: the first heartbeat is due at once, or, on a system that
    // has been up for less than the interval, when its clock reaches the interval.
    int64_t elapsed = cloud_now_ms() - cycle->heartbeatSendTime;
    if (cycle->heartbeatStatus != HEARTBEAT_SENT) {
        if (elapsed >= cycle->heartbeatInterval) {
            _queue_heartbeat(cycle);
        }
        return;
    }

    // A reply may be waiting on the connection while the worker is busy elsewhere.
    elapsed -= cycle->blindTime;
    bool due = elapsed >= cycle->heartbeatInterval;
    if (cycle->heartbeatTimeoutTimes <= 0) {
        if (due) {
            _repeat_heartbeat(cycle);
        }
    } else if (cycle->heartbeatTimeoutTimes > cycle->heartbeatTimeoutMaxTimes) {
        _give_up(cycle);
    } else if (elapsed > cycle->requestTimeout) {
        _repeat_heartbeat(cycle);
    } else if (due) {
        _queue_heartbeat(cycle);
    }
}
