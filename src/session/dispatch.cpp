#include "session/dispatch.h"

#include <cstdlib>

#include "core/cloud_cycle_record.h"
#include "core/log.h"
#include "core/result.h"
#include "core/session_notice.h"
#include "core/text.h"
#include "queue/cloud_mq.h"
#include "queue/cloud_remote_mq.h"
#include "session/web_token.h"
#include "transport/packet_header.h"

int cloud_server_handle_response(cloud_cycle_t* cycle, const uint8_t* message, size_t length) {
    int id = packet_header_read(message).id;
    char* copy = cloud_string_ndup(message, length);
    if (copy == nullptr) {
        LOG_ERROR("[CRC:] Out of memory");
        return CLOUD_NO_MEMORY;
    }
    bool expected = cloud_mq_has_request(cycle->msgQueue, id);
    if (cloud_mq_set_response(cycle->msgQueue, id, reinterpret_cast<uint8_t*>(copy),
                              static_cast<int>(length)) != 0) {
        LOG_ERROR("[CRC:] set response error");
        if (!expected) {
            free(copy); // the queue frees a late reply, but leaves us one that it does not know
        }
        return CLOUD_ERROR;
    }
    return CLOUD_OK;
}

int cloud_server_handle_dispatch(cloud_cycle_t* cycle, const uint8_t* message, size_t length,
                                 int64_t timeout) {
    ENSURE(NULL != message, CLOUD_BAD_ARGUMENT);
    packet_header_t header = packet_header_read(message);
    if (header.magic != PACKET_MAGIC) {
        LOG_ERROR("[CRC:] Magic number(pkt Header 0x%04X) err.", header.magic);
        return CLOUD_BAD_MAGIC;
    }
    switch (header.type) {
    case PACKET_HELLO:
    case PACKET_RESPONSE:
        return CLOUD_OK;
    case PACKET_HEARTBEAT:
        LOG_INFO("[CRC:] cloud heartbeat recv");
        return cloud_server_handle_response(cycle, message, length);
    case PACKET_REQUEST:
        LOG_INFO("[CRC:] cloud request recv");
        cloud_cycle_update_last_request_time(cycle);
        return cloud_remote_mq_request_handle(cycle, message, timeout);
    case PACKET_WEB_TOKEN:
        LOG_INFO("[CRC:] Recv request pkt for webToken from relay server.");
        return cloud_server_handle_request_web_token(cycle, message, timeout);
    case PACKET_REQUEST_UNCOUNTED:
        return cloud_remote_mq_request_handle(cycle, message, timeout);
    default:
        return CLOUD_ERROR;
    }
}
