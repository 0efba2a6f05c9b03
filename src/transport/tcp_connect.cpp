#include "transport/tcp_connect.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/clock.h"
#include "core/log.h"
#include "core/wanted.h"

namespace {

int _select(int fd, wait_for readiness, int64_t timeout) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    timeval limit = {};
    limit.tv_sec = timeout / MS_PER_SECOND;
    limit.tv_usec = timeout % MS_PER_SECOND * US_PER_MS;
    bool reading = readiness == wait_for::reading;
    return select(fd + 1, reading ? &set : nullptr, reading ? nullptr : &set, nullptr, &limit);
}

} // namespace

int wait_descriptor(int fd, wait_for readiness, int64_t timeout) {
    if (fd >= FD_SETSIZE) {
        errno = EMFILE;
        return -1;
    }
    for (;;) {
        int64_t look = std::min<int64_t>(timeout, LOOK_MS);
        int ready = _select(fd, readiness, look);
        timeout -= look;
        if (ready != 0 || timeout <= 0 || is_let_go()) {
            return ready;
        }
    }
}

int socket_error(int fd) {
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

int unsent_bytes(int fd) {
    int unsent = 0;
    ioctl(fd, SIOCOUTQ, &unsent);
    return unsent;
}

int open_tcp_socket() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= FD_SETSIZE) {
        close(fd);
        errno = EMFILE;
        return -1;
    }
    return fd;
}

int connect_nonblock(int fd, const sockaddr_in* address, int64_t timeout) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL, 0) | O_NONBLOCK);
    if (timeout < 1) {
        LOG_ERROR("[CRC:] parameter error");
        return -1;
    }
    errno = 0;
    int result = connect(fd, reinterpret_cast<const sockaddr*>(address), sizeof *address);
    if (result == 0) {
        LOG_INFO("[CRC:] Good, client connect with server successful.");
        return 0;
    }
    if (errno != EINPROGRESS) {
        LOG_ERROR("[CRC:] Oh no! n: %d, errno: %s, sockfd is wrong.", result, strerror(errno));
        perror("connect: ");
        return -1;
    }
    int ready = wait_descriptor(fd, wait_for::writing, timeout);
    if (ready <= 0) {
        errno = fd < FD_SETSIZE ? ETIMEDOUT : EMFILE;
        LOG_ERROR("[CRC:] select error, result:%d, errno:%s", ready, strerror(errno));
        return -1;
    }
    int error = socket_error(fd);
    if (error != 0) {
        errno = error;
        LOG_ERROR("[CRC:] select error, result:%d, errno:%s", ready, strerror(errno));
        return -1;
    }
    LOG_INFO("[CRC:] tcp connect to the server success");
    return 0;
}
