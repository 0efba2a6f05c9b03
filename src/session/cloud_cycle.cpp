#include "session/cloud_cycle.h"

#include <cstdio>
#include <cstdlib>
#include <new>

#include "core/clock.h"
#include "core/log.h"
#include "core/result.h"
#include "core/text.h"
#include "handshake/hello_cloud.h"
#include "queue/cloud_mq.h"
#include "queue/cloud_remote_mq.h"
#include "transport/cloud_socket.h"

namespace {

constexpr int64_t HEARTBEAT_INTERVAL_MS = 100000;
constexpr int64_t REQUEST_TIMEOUT_MS = 5000;
constexpr int HEARTBEAT_MISS_LIMIT = 4;

void _respond_cloud() {}

} // namespace

int cloud_cycle_init(const char* ipaddr, int port, cloud_cycle_t* cycle) {
    // A negative port is a large one, and 0 passes here.
    if (ipaddr == nullptr || static_cast<unsigned>(port) > CLOUD_MAX_PORT || cycle == nullptr) {
        LOG_ERROR(ENSURE_FAILED, "NULL != ipaddr && port <= 65535 && port >= 0 && NULL != cycle");
        return CLOUD_BAD_ARGUMENT;
    }
    new (cycle) cloud_cycle_t{};
    cycle->cerFile = cloud_string_dup(DFLT_CER_FILE_PATH);
    if (cycle->cerFile == nullptr) {
        LOG_ERROR(CALL_FAILED, 1,
                  "(NULL == (cycle->cerFile = cloud_string_dup(DFLT_CER_FILE_PATH)))");
        return CLOUD_NO_MEMORY;
    }
    cycle->defaultSvr = cloud_string_dup(ipaddr);
    if (cycle->defaultSvr == nullptr) {
        LOG_ERROR(CALL_FAILED, 1, "(NULL == (cycle->defaultSvr = cloud_string_dup(ipaddr)))");
        return CLOUD_NO_MEMORY;
    }
    cycle->cloudSocket = cloud_socket_init();
    if (cycle->cloudSocket == nullptr) {
        LOG_ERROR(CALL_FAILED, 1, "(NULL == (cycle->cloudSocket = cloud_socket_init()))");
        return CLOUD_ERROR;
    }
    cycle->msgQueue = cloud_mq_init(MQ_INIT_NUMBER_DEFAULT);
    if (cycle->msgQueue == nullptr) {
        LOG_ERROR(CALL_FAILED, 1,
                  "(NULL == (cycle->msgQueue = cloud_mq_init(MQ_INIT_NUMBER_DEFAULT)))");
        return CLOUD_ERROR;
    }
    cycle->msgQueue->owner = cycle;
    cycle->defaultPort = port;
    cycle->heartbeatInterval = HEARTBEAT_INTERVAL_MS;
    cycle->heartbeatTimeoutMaxTimes = HEARTBEAT_MISS_LIMIT;
    cycle->requestTimeout = REQUEST_TIMEOUT_MS;
    cycle->build_hellocloud = zemc_build_request_of_hello_cloud_v2;
    cycle->response_hellocloud = zemc_recv_response_of_hello_cloud_v2;
    cycle->respond_cloud = _respond_cloud;
    cycle->free_fn = free;
    cycle->isLockMade = pthread_mutex_init(&cycle->lock, nullptr) == 0;
    cycle->status = CLOUD_CYCLE_RUNNING | CLOUD_CYCLE_DISCONNECTED;
    return CLOUD_OK;
}

void cloud_cycle_destroy(cloud_cycle_t* cycle) {
    ENSURE(NULL != cycle, );
    free(cycle->defaultSvr);
    free(cycle->cerFile);
    if (cycle->cloudSocket != nullptr) {
        cloud_socket_destroy(cycle->cloudSocket);
    }
    if (cycle->msgQueue != nullptr) {
        cloud_mq_destroy(cycle->msgQueue);
    }
    cloud_remote_mq_clear();
    if (cycle->isLockMade) {
        pthread_mutex_destroy(&cycle->lock);
    }
    free(cycle);
    LOG_INFO("[CRC:] Destroy cloud-cycle end.");
}

int cloud_cycle_stop(cloud_cycle_t* cycle) {
    cycle->closeByClient = 1;
    LOG_INFO("[CRC:] Close cloud-cycle by client.");
    return CLOUD_OK;
}

void cloud_cycle_let_go(cloud_cycle_t* cycle) {
    cycle->letGo = 1;
}

void cloud_cycle_reset_notify_flags(cloud_cycle_t* cycle) {
    ENSURE(NULL != cycle, );
    cycle->closeByCloud = 0;
    cycle->closeByClient = 0;
}

void cloud_cycle_update_last_request_time(cloud_cycle_t* cycle) {
    ENSURE(NULL != cycle, );
    cycle->lastRequestTime = cloud_now_ms();
}

void cloud_cycle_update_last_connected_time(cloud_cycle_t* cycle) {
    ENSURE(NULL != cycle, );
    cycle->lastConnectedTime = cloud_now_ms();
}

void cloud_cycle_dump(cloud_cycle_t* cycle) {
    ENSURE(NULL != cycle, );
    constexpr char STARS[] = "*****************************************************";
    static_assert(sizeof STARS == 53 + 1);
    const cloud_socket_t* socket = cycle->cloudSocket;
    puts(STARS);
    printf("  cycle->status:                        %d\n\n", cycle->status);
    printf("  cycle->closeByCloud:                  %d\n", cycle->closeByCloud);
    printf("  cycle->closeByClient:               %d\n\n", cycle->closeByClient.load());
    printf("  cycle->defaultSvr:                    %s\n", cycle->defaultSvr);
    printf("  cycle->defaultPort:                   %d\n\n", cycle->defaultPort);
    printf("  cycle->cloudSocket:                   %p\n", static_cast<const void*>(socket));
    if (socket != nullptr) {
        printf("        cloudSocket->sockfd:            %d\n", socket->sockfd);
        printf("        cloudSocket->cerFile:           %s\n", socket->cerFile);
        printf("        cloudSocket->status:            %d\n\n", socket->status);
    }
    printf("  cycle->heartbeatInterval:             %lld\n",
           static_cast<long long>(cycle->heartbeatInterval));
    printf("  heartbeatTimeoutMaxTimes              %d\n", cycle->heartbeatTimeoutMaxTimes);
    printf("  cycle->requestTimeout:                %lld\n",
           static_cast<long long>(cycle->requestTimeout));
    printf("  cycle->lastRequestTime:               %lld\n",
           static_cast<long long>(cycle->lastRequestTime));
    printf("  cycle->lastConnectedTime:             %lld\n\n",
           static_cast<long long>(cycle->lastConnectedTime));
    printf("  cycle->heartbeatStatus:               %d\n", cycle->heartbeatStatus);
    printf("  cycle->heartbeatSendTime:             %lld\n",
           static_cast<long long>(cycle->heartbeatSendTime));
    printf("  cycle->heartbeatRecvTime:             %lld\n\n\n",
           static_cast<long long>(cycle->heartbeatRecvTime));
    printf("  cycle->build_hellocloud:              %p\n",
           reinterpret_cast<void*>(cycle->build_hellocloud));
    printf("  cycle->response_hellocloud:           %p\n",
           reinterpret_cast<void*>(cycle->response_hellocloud));
    printf("  cycle->respond_cloud:                 %p\n",
           reinterpret_cast<void*>(cycle->respond_cloud));
    printf("  cycle->free_fn:                       %p\n", reinterpret_cast<void*>(cycle->free_fn));
    puts(STARS);
}
