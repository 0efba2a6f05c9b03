#include "queue/web_server.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>

#include "core/clock.h"
#include "transport/cloud_socket.h"

namespace {

constexpr int64_t LOOK_MS = 100; // how often a wait looks whether it is still wanted

bool _is_abandoned(const web_wait_t& wait) {
    return wait.relay != nullptr && wait.relay->abandoned;
}

// Waits until the socket is ready. False with errno when the wait is over first.
bool _wait(int fd, short events, web_wait_t* wait) {
    while (wait->patience >= 0 && !_is_abandoned(*wait)) {
        int64_t start = cloud_now_ms();
        pollfd polled = {fd, events, 0};
        int ready = poll(&polled, 1, static_cast<int>(std::min(wait->patience + 1, LOOK_MS)));
        wait->patience -= cloud_now_ms() - start;
        if (ready > 0) {
            return true;
        }
    }
    errno = _is_abandoned(*wait) ? ECANCELED : ETIMEDOUT;
    return false;
}

bool _would_block() {
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

} // namespace

int web_server_open() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

int web_server_connect(int fd, uint16_t port, web_wait_t* wait) {
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
    if (errno != EINPROGRESS || !_wait(fd, POLLOUT, wait)) {
        return -1;
    }
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
    errno = error;
    return error == 0 ? 0 : -1;
}

int web_server_send(int fd, const uint8_t* bytes, size_t size, web_wait_t* wait) {
    while (size > 0) {
        ssize_t count = send(fd, bytes, size, MSG_NOSIGNAL);
        if (count >= 0) {
            bytes += count;
            size -= static_cast<size_t>(count);
        } else if (!_would_block() || !_wait(fd, POLLOUT, wait)) {
            return -1;
        }
    }
    return 0;
}

ssize_t web_server_recv(int fd, uint8_t* buffer, size_t size, web_wait_t* wait) {
    for (;;) {
        ssize_t count = recv(fd, buffer, size, 0);
        if (count >= 0 || !_would_block() || !_wait(fd, POLLIN, wait)) {
            return count;
        }
    }
}
