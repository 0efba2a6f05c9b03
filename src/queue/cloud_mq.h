#pragma once

#include <cstdint>
#include <pthread.h>

// The cloud message queue: messages that the device originates and that expect a reply, each with
// its reply. Today these are the heartbeats. A fixed ring of slots, made once per cloud cycle; a
// slot is taken again when it is empty, answered, or older than its time-out.
//
// Owner: the cloud cycle. The queue owns the packets in it. Threads: every field is guarded by the
// lock; in practice the worker's alone. The lock is held while messages are sent, so it is taken
// before the cloud socket's, never after. Times are in milliseconds of cloud_now_ms.

struct cloud_cycle_t;

// Values of cloud_mq_node_t::status; 0 in a slot never used.
constexpr int CLOUD_MQ_READY = 1; // to be sent
constexpr int CLOUD_MQ_SENT = 2;
constexpr int CLOUD_MQ_ANSWERED = 4;

struct cloud_mq_node_t {
    int id;       // of the message, 1 to 65534; 0 in a slot never used
    int clientFd; // descriptor of the local client that it belongs to; -1 for heartbeats
    int status;
    int64_t timeout; // life of the message, counted from reqTime
    int64_t reqTime; // when it was inserted
    uint8_t* reqStr; // owned: the whole packet, header first
    uint8_t* resStr; // owned: the reply, once received
    int reqLen;
    int resLen;
};

struct cloud_mq_t {
    pthread_mutex_t lock;
    int nodeTotal;
    int nodeReady;        // insertions since creation or the last clean, never decreased otherwise
    int idNext;           // last identifier handed out
    int nodeNext;         // where the next insertion starts to search
    cloud_cycle_t* owner; // not owned: the cycle on which a heartbeat's reply is booked
    cloud_mq_node_t node[];
};

// A queue of `num` slots; null, logged, for 0 or when memory is short.
cloud_mq_t* cloud_mq_init(unsigned num);

// Frees every packet and the queue. Null is only logged, here and below.
void cloud_mq_destroy(cloud_mq_t* mq);

// Frees every packet and empties all slots and counters. Called by nobody.
void cloud_mq_clean(cloud_mq_t* mq);

// A new identifier: 1, 2, ... 65534, 1, ... Returns 100 for null.
int cloud_mq_get_id(cloud_mq_t* mq);

// Queues the packet at `reqBuf`, which the queue then owns. Returns 0; -1 when every slot is taken,
// the packet then staying the caller's; 100 for a null argument.
int cloud_mq_insert_request(cloud_mq_t* mq, uint8_t* reqBuf, int reqLen, int id, int clientFd,
                            int32_t timeout);

// Books the reply at `respBuf` on the message `id`. Returns 0, the queue then owning the reply; -1
// for a message past its time-out, the reply then being freed, or when there is no such message,
// the reply then staying the caller's; 100 for a null argument.
int cloud_mq_set_response(cloud_mq_t* mq, int id, uint8_t* respBuf, int respLen);

// True when some slot holds the message `id`, whatever its status.
bool cloud_mq_has_request(cloud_mq_t* mq, int id);

// Sends every message that is ready and alive over the cycle's cloud socket. Returns how many went
// out, -1 for a null cycle, socket or queue.
int cloud_mq_send_request(cloud_cycle_t* cycle);

// Prolongs the life of every message that awaits its reply by `blind` milliseconds: time in which
// the worker could not have seen the reply.
void cloud_mq_forgive(cloud_mq_t* mq, int64_t blind);

// Prints the queue plainly on standard output, for debugging. Called by nobody.
void cloud_mq_dump(cloud_mq_t* mq);
