#include "support/tcp.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/eventually.h"

namespace {

[[noreturn]] void give_up(const char* what) {
    perror(what);
    abort();
}

sockaddr_in address_of(const std::string& address, int port) {
    sockaddr_in result = {};
    result.sin_family = AF_INET;
    result.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_aton(address.c_str(), &result.sin_addr) == 0) {
        give_up("inet_aton");
    }
    return result;
}

bool is_ready(int fd, short events, int within) {
    pollfd ready = {fd, events, 0};
    return poll(&ready, 1, within) == 1;
}

} // namespace

int listen_at(const std::string& address, int port, int backlog) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int on = 1;
    sockaddr_in place = address_of(address, port);
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(fd, reinterpret_cast<sockaddr*>(&place), sizeof place) != 0 ||
        listen(fd, backlog) != 0) {
        give_up("listen_at");
    }
    return fd;
}

int port_of(int fd) {
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        give_up("port_of");
    }
    return ntohs(address.sin_port);
}

int accept_connection(int listener) {
    if (!is_ready(listener, POLLIN, PATIENCE_MS)) {
        return -1;
    }
    return accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
}

std::string read_bytes(int fd, size_t count) {
    std::string bytes(count, '\0');
    size_t done = 0;
    while (done < count && is_ready(fd, POLLIN, PATIENCE_MS)) {
        ssize_t got = recv(fd, bytes.data() + done, count - done, 0);
        if (got <= 0) {
            break;
        }
        done += static_cast<size_t>(got);
    }
    bytes.resize(done);
    return bytes;
}

bool write_bytes(int fd, const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size() && is_ready(fd, POLLOUT, PATIENCE_MS)) {
        ssize_t put =
            send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (put <= 0) {
            return false;
        }
        done += static_cast<size_t>(put);
    }
    return done == bytes.size();
}

void reset_and_close(int fd) {
    linger at_once = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    close(fd);
}

int refusing_port() {
    int listener = listen_at();
    int port = port_of(listener);
    close(listener);
    return port;
}

deaf_listener::deaf_listener() : listener(listen_at("127.0.0.1", 0, 0)) {
    sockaddr_in place = address_of("127.0.0.1", port());
    constexpr int CERTAINLY_IGNORED_MS = 100;
    bool taken = true;
    while (taken) {
        int filler = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        fillers.push_back(filler);
        (void)connect(filler, reinterpret_cast<sockaddr*>(&place), sizeof place);
        taken = is_ready(filler, POLLOUT, CERTAINLY_IGNORED_MS);
    }
}

deaf_listener::~deaf_listener() {
    for (int filler : fillers) {
        close(filler);
    }
    close(listener);
}

int deaf_listener::port() const {
    return port_of(listener);
}
