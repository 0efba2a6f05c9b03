#include "queue/web_server.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>

#include "core/clock.h"
#include "core/wanted.h"
#include "transport/tcp_connect.h"

namespace {

constexpr int SEND_BUFFER_SIZE = 64 * 1024; // two seconds of a web server that takes 130 KB/s

// Waits until the socket is ready. The kernel reports room for sending only when a third of the
// buffer is free; what the web server took meanwhile is progress, too. False with errno when the
// wait is over first.
bool _wait(int fd, short events, int64_t patience) {
    int64_t deadline = cloud_now_ms() + patience;
    int unsent = INT_MAX;
    while (!is_stop_wanted()) {
        if (int now = events == POLLOUT ? unsent_bytes(fd) : INT_MAX; now < unsent) {
            unsent = now;
            deadline = cloud_now_ms() + patience;
        }
        int64_t left = deadline - cloud_now_ms();
        if (left < 0) {
            errno = ETIMEDOUT;
            return false;
        }
        pollfd polled = {fd, events, 0};
        int ready = poll(&polled, 1, static_cast<int>(std::min<int64_t>(left + 1, LOOK_MS)));
        if (ready != 0 && !(ready < 0 && errno == EINTR)) {
            return ready > 0;
        }
    }
    errno = ECANCELED;
    return false;
}

bool _would_block() {
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

} // namespace

// Blocking, for the connect's sake: on the local host it takes microseconds, and waiting for it in
// the same call costs less than waiting with poll. Bounded as every wait.
int web_server_open() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval limit = {0, suseconds_t{LOOK_MS} * US_PER_MS};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    return fd;
}

int web_server_connect(int fd, uint16_t port, int64_t patience) {
    if (fd >= FD_SETSIZE) {
        errno = EMFILE; // the session's select could not wait for it
        return -1;
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_ANY); // as a destination, the local host
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        return 0;
    }
    // A signal leaves the connect under way, as the end of the time for one look does.
    bool isUnderWay = errno == EINPROGRESS || errno == EINTR;
    if (!isUnderWay || !_wait(fd, POLLOUT, patience)) {
        return -1;
    }
    errno = socket_error(fd);
    return errno == 0 ? 0 : -1;
}

void web_server_expect_pieces(int fd) {
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER_SIZE, sizeof SEND_BUFFER_SIZE);
}

int web_server_send(int fd, const uint8_t* bytes, size_t size, int64_t patience) {
    while (size > 0) {
        ssize_t count = send(fd, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count >= 0) {
            bytes += count;
            size -= static_cast<size_t>(count);
        } else if (!_would_block() || !_wait(fd, POLLOUT, patience)) {
            return -1;
        }
    }
    return 0;
}

ssize_t web_server_recv(int fd, uint8_t* buffer, size_t size, int64_t patience) {
    for (;;) {
        ssize_t count = recv(fd, buffer, size, MSG_DONTWAIT);
        if (count >= 0 || !_would_block() || !_wait(fd, POLLIN, patience)) {
            return count;
        }
    }
}

bool web_server_has_answered(int fd) {
    pollfd polled = {fd, POLLIN, 0};
    return poll(&polled, 1, 0) > 0;
}
