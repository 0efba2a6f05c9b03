#include "queue/cloud_remote_mq.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <utility>

#include "core/block.h"
#include "core/clock.h"
#include "core/cloud_cycle_record.h"
#include "core/log.h"
#include "core/mutex_guard.h"
#include "core/result.h"
#include "core/text.h"
#include "core/uci_option.h"
#include "core/wanted.h"
#include "queue/answer_block.h"
#include "queue/web_server.h"
#include "transport/cloud_socket.h"
#include "transport/packet_header.h"
#include "transport/relay_packet.h"
#include "transport/tcp_connect.h"

cloud_remote_mq_t* pCloudRemoteMq = nullptr;
pthread_mutex_t gRemoteMqLock;

namespace {

using internal::_cloud_remote_mq_sp_remove;

constexpr int64_t NODE_TIMEOUT_MS = 10000;
constexpr int64_t ANSWER_LIMIT_MS = 90000; // with the next, the heartbeats' interval of 100 s
constexpr int64_t PASS_LIMIT_MS = 10000;   // after which no further answer is begun
constexpr uint16_t DEFAULT_WEB_SERVER_PORT = 80;
constexpr size_t PORT_TEXT_SIZE = 32;
constexpr char PORT_OPTION[] = "system.service_port.http_port";

uci_cache_t portCache = {}; // guarded by gRemoteMqLock

bool _is_mine(const cloud_remote_mq_node_t* node) {
    return pthread_equal(node->worker, pthread_self()) != 0;
}

bool _is_expired(const cloud_remote_mq_node_t* node) {
    return cloud_now_ms() - node->updateTime > node->timeout;
}

bool _is_awaiting(const cloud_remote_mq_node_t* node) {
    return _is_mine(node) && node->status == REMOTE_MQ_FORWARDED && node->webSvrSockfd != -1;
}

// A web server that still takes a large body from the kernel's buffer is given its time anew.
bool _is_still_taking(cloud_remote_mq_node_t* node) {
    int unsent = node->unsent > 0 ? unsent_bytes(node->webSvrSockfd) : 0;
    bool isTaking = unsent < node->unsent;
    node->unsent = unsent;
    if (isTaking) {
        node->updateTime = cloud_now_ms();
    }
    return isTaking;
}

// Whether the node has outlived its time. An answer that is there already is not dropped, however
// long the worker was busy with others.
bool _is_over(cloud_remote_mq_node_t* node) {
    return _is_expired(node) &&
           !(_is_awaiting(node) &&
             (web_server_has_answered(node->webSvrSockfd) || _is_still_taking(node)));
}

void _close_socket(cloud_remote_mq_node_t* node) {
    if (node->webSvrSockfd != -1) {
        close(node->webSvrSockfd);
        node->webSvrSockfd = -1;
    }
}

cloud_remote_mq_node_t* cloud_remote_mq_node_generate(const uint8_t* reqHdr) {
    cloud_remote_mq_node_t* node =
        static_cast<cloud_remote_mq_node_t*>(calloc(1, sizeof(cloud_remote_mq_node_t)));
    char* header = cloud_string_ndup(reqHdr, PACKET_HEADER_SIZE);
    if (node == nullptr || header == nullptr) {
        LOG_ERROR("[CRC:] Out of memory.");
        free(node);
        free(header);
        return nullptr;
    }
    node->webSvrSockfd = -1;
    node->status = REMOTE_MQ_INSERTED;
    node->timeout = NODE_TIMEOUT_MS;
    node->updateTime = cloud_now_ms();
    node->reqHdr = reinterpret_cast<uint8_t*>(header);
    node->reqDataLen = packet_header_read(reqHdr).dataLen;
    node->worker = pthread_self();
    return node;
}

int _cloud_remote_mq_request_insert(const uint8_t* reqHdr, cloud_remote_mq_node_t** inserted) {
    cloud_remote_mq_node_t* node = cloud_remote_mq_node_generate(reqHdr);
    if (node == nullptr) {
        LOG_ERROR("[CRC:] Out of memory.");
        return CLOUD_NO_MEMORY;
    }
    if (pCloudRemoteMq->tail == nullptr) {
        pCloudRemoteMq->head = node;
    } else {
        pCloudRemoteMq->tail->next = node;
    }
    pCloudRemoteMq->tail = node;
    pCloudRemoteMq->pendingNum++;
    *inserted = node;
    LOG_INFO("[CRC:] Insert remote requset to queue ok.");
    return CLOUD_OK;
}

// The configured port; without a usable one, the default.
uint16_t _web_server_port(const char* text) {
    long port = strtol(text, nullptr, 10);
    return port > 0 && port <= UINT16_MAX ? static_cast<uint16_t>(port) : DEFAULT_WEB_SERVER_PORT;
}

int _cloud_remote_mq_request_con_web_server(cloud_remote_mq_node_t* node) {
    char portText[PORT_TEXT_SIZE] = {};
    if (readUCI(PORT_OPTION, portText, sizeof portText, &portCache) != 0) {
        LOG_ERROR("readUCI(system.service_port.http_port) failed. Use default port 80.");
    }
    uint16_t port = _web_server_port(portText);
    int lWebSvrProxySockfd = web_server_open();
    LOG_INFO("Connect web-server, lWebSvrProxySockfd %d.", lWebSvrProxySockfd);
    if (web_server_connect(lWebSvrProxySockfd, port, node->timeout) != 0) {
        int error = errno;
        close(lWebSvrProxySockfd);
        LOG_ERROR("Connect web-server with %d err, %s.", port, strerror(error));
        return CLOUD_ERROR;
    }
    node->webSvrSockfd = lWebSvrProxySockfd;
    return CLOUD_OK;
}

// Streams the body from the relay to the web server. Once a send failed the rest is only read, so
// that the next packet's header is where it should be; unless the session is to end anyway.
int _stream_body(cloud_socket_t* relay, cloud_remote_mq_node_t* node, uint8_t* buffer,
                 int64_t timeout) {
    constexpr char NAME[] = "_cloud_remote_mq_request_send_to_web_server";
    int result = CLOUD_OK;
    for (size_t remaining = node->reqDataLen; remaining > 0;) {
        int recvCnt =
            cloud_socket_recv_buf(relay, buffer, std::min(remaining, CRC_DATA_BUF_SIZE), timeout);
        if (recvCnt < 0) {
            LOG_ERROR_AS(NAME, "[CRC:] socket recv error, recvCnt:%d", recvCnt);
            return CLOUD_RECV_ERROR;
        }
        if (recvCnt == 0) {
            LOG_ERROR_AS(NAME, "[CRC:] socket closed by peer");
            return CLOUD_UNREACHABLE;
        }
        size_t count = static_cast<size_t>(recvCnt);
        remaining -= count;
        if (result == CLOUD_OK &&
            web_server_send(node->webSvrSockfd, buffer, count, node->timeout) != 0) {
            LOG_ERROR_AS(NAME, "Send remot request to web-server err, %s.", strerror(errno));
            result = CLOUD_ERROR;
        }
        if (is_stop_wanted()) {
            return CLOUD_ERROR;
        }
    }
    return result;
}

int _cloud_remote_mq_request_send_to_web_server(cloud_cycle_t* cycle,
                                                cloud_remote_mq_node_t* pRemoteMqNode,
                                                int64_t timeout) {
    // A request without body is delivered as it is, and awaits its answer like any other.
    ENSURE(0 != pRemoteMqNode->reqDataLen, CLOUD_OK);
    block_ptr buffer(static_cast<uint8_t*>(malloc(CRC_DATA_BUF_SIZE)));
    if (buffer == nullptr) {
        LOG_ERROR("[CRC:] malloc error");
        return CLOUD_NO_MEMORY;
    }
    if (pRemoteMqNode->reqDataLen > CRC_DATA_BUF_SIZE) {
        web_server_expect_pieces(pRemoteMqNode->webSvrSockfd);
    }
    int result = CLOUD_OK;
    {
        mutex_guard guard(&cycle->cloudSocket->mutex);
        LOG_INFO("=======CRC -> HTTPD: %dB", static_cast<int>(pRemoteMqNode->reqDataLen));
        result = _stream_body(cycle->cloudSocket, pRemoteMqNode, buffer.get(), timeout);
    }
    LOG_INFO("Send pkt to web-server, ret %d.", result);
    return result;
}

// Reads the answer until the web server closes. A web server that gives no byte for the node's
// time has failed, and so has one that has not closed after the longest that the relay may wait.
int _read_answer(const cloud_remote_mq_node_t* node, answer_block_t* answer) {
    constexpr char NAME[] = "_cloud_remote_mq_response_recv";
    int64_t deadline = cloud_now_ms() + ANSWER_LIMIT_MS;
    for (;;) {
        if (node->webSvrSockfd == -1) {
            LOG_ERROR_AS(NAME, "[CRC:] Socket is released.");
            return CLOUD_ERROR;
        }
        int64_t patience = std::min(node->timeout, deadline - cloud_now_ms());
        ssize_t count = patience < 0 || is_stop_wanted()
                            ? -1
                            : web_server_recv(node->webSvrSockfd, answer_block_end(*answer),
                                              answer_block_room(*answer), patience);
        if (count < 0) {
            LOG_ERROR_AS(NAME, "[CRC:] recv data from %d err.", node->webSvrSockfd);
            return CLOUD_ERROR;
        }
        if (count == 0) {
            return CLOUD_OK;
        }
        if (!answer_block_add(answer, static_cast<size_t>(count))) {
            LOG_ERROR_AS(NAME, "[CRC:] Out of memory.");
            return CLOUD_NO_MEMORY;
        }
    }
}

// Hands the bytes of `answer` over to the node.
int _cloud_remote_mq_response_recv(cloud_remote_mq_node_t* pNode, answer_block_t* answer) {
    if (!answer_block_init(answer)) {
        LOG_ERROR(CALL_FAILED, 1, "(NULL == (pRespPkt = malloc(CRC_DATA_BUF_SIZE)))");
        return CLOUD_NO_MEMORY;
    }
    int result = _read_answer(pNode, answer);
    if (result != CLOUD_OK) {
        LOG_ERROR("=======HTTPD -> CRC: FAILED.");
        return result;
    }
    pNode->respPkt = answer->bytes.release();
    pNode->respDataLen = static_cast<uint32_t>(answer->length);
    pNode->status = REMOTE_MQ_ANSWERED;
    LOG_INFO("=======HTTPD -> CRC: %dB.", static_cast<int>(answer->length));
    return CLOUD_OK;
}

int _cloud_remote_mq_response_send(cloud_socket_t* cloudSock, cloud_remote_mq_node_t* pNode) {
    packet_header_t request = packet_header_read(pNode->reqHdr);
    uint32_t dataLen = pNode->respDataLen - static_cast<uint32_t>(PACKET_HEADER_SIZE);
    packet_header_write(pNode->respPkt, {PACKET_MAGIC, PACKET_RESPONSE, request.id, 0, dataLen});
    return cloud_socket_send(cloudSock, pNode->respPkt, pNode->respDataLen);
}

int _relay_answer(cloud_socket_t* cloudSock, cloud_remote_mq_node_t* pNode) {
    constexpr char NAME[] = "cloud_remote_mq_response_handle";
    answer_block_t answer = {};
    int result = _cloud_remote_mq_response_recv(pNode, &answer);
    _close_socket(pNode);
    if (result != 0) {
        LOG_ERROR_AS(NAME, CALL_FAILED, result, "_cloud_remote_mq_response_recv(pNode)");
        return result;
    }
    result = _cloud_remote_mq_response_send(cloudSock, pNode);
    // Sent or not, once: its memory does not wait for the node's removal.
    answer.bytes.reset(std::exchange(pNode->respPkt, nullptr));
    answer_block_retire(&answer);
    if (result != 0) {
        LOG_ERROR_AS(NAME, CALL_FAILED, result, "_cloud_remote_mq_response_send(cloudSock, pNode)");
    }
    return result;
}

// Drops the calling thread's nodes for which `isDone` holds, and takes them off the counters.
void _drop_nodes(bool (*isDone)(cloud_remote_mq_node_t* node)) {
    cloud_remote_mq_node_t* prev = nullptr;
    cloud_remote_mq_node_t* node = pCloudRemoteMq->head;
    while (node != nullptr) {
        if (!_is_mine(node) || !isDone(node)) {
            prev = node;
            node = node->next;
            continue;
        }
        if (node->status == REMOTE_MQ_INSERTED) {
            pCloudRemoteMq->pendingNum--;
        } else {
            pCloudRemoteMq->forwardedNum--;
        }
        _cloud_remote_mq_sp_remove(&prev, &node);
    }
}

bool _is_empty() {
    return pCloudRemoteMq->pendingNum == 0 && pCloudRemoteMq->forwardedNum == 0;
}

} // namespace

void internal::_cloud_remote_mq_node_destroy(cloud_remote_mq_node_t* pRemoteMqNode) {
    ENSURE(NULL != pRemoteMqNode, );
    _close_socket(pRemoteMqNode);
    free(pRemoteMqNode->reqHdr);
    free(pRemoteMqNode->respPkt);
    free(pRemoteMqNode);
}

int internal::_cloud_remote_mq_sp_remove(cloud_remote_mq_node_t** ppPrev,
                                         cloud_remote_mq_node_t** ppNode) {
    ENSURE(NULL != pCloudRemoteMq, CLOUD_BAD_ARGUMENT);
    cloud_remote_mq_node_t* node = *ppNode;
    cloud_remote_mq_node_t* follower = node->next;
    if (*ppPrev == nullptr) {
        pCloudRemoteMq->head = follower;
    } else {
        (*ppPrev)->next = follower;
    }
    if (pCloudRemoteMq->tail == node) {
        pCloudRemoteMq->tail = *ppPrev;
    }
    _cloud_remote_mq_node_destroy(node);
    *ppNode = follower;
    return CLOUD_OK;
}

int cloud_remote_mq_init() {
    recursive_mutex_init(&gRemoteMqLock);
    pCloudRemoteMq = static_cast<cloud_remote_mq_t*>(calloc(1, sizeof(cloud_remote_mq_t)));
    if (pCloudRemoteMq == nullptr) {
        LOG_ERROR(CALL_FAILED, 1, "NULL == (pCloudRemoteMq = malloc(sizeof(cloud_remote_mq_t)))");
        return CLOUD_ERROR;
    }
    return CLOUD_OK;
}

int cloud_remote_mq_request_handle(cloud_cycle_t* cycle, const uint8_t* reqHdr, int64_t timeout) {
    LOG_INFO("start handle, ret %d.", 0);
    mutex_guard guard(&gRemoteMqLock);
    ENSURE(NULL != pCloudRemoteMq, CLOUD_BAD_ARGUMENT);
    ENSURE(NULL != cycle && NULL != reqHdr, CLOUD_BAD_ARGUMENT);

    LOG_INFO("start handle insert,.");
    cloud_remote_mq_node_t* node = nullptr;
    int result = _cloud_remote_mq_request_insert(reqHdr, &node);
    if (result != 0) {
        LOG_ERROR(CALL_FAILED, result, "_cloud_remote_mq_request_insert(reqHdr, &pRemoteMqNode)");
        return result;
    }
    result = _cloud_remote_mq_request_con_web_server(node);
    if (result != 0) {
        LOG_ERROR(CALL_FAILED, result, "_cloud_remote_mq_request_con_web_server(pRemoteMqNode)");
        return result;
    }
    result = _cloud_remote_mq_request_send_to_web_server(cycle, node, timeout);
    if (result != 0) {
        LOG_ERROR(CALL_FAILED, result,
                  "_cloud_remote_mq_request_send_to_web_server(cycle, pRemoteMqNode, timeout)");
        return result;
    }
    node->status = REMOTE_MQ_FORWARDED;
    node->updateTime = cloud_now_ms();
    node->unsent = node->reqDataLen > CRC_DATA_BUF_SIZE ? unsent_bytes(node->webSvrSockfd) : 0;
    pCloudRemoteMq->pendingNum--;
    pCloudRemoteMq->forwardedNum++;
    LOG_INFO("[CRC:] Send remote request to web-server successfully.");
    return CLOUD_OK;
}

void cloud_remote_mq_fdset_set(fd_set* pfdset, int* maxFd) {
    ENSURE(NULL != pfdset && NULL != maxFd, );
    ENSURE(NULL != pCloudRemoteMq, );
    mutex_guard guard(&gRemoteMqLock);
    uint32_t foreign = 0;
    int largest = -1;
    for (cloud_remote_mq_node_t* node = pCloudRemoteMq->head; node != nullptr; node = node->next) {
        foreign += !_is_mine(node) && node->status != REMOTE_MQ_INSERTED;
        if (_is_awaiting(node)) {
            FD_SET(node->webSvrSockfd, pfdset);
            largest = std::max(largest, node->webSvrSockfd);
        }
    }
    // While answers are awaited they come first: the caller's own descriptor is watched only when
    // one of theirs lies above it, and not at all while a failed exchange waits to be dropped.
    if (pCloudRemoteMq->forwardedNum != foreign) {
        *maxFd = largest;
    }
}

int cloud_remote_mq_response_handle(const fd_set* pfdset, cloud_socket_t* cloudSock) {
    ENSURE(NULL != pfdset, CLOUD_BAD_ARGUMENT);
    ENSURE(NULL != pCloudRemoteMq, CLOUD_BAD_ARGUMENT);
    mutex_guard guard(&gRemoteMqLock);
    if (pCloudRemoteMq->forwardedNum == 0) {
        return CLOUD_OK;
    }
    int64_t start = cloud_now_ms();
    for (cloud_remote_mq_node_t* node = pCloudRemoteMq->head; node != nullptr; node = node->next) {
        if (!_is_awaiting(node) || !FD_ISSET(node->webSvrSockfd, pfdset)) {
            continue;
        }
        // The rest waits for the next turn, which looks at the relay and its heartbeats first.
        if (is_stop_wanted() || cloud_now_ms() - start >= PASS_LIMIT_MS) {
            break;
        }
        int result = _relay_answer(cloudSock, node);
        if (result != 0) {
            return result;
        }
    }
    return CLOUD_OK;
}

void cloud_remote_mq_remove() {
    ENSURE(NULL != pCloudRemoteMq, );
    mutex_guard guard(&gRemoteMqLock);
    answer_block_release_kept(false);
    if (_is_empty()) {
        return;
    }
    _drop_nodes([](cloud_remote_mq_node_t* node) {
        return node->status == REMOTE_MQ_ANSWERED || _is_over(node);
    });
}

void cloud_remote_mq_clear() {
    ENSURE(NULL != pCloudRemoteMq, );
    mutex_guard guard(&gRemoteMqLock);
    answer_block_release_kept(true);
    if (_is_empty()) {
        LOG_INFO("[CRC:] The remote requests list is empty.");
        return;
    }
    _drop_nodes([](cloud_remote_mq_node_t* /*node*/) { return true; });
}
