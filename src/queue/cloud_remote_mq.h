#pragma once

#include <cstdint>
#include <pthread.h>
#include <sys/select.h>

// The remote request queue: HTTP requests that the relay forwards, each on a TCP connection of its
// own to the router's web server, until the answer went back as one packet of DataType 4.
//
// Owner: the process has one queue, made at start-up and never destroyed. It owns its nodes; a node
// owns its socket and both its blocks. Threads: the recursive gRemoteMqLock guards all of it, and
// every operation holds it for its whole run; it is taken before the cloud socket's mutex, never
// after. A node belongs to the worker thread that inserted it, and the operations see the calling
// thread's nodes only: an older worker that still winds up neither answers nor drops what came in
// over the newer one's connection. Times are in milliseconds of cloud_now_ms.

struct cloud_cycle_t;
struct cloud_socket_t;

// Values of cloud_remote_mq_node_t::status.
constexpr int32_t REMOTE_MQ_INSERTED = 1;  // not yet delivered to the web server
constexpr int32_t REMOTE_MQ_FORWARDED = 2; // delivered, awaiting the answer
constexpr int32_t REMOTE_MQ_ANSWERED = 3;  // answer read

struct cloud_remote_mq_node_t {
    int32_t webSvrSockfd; // -1 when none
    int32_t status;
    int64_t updateTime; // of the insertion, then of the delivery
    int64_t timeout;
    uint32_t reqDataLen;  // body bytes of the request
    uint32_t respDataLen; // bytes of the answer packet, header included
    uint8_t* reqHdr;      // owned: the request's 12-byte header and a zero byte
    uint8_t* respPkt;     // owned: header, then the web server's bytes; only while it is being sent
    cloud_remote_mq_node_t* next;
    pthread_t worker; // whose node this is
    int unsent;       // of a large body: bytes that the web server had not taken at updateTime
};

struct cloud_remote_mq_t {
    uint32_t pendingNum;   // nodes inserted
    uint32_t forwardedNum; // nodes forwarded or answered
    cloud_remote_mq_node_t* head;
    cloud_remote_mq_node_t* tail;
};

extern cloud_remote_mq_t* pCloudRemoteMq;
extern pthread_mutex_t gRemoteMqLock;

// Makes the queue, once, on the main thread before any worker exists. Returns 0 or -1.
int cloud_remote_mq_init();

// Takes the request whose header is at `reqHdr`, 12 bytes, and whose body is the next on the
// cycle's cloud socket: connects to the web server and streams the body to it. Each 16384 bytes of
// the body may take `timeout`. Returns 0; 100 for a null argument or without queue; 101 when memory
// is short; -1 when the web server refused; 4 or 9 when the relay connection failed. After a
// failure the node is left for cloud_remote_mq_remove.
int cloud_remote_mq_request_handle(cloud_cycle_t* cycle, const uint8_t* reqHdr, int64_t timeout);

// Adds the calling thread's sockets that await an answer to `pfdset`. While any of its nodes is
// forwarded or answered, *maxFd becomes the largest of them, or -1: it is overwritten, not raised.
void cloud_remote_mq_fdset_set(fd_set* pfdset, int* maxFd);

// Reads the answers that `pfdset` reports and sends each to the relay. Returns 0, or the code of
// the first that failed: 100 for a null set or without queue, 101 when memory is short, -1 for a
// failed read, or the send's.
int cloud_remote_mq_response_handle(const fd_set* pfdset, cloud_socket_t* cloudSock);

// Drops the nodes that are answered or older than their time-out.
void cloud_remote_mq_remove();

// Drops all of the calling thread's nodes.
void cloud_remote_mq_clear();

// Steps that the module's tests reach.
namespace internal {

// Closes the node's socket, frees its blocks and itself. A null node is only logged.
void _cloud_remote_mq_node_destroy(cloud_remote_mq_node_t* pRemoteMqNode);

// Unlinks and destroys *ppNode, whose predecessor is *ppPrev, null at the head; *ppNode becomes its
// follower. The counters are the caller's business. Returns 0, or 100 without queue.
int _cloud_remote_mq_sp_remove(cloud_remote_mq_node_t** ppPrev, cloud_remote_mq_node_t** ppNode);

} // namespace internal
