#pragma once

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/namespaces.h"
#include "support/tls_peer.h"
#include "transport/cloud_socket.h"
#include "transport/tcp_connect.h"

// Cloud sockets for tests. Require private namespaces.

// A cloud socket that trusts the tests' authority.
struct CloudSocket : testing::Test {
    CloudSocket() { trust(shared_certificates().root); }
    ~CloudSocket() override {
        if (socket != nullptr) {
            cloud_socket_destroy(socket);
        }
    }

    void trust(const std::string& root) {
        write_file(scratch_path("root.pem"), root);
        free(socket->cerFile);
        socket->cerFile = strdup(scratch_path("root.pem").c_str());
    }

    int connect(int port, int64_t timeout = PATIENCE_MS) {
        return cloud_socket_connect(socket, "127.0.0.1", port, timeout);
    }

    bool is_closed() const {
        return socket->status == CLOUD_SOCKET_DISCONNECTED && socket->sockfd == -1 &&
               socket->CTX == nullptr && socket->SSL == nullptr;
    }

    cloud_socket_t* socket = cloud_socket_init();
    log_capture log;
};

// One that is connected to a relay, which the test plays.
struct ConnectedSocket : CloudSocket {
    ConnectedSocket() { meet(); }

    void meet() {
        relay.accept();
        EXPECT_EQ(connect(relay.port()), 0);
        EXPECT_TRUE(relay.is_connected());
        log.clear();
    }

    std::string receive(size_t length, int64_t timeout = PATIENCE_MS) {
        std::string bytes(length, '\0');
        int count = cloud_socket_recv_buf(socket, bytes.data(), length, timeout);
        bytes.resize(count < 0 ? 0 : static_cast<size_t>(count));
        return bytes;
    }

    int send(const std::string& bytes) {
        return cloud_socket_send_buf(socket, bytes.data(), bytes.size());
    }

    bool becomes_readable() const {
        return wait_descriptor(socket->sockfd, wait_for::reading, PATIENCE_MS) == 1;
    }

    tls_peer relay;
};
