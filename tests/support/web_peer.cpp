#include "support/web_peer.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include "support/eventually.h"
#include "support/tcp.h"

web_connection::web_connection(int fd) : socket(fd) {}

web_connection::~web_connection() {
    close();
}

web_connection::web_connection(web_connection&& other) noexcept
    : socket(std::exchange(other.socket, -1)) {}

web_connection& web_connection::operator=(web_connection&& other) noexcept {
    std::swap(socket, other.socket);
    return *this;
}

std::string web_connection::read_exact(size_t count) {
    return read_bytes(socket, count);
}

std::string web_connection::read_until(const std::string& end) {
    std::string text;
    while (!text.ends_with(end)) {
        std::string next = read_bytes(socket, 1);
        if (next.empty()) {
            break;
        }
        text += next;
    }
    return text;
}

std::string web_connection::read_to_end() {
    constexpr size_t PIECE = 65536;
    std::string text;
    for (std::string piece = read_bytes(socket, PIECE); !piece.empty();
         piece = read_bytes(socket, PIECE)) {
        text += piece;
    }
    return text;
}

bool web_connection::is_at_end() {
    pollfd ready = {socket, POLLIN, 0};
    char byte = 0;
    return poll(&ready, 1, PATIENCE_MS) == 1 && recv(socket, &byte, 1, MSG_PEEK) <= 0;
}

bool web_connection::answer(const std::string& bytes) {
    return write_bytes(socket, bytes);
}

void web_connection::finish() {
    shutdown(socket, SHUT_WR);
}

void web_connection::close() {
    if (socket >= 0) {
        ::close(std::exchange(socket, -1));
    }
}

void web_connection::reset() {
    reset_and_close(std::exchange(socket, -1));
}

web_peer::web_peer(int port) : listener(listen_at("127.0.0.1", port)) {}

web_peer::~web_peer() {
    ::close(listener);
}

int web_peer::port() const {
    return port_of(listener);
}

web_connection web_peer::accept() {
    int fd = accept_connection(listener);
    EXPECT_GE(fd, 0) << "nobody connected to the web server";
    return web_connection(fd);
}

bool web_peer::is_called(int withinMs) {
    pollfd ready = {listener, POLLIN, 0};
    return poll(&ready, 1, withinMs) == 1;
}
