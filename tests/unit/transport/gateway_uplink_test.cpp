// The choice between real uplinks: network devices that lead to networks of their own.

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include "gateway_fixture.h"
#include "support/eventually.h"
#include "support/tcp.h"
#include "support/uplink.h"

namespace {

const bool isPrivate = private_namespaces();

using testing::Contains;
using testing::ElementsAre;

constexpr char RELAY[] = "203.0.113.1";

// A router with two ways out; the kernel prefers the first one.
struct TwoUplinks : SelectDevice {
    TwoUplinks() { restore_proc_files(); }

    void renew_socket() {
        close(socket->sockfd);
        socket->sockfd = ::socket(AF_INET, SOCK_STREAM, 0);
        log.clear();
    }

    uplink first{"wan0", 1, 10};
    uplink second{"wan1", 2, 20};
};

TEST_F(TwoUplinks, AreReadFromTheKernelsTable) {
    EXPECT_EQ(get_gateway_device_count(), 2);
    EXPECT_EQ(get_gateway_device(&list), 0);
    EXPECT_THAT(names(list), ElementsAre("wan1", "wan0"));
}

TEST_F(TwoUplinks, ARelayBehindTheFirstIsReachedWithoutBinding) {
    first.host(RELAY);
    int listener = first.listen(RELAY);
    EXPECT_EQ(connect_to(RELAY, port_of(listener), PATIENCE_MS), 0);
    EXPECT_EQ(local_address(), first.address());
    EXPECT_EQ(bound_device(), "");
    EXPECT_EQ(reserved(), "");
    close(listener);
}

TEST_F(TwoUplinks, ARelayBehindTheSecondIsReachedThroughItAndTheDeviceReserved) {
    first.refuse(RELAY);
    second.host(RELAY);
    int listener = second.listen(RELAY);
    EXPECT_EQ(connect_to(RELAY, port_of(listener), PATIENCE_MS), 0);
    EXPECT_EQ(bound_device(), "wan1");
    EXPECT_EQ(reserved(), "wan1");
    EXPECT_EQ(local_address(), "");
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line(CONNECT, testing::_), info_line(SELECT, NO_RESERVED),
                            info_line(SELECT, std::string(TRY) + "wan1\n"),
                            info_line(SELECT, BOUND),
                            info_line(CONNECT, "[CRC:] tcp connect to the server success"),
                            info_line(SELECT, "[CRC:] connect_nonblock successfully\n "),
                            info_line(SELECT, "[CRC:] add reserve_gateway_device:wan1 to "
                                              "g_gateway_device_list\n"),
                            info_line(SELECT, "[CRC:] tcp connect to the server success")));
    int accepted = accept_connection(listener);
    EXPECT_TRUE(write_bytes(accepted, "hello"));
    EXPECT_TRUE(eventually([&] {
        char text[6] = {};
        return recv(socket->sockfd, text, 5, 0) == 5 && strcmp(text, "hello") == 0;
    }));
    close(accepted);
    close(listener);
}

TEST_F(TwoUplinks, APlainConnectThatTimesOutIsFollowedByTheSearchAsWell) {
    second.host(RELAY); // the first answers nothing: its gateway forwards nothing
    int listener = second.listen(RELAY);
    EXPECT_EQ(connect_to(RELAY, port_of(listener)), 0);
    EXPECT_THAT(log.messages(CONNECT),
                Contains("[CRC:] select error, result:0, errno:Connection timed out"));
    EXPECT_EQ(bound_device(), "wan1");
    close(listener);
}

TEST_F(TwoUplinks, TheReservedDeviceIsUsedNextWithoutASearch) {
    first.refuse(RELAY);
    second.host(RELAY);
    int listener = second.listen(RELAY);
    ASSERT_EQ(connect_to(RELAY, port_of(listener), PATIENCE_MS), 0);
    renew_socket();
    EXPECT_EQ(connect_to(RELAY, port_of(listener), PATIENCE_MS), 0);
    EXPECT_THAT(said(), ElementsAre("[CRC:] there is reserve_gateway_device: wan1\n", BOUND));
    EXPECT_EQ(bound_device(), "wan1");
    EXPECT_EQ(reserved(), "wan1");
    close(listener);
}

TEST_F(TwoUplinks, AReservedDeviceThatFailsIsForgottenAndAnotherFound) {
    uplink third("wan2", 3, 30);
    first.refuse(RELAY);
    second.refuse(RELAY);
    third.host(RELAY);
    int listener = third.listen(RELAY);
    reserve("wan1");
    EXPECT_EQ(connect_to(RELAY, port_of(listener), PATIENCE_MS), 0);
    EXPECT_THAT(said(),
                ElementsAre("[CRC:] there is reserve_gateway_device: wan1\n", BOUND,
                            "[CRC:] connect_nonblock failed, clear the reserve_gateway_device!\n ",
                            RENEW, std::string(TRY) + "wan2\n", BOUND,
                            "[CRC:] connect_nonblock successfully\n ",
                            "[CRC:] add reserve_gateway_device:wan2 to g_gateway_device_list\n",
                            "[CRC:] tcp connect to the server success"));
    EXPECT_EQ(reserved(), "wan2");
    close(listener);
}

TEST_F(TwoUplinks, TheWalkGoesOnPastADeviceThatDoesNotConnect) {
    uplink third("wan2", 3, 30);
    first.refuse(RELAY);
    third.refuse(RELAY);
    second.host(RELAY);
    int listener = second.listen(RELAY);
    EXPECT_EQ(connect_to(RELAY, port_of(listener), PATIENCE_MS), 0);
    EXPECT_THAT(said(), Contains("[CRC:] connect_nonblock failed\n "));
    EXPECT_EQ(bound_device(), "wan1");
    EXPECT_EQ(reserved(), "wan1");
    close(listener);
}

TEST_F(TwoUplinks, ADeviceThatAnswersNothingIsNotTakenForConnected) {
    uplink third("wan2", 3, 30);
    first.refuse(RELAY);
    second.host(RELAY);
    int listener = second.listen(RELAY);
    EXPECT_EQ(connect_to(RELAY, port_of(listener)), 0);
    EXPECT_THAT(log.messages(CONNECT),
                ElementsAre("[CRC:] select error, result:1, errno:No route to host",
                            "[CRC:] select error, result:0, errno:Connection timed out",
                            "[CRC:] tcp connect to the server success"));
    EXPECT_EQ(reserved(), "wan1");
    close(listener);
}

TEST_F(TwoUplinks, AReservedDeviceThatWasPulledOutIsForgotten) {
    uplink third("wan2", 3, 30);
    first.refuse(RELAY);
    third.refuse(RELAY);
    second.cut();
    reserve("wan1");
    EXPECT_EQ(connect_to(RELAY, 443), -1);
    EXPECT_THAT(said(), Contains("[CRC:] bind device failed\n "));
    EXPECT_THAT(said(), Contains(std::string(TRY) + "wan2\n"));
    EXPECT_EQ(reserved(), "");
    EXPECT_EQ(local_address(), "");
}

TEST_F(TwoUplinks, ARelayBehindNeitherIsNotReached) {
    first.refuse(RELAY);
    second.refuse(RELAY);
    EXPECT_EQ(connect_to(RELAY, 443), -1);
    EXPECT_THAT(log.messages().back(), testing::StartsWith("[CRC:] open sock failed, errno:"));
    EXPECT_EQ(reserved(), "");
}

} // namespace
