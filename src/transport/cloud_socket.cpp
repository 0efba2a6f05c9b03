#include "transport/cloud_socket.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <netinet/tcp.h>
#include <new>
#include <sys/socket.h>
#include <unistd.h>

#include <wolfssl/options.h>
// The CyaSSL names come after the library's options.
#include <cyassl/ssl.h>
#include <wolfssl/wolfcrypt/ecc.h>

#include "core/clock.h"
#include "core/log.h"
#include "core/mutex_guard.h"
#include "core/result.h"
#include "core/text.h"
#include "transport/gateway_device.h"
#include "transport/tcp_connect.h"

namespace {

constexpr int TLS_WANT_READ = 2;
constexpr int TLS_WANT_WRITE = 3;
constexpr int TLS_ZERO_RETURN = 6; // the peer closed TLS
constexpr int TLS_SUCCESS = 1;
constexpr int TLS_VERIFY_PEER = 1;

constexpr int TLS_CONNECT_BUDGET_FACTOR = 7;
constexpr useconds_t READ_RETRY_US = 20 * 1000;
constexpr useconds_t WRITE_RETRY_US = 1000;

// A peer that acknowledges nothing, or takes nothing, for so long is gone, and a write that waits
// for it ends. Longer than the 120 s after which unanswered heartbeats end an otherwise idle
// session.
constexpr unsigned PEER_STALL_LIMIT_MS = 180 * 1000;

constexpr size_t READ_PIECE = 16384;  // the most that one TLS read is asked for
constexpr int TLS_PEER_CLOSED = -397; // the peer closed TCP without closing TLS

pthread_mutex_t libraryMutex = PTHREAD_MUTEX_INITIALIZER;

constexpr char CONNECT[] = "cloud_socket_connect";

int _tcp_connect(cloud_socket_t* cloudSocket, const char* ip, int port, int64_t timeout) {
    cloudSocket->sockfd = open_tcp_socket();
    if (cloudSocket->sockfd < 0) {
        LOG_ERROR_AS(CONNECT, "[CRC:] create socket error, error: %s", strerror(errno));
        return -1;
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_aton(ip, &address.sin_addr) == 0) {
        LOG_ERROR_AS(CONNECT, "[CRC:] inet_aton error");
        return -1;
    }
    if (socket_connect_select_device(cloudSocket, &address, timeout) != 0) {
        LOG_ERROR_AS(CONNECT, "[CRC:] socket connect select device failed, errno:%d\n", errno);
        return -1;
    }
    LOG_INFO_AS(CONNECT, "[CRC:] socket connect select device successfully\n ");
    int on = 1;
    setsockopt(cloudSocket->sockfd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(cloudSocket->sockfd, IPPROTO_TCP, TCP_USER_TIMEOUT, &PEER_STALL_LIMIT_MS,
               sizeof PEER_STALL_LIMIT_MS);
    return 0;
}

// An older worker may set TLS up at the same time, and the library's first set-up takes no lock.
void _tls_library_set_up() {
    mutex_guard guard(&libraryMutex);
    CyaSSL_library_init();
    CyaSSL_load_error_strings();
}

int _tls_set_up(cloud_socket_t* cloudSocket) {
    _tls_library_set_up();
    CYASSL_CTX* context = CyaSSL_CTX_new(CyaSSLv23_client_method());
    if (context == nullptr) {
        LOG_ERROR_AS(CONNECT, "[CRC:] create SSL_CTX error");
        return -1;
    }
    cloudSocket->CTX = context;
    LOG_INFO_AS(CONNECT, "[CRC:] ctx:%p, cerfile:%s", static_cast<void*>(context),
                cloudSocket->cerFile);
    int loaded = CyaSSL_CTX_load_verify_locations(context, cloudSocket->cerFile, nullptr);
    if (loaded != TLS_SUCCESS) {
        // Goes on: without the CA no server can be verified, and the handshake says so.
        LOG_ERROR_AS(CONNECT, "[CRC:] load cer file error, result:%d", loaded);
    }
    CyaSSL_CTX_set_verify(context, TLS_VERIFY_PEER, nullptr);

    CYASSL* session = CyaSSL_new(context);
    if (session == nullptr) {
        LOG_ERROR_AS(CONNECT, "[CRC:] create SSL error");
        return -1;
    }
    cloudSocket->SSL = session;
    if (CyaSSL_set_fd(session, cloudSocket->sockfd) != TLS_SUCCESS) {
        LOG_ERROR_AS(CONNECT, "[CRC:] set ssl fd error");
        return -1;
    }
    // A relay that vanishes in the middle of a write must not end the process with SIGPIPE.
    CyaSSL_SetIOWriteFlags(session, MSG_NOSIGNAL);
    return 0;
}

// The library may keep megabytes of precomputed curve points for each thread that ever verified a
// signature, until the thread says that it needs them no more.
void _free_curve_cache() {
#if defined(FP_ECC) && defined(HAVE_THREAD_LS)
    wc_ecc_fp_free();
#endif
}

// `budget` counts the waits alone, in milliseconds.
int _tls_handshake(cloud_socket_t* cloudSocket, int64_t budget) {
    int64_t waited = 0;
    while (CyaSSL_connect(cloudSocket->SSL) == -1) {
        budget -= waited;
        if (budget < 0) {
            LOG_ERROR_AS(CONNECT, "[CRC:] ssl connect timeout");
            return -1;
        }
        int error = CyaSSL_get_error(cloudSocket->SSL, -1);
        if (error != TLS_WANT_READ && error != TLS_WANT_WRITE) {
            LOG_ERROR_AS(CONNECT, "[CRC:] ssl connect error, err: %d", error);
            return -1;
        }
        int64_t start = cloud_now_ms();
        wait_descriptor(cloudSocket->sockfd,
                        error == TLS_WANT_READ ? wait_for::reading : wait_for::writing, budget);
        waited = cloud_now_ms() - start;
    }
    return 0;
}

bool _is_write_unwanted(const cloud_socket_t* socket) {
    return socket->abandoned || (socket->closeRequest != nullptr && *socket->closeRequest != 0);
}

// The number that a read gives of itself. When a look ahead met the peer's close first, the read
// repeats that with -1; by itself it gives 0.
int _read_result(int count, int error) {
    return error == TLS_ZERO_RETURN || error == TLS_PEER_CLOSED ? 0 : count;
}

} // namespace

cloud_socket_t* cloud_socket_init() {
    void* block = malloc(sizeof(cloud_socket_t));
    char* cerFile = cloud_string_dup(DFLT_CER_FILE_PATH);
    if (block == nullptr || cerFile == nullptr) {
        LOG_ERROR("[CRC:] cloud socket malloc error");
        free(block);
        free(cerFile);
        return nullptr;
    }
    cloud_socket_t* socket = new (block) cloud_socket_t{};
    pthread_mutex_init(&socket->mutex, nullptr);
    socket->sockfd = -1;
    socket->status = CLOUD_SOCKET_DISCONNECTED;
    socket->cerFile = cerFile;
    return socket;
}

void cloud_socket_destroy(cloud_socket_t* socket) {
    ENSURE(NULL != socket, );
    cloud_socket_disconnect(socket);
    free(socket->cerFile);
    pthread_mutex_destroy(&socket->mutex);
    free(socket);
    LOG_INFO("[CRC:] End cloud socket destroy");
}

int cloud_socket_connect(cloud_socket_t* cloudSocket, const char* ip, int port, int64_t timeout) {
    ENSURE(NULL != cloudSocket && NULL != ip, CLOUD_BAD_ARGUMENT);
    ENSURE((0 < port) && (65536 > port), CLOUD_BAD_ARGUMENT);
    LOG_INFO("[CRC:] connect socket. use IP %s, port %d.", ip, port);
    if (cloudSocket->status == CLOUD_SOCKET_CONNECTED) {
        LOG_INFO("[CRC:] the ssl socket already connected");
        return CLOUD_OK;
    }
    LOG_INFO("[CRC:] begin to connect the socket, ip:%s, port:%d", ip, port);
    bool connected = _tcp_connect(cloudSocket, ip, port, timeout) == 0 &&
                     _tls_set_up(cloudSocket) == 0 &&
                     _tls_handshake(cloudSocket, TLS_CONNECT_BUDGET_FACTOR * timeout) == 0;
    _free_curve_cache();
    if (!connected) {
        LOG_ERROR("[CRC:] Fail to connect the server, ip:%s, port:%d", ip, port);
        cloud_socket_disconnect(cloudSocket);
        return CLOUD_ERROR;
    }
    LOG_INFO("[CRC:] SSL connect to the server success, ip:%s, port:%d", ip, port);
    cloudSocket->status = CLOUD_SOCKET_CONNECTED;
    return CLOUD_OK;
}

int cloud_socket_send_buf(cloud_socket_t* socket, const void* buf, size_t length) {
    ENSURE(NULL != socket && NULL != buf, CLOUD_BAD_ARGUMENT);
    if (socket->status == CLOUD_SOCKET_DISCONNECTED || socket->abandoned) {
        LOG_ERROR("[CRC:] The ssl socket is disconnected");
        return CLOUD_UNREACHABLE;
    }
    int result = CyaSSL_write(socket->SSL, buf, static_cast<int>(length));
    int error = CyaSSL_get_error(socket->SSL, result);
    while (error == TLS_WANT_WRITE && !_is_write_unwanted(socket)) {
        usleep(WRITE_RETRY_US);
        // TLS goes on where it stopped only when it is given the same bytes again.
        result = CyaSSL_write(socket->SSL, buf, static_cast<int>(length));
        error = CyaSSL_get_error(socket->SSL, result);
    }
    socket->midRecord = error == TLS_WANT_WRITE;
    if (error == TLS_ZERO_RETURN || socket->midRecord) { // closed by the peer, or given up
        LOG_ERROR("[CRC:] The socket is disconnected, result:%d", result);
        socket->status = CLOUD_SOCKET_DISCONNECTED;
        return CLOUD_UNREACHABLE;
    }
    return CLOUD_OK;
}

int cloud_socket_recv_buf(cloud_socket_t* socket, void* buf, size_t length, int64_t timeout) {
    ENSURE(NULL != socket && NULL != buf, CLOUD_BAD_ARGUMENT);
    if (socket->status == CLOUD_SOCKET_DISCONNECTED) {
        LOG_INFO("[CRC:] The ssl socket is disconnected");
        return -1;
    }
    int64_t start = cloud_now_ms();
    char* position = static_cast<char*>(buf);
    size_t remaining = length;
    while (remaining > 0) {
        int count =
            CyaSSL_read(socket->SSL, position, static_cast<int>(std::min(remaining, READ_PIECE)));
        int error = CyaSSL_get_error(socket->SSL, count);
        if (socket->abandoned || (error == TLS_WANT_READ && cloud_now_ms() - start > timeout)) {
            LOG_ERROR("[CRC:] recv timeout");
            return -1;
        }
        if (count > 0) {
            position += count;
            remaining -= static_cast<size_t>(count);
            continue;
        }
        if (error == TLS_WANT_READ) {
            usleep(READ_RETRY_US);
            continue;
        }
        if (error == TLS_ZERO_RETURN) {
            LOG_INFO("[CRC:] the socket is disconnected, result:%d", _read_result(count, error));
            socket->status = CLOUD_SOCKET_DISCONNECTED;
            return 0;
        }
        LOG_ERROR("[CRC:] the socket read err, nread:%d", _read_result(count, error));
        break;
    }
    return static_cast<int>(length - remaining);
}

bool cloud_socket_has_buffered_data(const cloud_socket_t* socket) {
    return CyaSSL_pending(socket->SSL) > 0;
}

bool cloud_socket_has_data(cloud_socket_t* socket) {
    char next = 0;
    int count = CyaSSL_peek(socket->SSL, &next, sizeof next);
    int error = CyaSSL_get_error(socket->SSL, count);
    return count > 0 || (error != TLS_WANT_READ && error != TLS_WANT_WRITE);
}

void cloud_socket_disconnect(cloud_socket_t* socket) {
    ENSURE(NULL != socket, );
    LOG_INFO("[CRC:] begin to disconnect the socket");
    if (socket->SSL != nullptr) {
        LOG_INFO("[CRC:] Shut down and free the SSL.");
        if (!socket->midRecord) { // nobody could read a goodbye behind half a record
            CyaSSL_shutdown(socket->SSL);
        }
        CyaSSL_free(socket->SSL);
        socket->SSL = nullptr;
        socket->midRecord = false;
    }
    if (socket->CTX != nullptr) {
        LOG_INFO("[CRC:] Free the CTX.");
        CyaSSL_CTX_free(socket->CTX);
        socket->CTX = nullptr;
    }
    if (socket->sockfd != -1) {
        LOG_INFO("[CRC:] Close the socket.");
        close(socket->sockfd);
        socket->sockfd = -1;
    }
    socket->status = CLOUD_SOCKET_DISCONNECTED;
    LOG_INFO("[CRC:] Disconnect the socket ok.");
}

void cloud_socket_abandon(cloud_socket_t* socket) {
    socket->abandoned = 1;
}
