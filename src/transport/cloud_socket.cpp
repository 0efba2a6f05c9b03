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

#include "core/block.h"
#include "core/clock.h"
#include "core/log.h"
#include "core/mutex_guard.h"
#include "core/result.h"
#include "core/text.h"
#include "core/wanted.h"
#include "transport/gateway_device.h"
#include "transport/tcp_connect.h"

namespace {

constexpr int TLS_WANT_READ = 2;
constexpr int TLS_WANT_WRITE = 3;
constexpr int TLS_NO_MEMORY = -125;
constexpr int TLS_ZERO_RETURN = 6; // the peer closed TLS
constexpr int TLS_SUCCESS = 1;
constexpr int TLS_VERIFY_PEER = 1;

// What reading on TLS's behalf may end in.
constexpr int TLS_IO_ERROR = -1;
constexpr int TLS_IO_WANT_READ = -2;
constexpr int TLS_IO_RESET = -3;
constexpr int TLS_IO_INTERRUPTED = -4;
constexpr int TLS_IO_CLOSED = -5;

constexpr int TLS_CONNECT_BUDGET_FACTOR = 7;
constexpr useconds_t READ_RETRY_US = 20 * 1000;
constexpr useconds_t WRITE_RETRY_US = 1000;

// A peer that acknowledges nothing, or takes nothing, for so long is gone, and a write that waits
// for it ends. Longer than the 120 s after which unanswered heartbeats end an otherwise idle
// session.
constexpr unsigned PEER_STALL_LIMIT_MS = 180 * 1000;

// What a write may still take once its session is to end.
constexpr int64_t FAREWELL_LIMIT_MS = 10000;
constexpr int64_t FAREWELL_STALL_MS = 2000;

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

int _read_error() {
    switch (errno) {
    case EAGAIN:
        return TLS_IO_WANT_READ;
    case EINTR:
        return TLS_IO_INTERRUPTED;
    case ECONNRESET:
        return TLS_IO_RESET;
    default:
        return TLS_IO_ERROR;
    }
}

// Gives TLS up to `size` bytes of what came. A request for few bytes, a record's header, reads on
// what may be the rest of the record.
int _read_encrypted(WOLFSSL* /*session*/, char* buffer, int size, void* context) {
    cloud_socket_t* socket = static_cast<cloud_socket_t*>(context);
    read_ahead_t* ahead = &socket->ahead;
    if (ahead->begin == ahead->end) {
        bool isSmall = size < read_ahead_t::SIZE;
        size_t wanted = static_cast<size_t>(isSmall ? read_ahead_t::SIZE : size);
        ssize_t count = recv(socket->sockfd, isSmall ? ahead->bytes : buffer, wanted, 0);
        if (count <= 0) {
            return count == 0 ? TLS_IO_CLOSED : _read_error();
        }
        if (!isSmall) {
            return static_cast<int>(count);
        }
        ahead->begin = 0;
        ahead->end = static_cast<int>(count);
    }
    int count = std::min(size, ahead->end - ahead->begin);
    memcpy(buffer, ahead->bytes + ahead->begin, static_cast<size_t>(count));
    ahead->begin += count;
    return count;
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
    CyaSSL_SetIORecv(context, _read_encrypted);

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
    cloudSocket->ahead.begin = cloudSocket->ahead.end = 0;
    CyaSSL_SetIOReadCtx(session, cloudSocket);
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

// `budget` counts the waits alone, in milliseconds. Any result but success is a failure, whatever
// its number: a connection whose handshake did not end is not to be used.
int _tls_handshake(cloud_socket_t* cloudSocket, int64_t budget) {
    int64_t waited = 0;
    for (;;) {
        int result = CyaSSL_connect(cloudSocket->SSL);
        if (result == TLS_SUCCESS) {
            return 0;
        }
        budget -= waited;
        if (budget < 0 || is_let_go()) {
            LOG_ERROR_AS(CONNECT, "[CRC:] ssl connect timeout");
            return -1;
        }
        int error = CyaSSL_get_error(cloudSocket->SSL, result);
        if (error != TLS_WANT_READ && error != TLS_WANT_WRITE) {
            LOG_ERROR_AS(CONNECT, "[CRC:] ssl connect error, err: %d", error);
            return -1;
        }
        int64_t start = cloud_now_ms();
        wait_for readiness = error == TLS_WANT_READ ? wait_for::reading : wait_for::writing;
        int ready = wait_descriptor(cloudSocket->sockfd, readiness, budget);
        bool isBroken = ready < 0 && errno != EINTR; // and would be at every further wait
        waited = isBroken ? budget + 1 : cloud_now_ms() - start;
    }
}

// How a write that the peer does not take at once goes on.
struct slow_write {
    int64_t unwantedSince; // when the session was first seen to end; 0 before
    int64_t lastProgress;  // of the peer, seen since then
    int unsent;            // bytes in the connection's send buffer after the last attempt
};

// True when a stalled write is to be given up. `unsent` is what the send buffer held after the
// write's last attempt; less now means that the peer took some.
bool _is_write_over(const cloud_socket_t* socket, slow_write* write) {
    if (!is_stop_wanted()) {
        return false;
    }
    int64_t now = cloud_now_ms();
    if (write->unwantedSince == 0) {
        write->unwantedSince = now;
        write->lastProgress = now;
    } else if (unsent_bytes(socket->sockfd) < write->unsent) {
        write->lastProgress = now;
    }
    return now - write->unwantedSince > FAREWELL_LIMIT_MS ||
           now - write->lastProgress > FAREWELL_STALL_MS;
}

// One attempt to write. Returns the library's error code, 0 for none.
int _try_write(cloud_socket_t* socket, const void* buf, size_t length, int* result) {
    *result = CyaSSL_write(socket->SSL, buf, static_cast<int>(length));
    return *result > 0 ? 0 : CyaSSL_get_error(socket->SSL, *result);
}

// Writes until TLS took all or cannot go on. Returns the library's error code, 0 for none.
int _write_whole(cloud_socket_t* socket, const void* buf, size_t length, int* result) {
    slow_write write = {};
    int error = _try_write(socket, buf, length, result);
    while (error == TLS_WANT_WRITE) {
        write.unsent = is_stop_wanted() ? unsent_bytes(socket->sockfd) : 0;
        usleep(WRITE_RETRY_US);
        if (_is_write_over(socket, &write)) {
            break;
        }
        // TLS goes on where it stopped only when it is given the same bytes again.
        error = _try_write(socket, buf, length, result);
    }
    return error;
}

void _set_corked(const cloud_socket_t* socket, int on) {
    setsockopt(socket->sockfd, IPPROTO_TCP, TCP_CORK, &on, sizeof on);
}

// The number that the log gives for a read. When a look ahead met the peer's close first, the read
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
    if (socket->status == CLOUD_SOCKET_DISCONNECTED || is_let_go()) {
        LOG_ERROR("[CRC:] The ssl socket is disconnected");
        return CLOUD_UNREACHABLE;
    }
    bool manyRecords = length > CRC_DATA_BUF_SIZE;
    if (manyRecords) { // records share segments
        _set_corked(socket, 1);
    }
    int result = 0;
    int error = _write_whole(socket, buf, length, &result);
    if (manyRecords) {
        _set_corked(socket, 0);
    }
    // Closed by the peer, given up, or stuck between two records: what is left of the packet cannot
    // follow, and the next packet must not.
    bool isStuck = error == TLS_WANT_READ || error == TLS_NO_MEMORY;
    if (isStuck) { // so that the session's next wait sees the end
        shutdown(socket->sockfd, SHUT_RDWR);
    }
    socket->midRecord = error == TLS_WANT_WRITE;
    if (socket->midRecord || isStuck || error == TLS_ZERO_RETURN) {
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
        int count = CyaSSL_read(socket->SSL, position,
                                static_cast<int>(std::min(remaining, CRC_DATA_BUF_SIZE)));
        int error = count > 0 ? 0 : CyaSSL_get_error(socket->SSL, count);
        bool isWaiting = error == TLS_WANT_READ || error == TLS_WANT_WRITE;
        if (is_let_go() || (isWaiting && cloud_now_ms() - start > timeout)) {
            LOG_ERROR("[CRC:] recv timeout");
            return -1;
        }
        if (count > 0) {
            position += count;
            remaining -= static_cast<size_t>(count);
            continue;
        }
        if (isWaiting) {
            usleep(READ_RETRY_US);
            continue;
        }
        if (error == TLS_ZERO_RETURN) {
            LOG_INFO("[CRC:] the socket is disconnected, result:%d", _read_result(count, error));
            socket->status = CLOUD_SOCKET_DISCONNECTED;
            return 0;
        }
        LOG_ERROR("[CRC:] the socket read err, nread:%d", _read_result(count, error));
        if (error == TLS_NO_MEMORY) { // may pass: a read after this one would leave a gap
            return -1;
        }
        break;
    }
    return static_cast<int>(length - remaining);
}

bool cloud_socket_has_buffered_data(const cloud_socket_t* socket) {
    return socket->ahead.begin < socket->ahead.end || CyaSSL_pending(socket->SSL) > 0;
}

tls_data cloud_socket_look(cloud_socket_t* socket) {
    char next = 0;
    int count = CyaSSL_peek(socket->SSL, &next, sizeof next);
    switch (count > 0 ? 0 : CyaSSL_get_error(socket->SSL, count)) {
    case TLS_WANT_READ:
        return tls_data::none;
    case TLS_WANT_WRITE:
        return tls_data::blocked;
    default:
        return tls_data::some;
    }
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
