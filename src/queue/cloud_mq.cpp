#include "queue/cloud_mq.h"

#include <cstdio>
#include <cstdlib>

#include "core/clock.h"
#include "core/cloud_cycle_record.h"
#include "core/log.h"
#include "core/mutex_guard.h"
#include "core/result.h"
#include "core/session_notice.h"
#include "transport/packet_header.h"
#include "transport/relay_packet.h"

namespace {

// Identifiers stay below 65535, so that each fits the header's 16-bit ID.
constexpr int ID_MODULUS = 65535;

bool _is_heartbeat(const cloud_mq_node_t& node) {
    return packet_header_read(node.reqStr).type == PACKET_HEARTBEAT;
}

int64_t _age(const cloud_mq_node_t& node) {
    return cloud_now_ms() - node.reqTime;
}

bool _is_free(const cloud_mq_node_t& node) {
    return node.id == 0 || _age(node) > node.timeout || node.status == CLOUD_MQ_ANSWERED;
}

cloud_mq_node_t* _find(cloud_mq_t* mq, int id) {
    for (int i = 0; i < mq->nodeTotal; i++) {
        if (mq->node[i].id == id) {
            return &mq->node[i];
        }
    }
    return nullptr;
}

// The next free slot round the ring, or null after one whole turn.
cloud_mq_node_t* _take_slot(cloud_mq_t* mq) {
    for (int probes = 0; probes < mq->nodeTotal; probes++) {
        cloud_mq_node_t* node = &mq->node[mq->nodeNext];
        mq->nodeNext = (mq->nodeNext + 1) % mq->nodeTotal;
        if (_is_free(*node)) {
            free(node->reqStr);
            free(node->resStr);
            *node = {};
            return node;
        }
    }
    return nullptr;
}

// Frees all packets and says how many there were, on behalf of `function`.
void _free_packets(cloud_mq_t* mq, const char* function) {
    int requests = 0;
    int responses = 0;
    for (int i = 0; i < mq->nodeTotal; i++) {
        cloud_mq_node_t* node = &mq->node[i];
        requests += node->reqStr != nullptr;
        responses += node->resStr != nullptr;
        free(node->reqStr);
        free(node->resStr);
        *node = {};
    }
    LOG_INFO_AS(function, "[CRC:] free %d request string, %d response string", requests, responses);
}

bool _send(cloud_cycle_t* cycle, cloud_mq_node_t* node) {
    if (_is_heartbeat(*node)) {
        cloud_heartbeat_send_record(cycle);
    }
    int result =
        cloud_socket_send(cycle->cloudSocket, node->reqStr, static_cast<size_t>(node->reqLen));
    if (result != 0) {
        LOG_ERROR_AS("cloud_mq_send_request", "[CRC:] Send request error, result:%d", result);
        return false;
    }
    node->status = CLOUD_MQ_SENT;
    cloud_cycle_update_last_request_time(cycle);
    LOG_INFO_AS("cloud_mq_send_request", "[CRC:] Send requset ok.");
    return true;
}

} // namespace

cloud_mq_t* cloud_mq_init(unsigned num) {
    ENSURE(0 != num, nullptr);
    cloud_mq_t* mq =
        static_cast<cloud_mq_t*>(calloc(1, sizeof(cloud_mq_t) + num * sizeof(cloud_mq_node_t)));
    if (mq == nullptr) {
        LOG_ERROR("[CRC:] msg queue malloc error");
        return nullptr;
    }
    mq->nodeTotal = static_cast<int>(num);
    pthread_mutex_init(&mq->lock, nullptr);
    return mq;
}

void cloud_mq_destroy(cloud_mq_t* mq) {
    ENSURE(NULL != mq, );
    LOG_INFO("[CRC:] begin cloud mq destroy");
    {
        mutex_guard guard(&mq->lock);
        _free_packets(mq, __func__);
    }
    pthread_mutex_destroy(&mq->lock);
    free(mq);
    LOG_INFO("[CRC:] end cloud mq destroy");
}

void cloud_mq_clean(cloud_mq_t* mq) {
    ENSURE(NULL != mq, );
    mutex_guard guard(&mq->lock);
    _free_packets(mq, __func__);
    mq->nodeReady = 0;
    mq->idNext = 0;
    mq->nodeNext = 0;
}

int cloud_mq_get_id(cloud_mq_t* mq) {
    ENSURE(NULL != mq, CLOUD_BAD_ARGUMENT);
    mutex_guard guard(&mq->lock);
    mq->idNext = (mq->idNext + 1) % ID_MODULUS;
    if (mq->idNext <= 0) {
        mq->idNext = 1;
    }
    return mq->idNext;
}

int cloud_mq_insert_request(cloud_mq_t* mq, uint8_t* reqBuf, int reqLen, int id, int clientFd,
                            int32_t timeout) {
    ENSURE(NULL != mq && NULL != reqBuf, CLOUD_BAD_ARGUMENT);
    mutex_guard guard(&mq->lock);
    cloud_mq_node_t* node = _take_slot(mq);
    if (node != nullptr) {
        node->id = id;
        node->clientFd = clientFd;
        node->timeout = timeout;
        node->reqStr = reqBuf;
        node->reqLen = reqLen;
        node->reqTime = cloud_now_ms();
        node->status = CLOUD_MQ_READY;
        mq->nodeReady++;
    }
    // Printed for a refused message too, and for any message: the log's readers know it that way.
    LOG_INFO("[CRC:] Insert heartbeat pkt successfully, ready %d.", mq->nodeReady);
    if (node == nullptr) {
        LOG_ERROR("[CRC:] Msg queue full");
        return CLOUD_ERROR;
    }
    return CLOUD_OK;
}

int cloud_mq_set_response(cloud_mq_t* mq, int id, uint8_t* respBuf, int respLen) {
    ENSURE(NULL != mq && NULL != respBuf, CLOUD_BAD_ARGUMENT);
    mutex_guard guard(&mq->lock);
    cloud_mq_node_t* node = _find(mq, id);
    if (node == nullptr) {
        LOG_INFO("[CRC:] coresponding request not found");
        return CLOUD_ERROR;
    }
    if (_age(*node) > node->timeout) {
        LOG_ERROR("[CRC:]response timeout, will discard");
        free(respBuf);
        return CLOUD_ERROR;
    }
    if (node->reqStr != nullptr && _is_heartbeat(*node)) {
        cloud_heartbeat_recv_record(mq->owner);
    }
    free(node->resStr); // a relay may answer twice
    node->resStr = respBuf;
    node->resLen = respLen;
    node->status = CLOUD_MQ_ANSWERED;
    return CLOUD_OK;
}

bool cloud_mq_has_request(cloud_mq_t* mq, int id) {
    mutex_guard guard(&mq->lock);
    return _find(mq, id) != nullptr;
}

int cloud_mq_send_request(cloud_cycle_t* cycle) {
    ENSURE(NULL != cycle && NULL != cycle->cloudSocket && NULL != cycle->msgQueue, -1);
    cloud_mq_t* mq = cycle->msgQueue;
    if (mq->nodeReady == 0) {
        return 0;
    }
    mutex_guard guard(&mq->lock);
    int sent = 0;
    for (int i = 0; i < mq->nodeTotal; i++) {
        cloud_mq_node_t* node = &mq->node[i];
        if (node->status == CLOUD_MQ_READY && _age(*node) < node->timeout) {
            sent += _send(cycle, node);
        }
    }
    return sent;
}

void cloud_mq_forgive(cloud_mq_t* mq, int64_t blind) {
    mutex_guard guard(&mq->lock);
    for (int i = 0; i < mq->nodeTotal; i++) {
        if (mq->node[i].status == CLOUD_MQ_SENT) {
            mq->node[i].timeout += blind;
        }
    }
}

void cloud_mq_dump(cloud_mq_t* mq) {
    ENSURE(NULL != mq, );
    constexpr char STARS[] = "********************************************************************";
    constexpr char HYPHENS[] =
        "--------------------------------------------------------------------";
    static_assert(sizeof STARS == 68 + 1 && sizeof HYPHENS == 68 + 1);
    mutex_guard guard(&mq->lock);
    puts(STARS);
    puts("**********************cloud msg queue dump**************************");
    puts(HYPHENS);
    puts("     nodeTotal    nodeReady    idNext    nodeNext    node[0]        ");
    printf("       %-4d          %-4d       %-4d       %-4d      %-10p          \n", mq->nodeTotal,
           mq->nodeReady, mq->idNext, mq->nodeNext, static_cast<void*>(mq->node));
    puts(HYPHENS);
    puts("   id  clientFd   status   timeout   reqTime   reqStr   resStr   ");
    puts(HYPHENS);
    for (int i = 0; i < mq->nodeTotal; i++) {
        const cloud_mq_node_t& node = mq->node[i];
        printf("   %-6d%-8d%-6d%-14lld%-14lld%-12p%-12p\n", node.id, node.clientFd, node.status,
               static_cast<long long>(node.timeout), static_cast<long long>(node.reqTime),
               static_cast<void*>(node.reqStr), static_cast<void*>(node.resStr));
    }
    puts(STARS);
}
