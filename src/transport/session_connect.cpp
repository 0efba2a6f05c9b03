#include "transport/session_connect.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <netdb.h>

#include "core/block.h"
#include "core/cloud_cycle_record.h"
#include "core/log.h"
#include "core/result.h"
#include "core/session_notice.h"
#include "core/wanted.h"
#include "transport/cloud_socket.h"

namespace {

constexpr int64_t CONNECT_TIMEOUT_MS = 5000;
constexpr size_t RESOLVER_BUFFER_SIZE = 8192;    // some hundred addresses
constexpr size_t RESOLVER_BUFFER_LIMIT = 262144; // four times what DNS can answer

// The addresses of a name. They point into `buffer`.
struct resolved_name {
    hostent entry = {};
    hostent* host = nullptr; // null when the name does not resolve
    block_ptr buffer;
};

// Resolves in a buffer that is enlarged until the answer fits; errno on failure.
void _resolve(const char* name, resolved_name* resolved) {
    int result = ERANGE;
    for (size_t size = RESOLVER_BUFFER_SIZE; result == ERANGE && size <= RESOLVER_BUFFER_LIMIT;
         size *= 2) {
        resolved->buffer.reset(static_cast<uint8_t*>(malloc(size)));
        if (resolved->buffer == nullptr) {
            return;
        }
        // The reentrant form: an older worker may still be resolving on its own thread.
        int resolverError = 0;
        result =
            gethostbyname_r(name, &resolved->entry, reinterpret_cast<char*>(resolved->buffer.get()),
                            size, &resolved->host, &resolverError);
    }
}

// Tries the addresses of the server's name one after the other.
int _cloud_session_connect_default_svr_by_host(cloud_cycle_t* cloudCycle) {
    resolved_name resolved;
    _resolve(cloudCycle->defaultSvr, &resolved);
    if (resolved.host == nullptr) {
        LOG_ERROR("[CRC:] Gethostbyname %s err, %s", cloudCycle->defaultSvr, strerror(errno));
        return CLOUD_UNREACHABLE;
    }
    for (char** address = resolved.host->h_addr_list; *address != nullptr && !is_let_go();
         address++) {
        char ipAddr[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, *address, ipAddr, sizeof ipAddr);
        // The wording is that of a success; it announces the attempt.
        LOG_INFO("[CRC:] Connect [%s:%d] successfully", ipAddr, cloudCycle->defaultPort);
        if (internal::_cloud_session_connect_default_svr_local(cloudCycle, ipAddr) == 0) {
            return CLOUD_OK;
        }
        LOG_ERROR("[CRC:] Connect [%s:%d] error", ipAddr, cloudCycle->defaultPort);
    }
    return CLOUD_UNREACHABLE;
}

int _cloud_session_connect_default_svr(cloud_cycle_t* cloudCycle) {
    return _cloud_session_connect_default_svr_by_host(cloudCycle);
}

void _set_connection_bit(cloud_cycle_t* cloudCycle, uint16_t bit) {
    cloudCycle->status = static_cast<uint16_t>((cloudCycle->status & CLOUD_CYCLE_RUNNING) | bit);
}

} // namespace

int internal::_cloud_session_connect_default_svr_local(cloud_cycle_t* cloudCycle,
                                                       const char* ipAddr) {
    ENSURE(NULL != cloudCycle && NULL != ipAddr, CLOUD_BAD_ARGUMENT);
    int result = cloud_socket_connect(cloudCycle->cloudSocket, ipAddr, cloudCycle->defaultPort,
                                      CONNECT_TIMEOUT_MS);
    if (result != 0) {
        LOG_ERROR("[CRC:] Connect [%s : %d] error", ipAddr, cloudCycle->defaultPort);
        return result;
    }
    // A worker that was replaced while it connected says no hello: the relay would take it for the
    // device's newest session.
    result = is_let_go() ? CLOUD_ERROR : cloud_handshake_svr(cloudCycle);
    if (result != 0) {
        LOG_ERROR("[CRC:] Handshake [%s : %d] error", ipAddr, cloudCycle->defaultPort);
        cloud_socket_disconnect(cloudCycle->cloudSocket);
        return result;
    }
    return CLOUD_OK;
}

int cloud_session_connect(cloud_cycle_t* cloudCycle) {
    ENSURE(NULL != cloudCycle, CLOUD_BAD_ARGUMENT);
    LOG_INFO("[CRC:] Connect relay-server use [%s:%d]", cloudCycle->defaultSvr,
             cloudCycle->defaultPort);
    if ((cloudCycle->status & CLOUD_CYCLE_CONNECTED) != 0) {
        return CLOUD_OK;
    }
    cloudCycle->closeByCloud = 0;
    if (_cloud_session_connect_default_svr(cloudCycle) != 0) {
        LOG_ERROR("[CRC:] Fail to connect the defaultSvr, result:%d", CLOUD_UNREACHABLE);
        return CLOUD_UNREACHABLE;
    }
    _set_connection_bit(cloudCycle, CLOUD_CYCLE_CONNECTED);
    cloud_cycle_update_last_request_time(cloudCycle);
    cloud_cycle_update_last_connected_time(cloudCycle);
    cloud_cycle_reset_notify_flags(cloudCycle);
    LOG_INFO("[CRC:] Connect relay-server successfully, use [%s:%d]", cloudCycle->defaultSvr,
             cloudCycle->defaultPort);
    return CLOUD_OK;
}

int cloud_session_disconnect(cloud_cycle_t* cloudCycle) {
    ENSURE(NULL != cloudCycle, CLOUD_BAD_ARGUMENT);
    if ((cloudCycle->status & CLOUD_CYCLE_DISCONNECTED) != 0) {
        LOG_INFO("[CRC:] Cloud socket is already disconnected");
        return CLOUD_OK;
    }
    cloud_socket_disconnect(cloudCycle->cloudSocket);
    cloud_heartbeat_reset_record(cloudCycle);
    _set_connection_bit(cloudCycle, CLOUD_CYCLE_DISCONNECTED);
    return CLOUD_OK;
}
