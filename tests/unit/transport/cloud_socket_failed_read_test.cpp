// Reads that the system or TLS fails.

#include <gmock/gmock.h>

#include "connected_socket.h"
#include "support/failing_calls.h"
#include "support/forced_tls.h"

namespace {

const bool isPrivate = private_namespaces();

using testing::ElementsAre;

constexpr char RECV[] = "cloud_socket_recv_buf";

TEST_F(ConnectedSocket, AReadWithoutMemoryFails) {
    relay.send("x");
    forced_tls read("wolfSSL_read", -1, TLS_NO_MEMORY, 1);
    char byte = 0;
    EXPECT_EQ(cloud_socket_recv_buf(socket, &byte, 1, PATIENCE_MS), -1);
    EXPECT_THAT(log.lines(), ElementsAre(error_line(RECV, "[CRC:] the socket read err, nread:-1")));
    EXPECT_EQ(read.count(), 1);
}

TEST_F(ConnectedSocket, AReadThatASignalInterruptsGoesOn) {
    relay.send("x");
    fail_call interrupted("recv", 1, calls_of::this_thread, EINTR);
    EXPECT_EQ(receive(1), "x");
    EXPECT_TRUE(interrupted.happened());
    EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_F(ConnectedSocket, AReadThatTheSystemFailsIsNotRepeated) {
    relay.send("x");
    fail_call broken("recv");
    char byte = 0;
    EXPECT_EQ(cloud_socket_recv_buf(socket, &byte, 1, PATIENCE_MS), 0);
    EXPECT_TRUE(broken.happened());
    EXPECT_THAT(log.lines(), ElementsAre(error_line(RECV, "[CRC:] the socket read err, nread:-1")));
}

// A short count would leave a gap in the packet: the next read may have memory again.
TEST_F(ConnectedSocket, AReadThatRunsOutOfMemoryGivesNothingOfWhatCameBefore) {
    relay.send("half"); // a record of its own
    relay.send("rest");
    ASSERT_TRUE(eventually([&] { return cloud_socket_look(socket) == tls_data::some; }));
    forced_tls read("wolfSSL_read", -1, TLS_NO_MEMORY, 1, 1);
    char bytes[8] = {};
    EXPECT_EQ(cloud_socket_recv_buf(socket, bytes, sizeof bytes, PATIENCE_MS), -1);
    EXPECT_STREQ(bytes, "half");
    EXPECT_EQ(read.count(), 1);
}

} // namespace
