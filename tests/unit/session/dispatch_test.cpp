#include "session/dispatch.h"

#include "core/clock.h"
#include "core/cloud_cycle_record.h"
#include "core/session_notice.h"
#include "queue/cloud_mq.h"
#include "queue/cloud_remote_mq.h"
#include "session/heartbeat.h"
#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "support/namespaces.h"
#include "support/relay_session.h"
#include "support/tcp.h"
#include "support/web_peer.h"
#include "transport/cloud_socket.h"
#include "transport/packet_header.h"

using testing::_;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const bool isPrivate = private_namespaces();

constexpr char DISPATCH[] = "cloud_server_handle_dispatch";
constexpr int64_t TIMEOUT_MS = 20000;
constexpr uint16_t ID = 0x0102;

class DispatchTest : public testing::Test {
protected:
    DispatchTest() {
        if (pCloudRemoteMq == nullptr) {
            cloud_remote_mq_init();
        }
        log.clear();
    }

    int dispatch(const std::string& header) {
        return cloud_server_handle_dispatch(cycle, reinterpret_cast<const uint8_t*>(header.data()),
                                            header.size(), TIMEOUT_MS);
    }

    // A heartbeat in the queue.
    void queue_heartbeat(int id) {
        ASSERT_EQ(cloud_mq_insert_request(cycle->msgQueue,
                                          cloud_heartbeat_generate_pkt(static_cast<uint16_t>(id)),
                                          12, id, -1, 5000),
                  0);
        log.clear();
    }

    void set_web_port(int port) {
        write_file("/etc/config/system", "config service 'service_port'\n\toption http_port '" +
                                             std::to_string(port) + "'\n");
    }

    log_capture log;
    moved_clock clock;
    relay_session session;
    cloud_cycle_t* const cycle = session.cycle;
};

TEST_F(DispatchTest, RefusesANullMessage) {
    EXPECT_EQ(cloud_server_handle_dispatch(cycle, nullptr, 12, TIMEOUT_MS), 100);
    EXPECT_THAT(log.lines(), ElementsAre(error_line(DISPATCH, "Ensure NULL != message failed.")));
}

TEST_F(DispatchTest, RefusesABadMagicNumber) {
    EXPECT_EQ(dispatch(header_bytes(PACKET_HELLO, ID, 0, 0, 0x0BB0)), 10);
    EXPECT_EQ(dispatch(header_bytes(PACKET_HELLO, ID, 0, 0, 0x0000)), 10);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line(DISPATCH, "[CRC:] Magic number(pkt Header 0x0BB0) err."),
                            error_line(DISPATCH, "[CRC:] Magic number(pkt Header 0x0000) err.")));
}

TEST_F(DispatchTest, IgnoresHelloAndResponseWithoutAWord) {
    EXPECT_EQ(dispatch(header_bytes(PACKET_HELLO, ID, 0)), 0);
    EXPECT_EQ(dispatch(header_bytes(PACKET_RESPONSE, ID, 0)), 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(DispatchTest, RefusesUnknownTypesWithoutAWord) {
    for (int type : {0, 7, 0x0100, 0x0200, 0xFFFF}) {
        EXPECT_EQ(dispatch(header_bytes(static_cast<uint16_t>(type), ID, 0)), -1);
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(DispatchTest, BooksAHeartbeatsReply) {
    queue_heartbeat(ID);
    cycle->heartbeatTimeoutTimes = 2;
    std::string reply = header_bytes(PACKET_HEARTBEAT, ID, 0, 0x55AA);
    EXPECT_EQ(dispatch(reply), 0);
    EXPECT_THAT(log.lines(), ElementsAre(info_line(DISPATCH, "[CRC:] cloud heartbeat recv")));
    const cloud_mq_node_t& node = cycle->msgQueue->node[0];
    EXPECT_EQ(node.status, CLOUD_MQ_ANSWERED);
    EXPECT_EQ(node.resLen, 12);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(node.resStr), 13), reply + '\0');
    EXPECT_EQ(cycle->heartbeatStatus, HEARTBEAT_ANSWERED);
    EXPECT_EQ(cycle->heartbeatTimeoutTimes, 0);
}

// Also: the refused copy is released, or the leak checkers complain; so in the next two.
TEST_F(DispatchTest, RefusesAReplyToNoHeartbeat) {
    queue_heartbeat(ID);
    EXPECT_EQ(dispatch(header_bytes(PACKET_HEARTBEAT, ID + 1, 0)), -1);
    EXPECT_THAT(
        log.lines(),
        ElementsAre(info_line(DISPATCH, "[CRC:] cloud heartbeat recv"),
                    info_line("cloud_mq_set_response", "[CRC:] coresponding request not found"),
                    error_line("cloud_server_handle_response", "[CRC:] set response error")));
    EXPECT_EQ(cycle->heartbeatStatus, HEARTBEAT_IDLE);
}

TEST_F(DispatchTest, RefusesAReplyThatComesTooLate) {
    queue_heartbeat(ID);
    clock.move(5001);
    EXPECT_EQ(dispatch(header_bytes(PACKET_HEARTBEAT, ID, 0)), -1);
    EXPECT_THAT(
        log.lines(),
        ElementsAre(info_line(DISPATCH, _),
                    error_line("cloud_mq_set_response", "[CRC:]response timeout, will discard"),
                    error_line("cloud_server_handle_response", "[CRC:] set response error")));
    EXPECT_EQ(cycle->msgQueue->node[0].status, CLOUD_MQ_READY) << "left as it was";
}

TEST_F(DispatchTest, BooksASecondReplyInTheFirstOnesPlace) {
    queue_heartbeat(ID);
    EXPECT_EQ(dispatch(header_bytes(PACKET_HEARTBEAT, ID, 0)), 0);
    EXPECT_EQ(dispatch(header_bytes(PACKET_HEARTBEAT, ID, 0, 7)), 0);
    EXPECT_EQ(packet_header_read(cycle->msgQueue->node[0].resStr).reserve, 7);
}

TEST_F(DispatchTest, SaysWhenAReplyFindsNoMemory) {
    queue_heartbeat(ID);
    fail_call failure("malloc");
    EXPECT_EQ(dispatch(header_bytes(PACKET_HEARTBEAT, ID, 0)), 101);
    EXPECT_THAT(log.lines(),
                ElementsAre(info_line(DISPATCH, _),
                            error_line("cloud_server_handle_response", "[CRC:] Out of memory")));
    EXPECT_EQ(cycle->heartbeatStatus, HEARTBEAT_IDLE);
}

TEST_F(DispatchTest, LeavesTheBodyOfAHeartbeatsReplyOnTheStream) {
    queue_heartbeat(ID);
    session.relay.send("body");
    EXPECT_EQ(dispatch(header_bytes(PACKET_HEARTBEAT, ID, 4)), 0);
    char body[4];
    EXPECT_EQ(cloud_socket_recv_buf(cycle->cloudSocket, body, sizeof body, TIMEOUT_MS), 4);
    EXPECT_EQ(std::string(body, 4), "body");
}

TEST_F(DispatchTest, HandsARequestToTheWebServerAndNotesItsTime) {
    web_peer web;
    set_web_port(web.port());
    session.relay.send("GET /\r\n\r\n");
    clock.move(1000);
    int64_t before = cloud_now_ms();
    EXPECT_EQ(dispatch(header_bytes(PACKET_REQUEST, ID, 9)), 0);
    EXPECT_GE(cycle->lastRequestTime, before);
    EXPECT_EQ(log.lines().front().message, "[CRC:] cloud request recv");
    EXPECT_EQ(log.lines().front().function, DISPATCH);
    EXPECT_EQ(web.accept().read_exact(9), "GET /\r\n\r\n");
}

TEST_F(DispatchTest, HandsAnUncountedRequestToTheWebServerAndNotesNothing) {
    web_peer web;
    set_web_port(web.port());
    session.relay.send("GET /\r\n\r\n");
    EXPECT_EQ(dispatch(header_bytes(PACKET_REQUEST_UNCOUNTED, ID, 9)), 0);
    EXPECT_EQ(cycle->lastRequestTime, 0);
    EXPECT_THAT(log.messages(DISPATCH), IsEmpty());
    EXPECT_EQ(web.accept().read_exact(9), "GET /\r\n\r\n");
}

TEST_F(DispatchTest, PassesOnWhyARequestFailed) {
    set_web_port(refusing_port());
    EXPECT_EQ(dispatch(header_bytes(PACKET_REQUEST, ID, 9)), -1);
    EXPECT_EQ(dispatch(header_bytes(PACKET_REQUEST_UNCOUNTED, ID, 9)), -1);
    fail_call failure("calloc");
    EXPECT_EQ(dispatch(header_bytes(PACKET_REQUEST, ID, 9)), 101);
}

TEST_F(DispatchTest, HandsATokenRequestOnAndPassesOnItsFailure) {
    fail_call failure("calloc");
    EXPECT_EQ(dispatch(header_bytes(PACKET_WEB_TOKEN, ID, 2)), 101);
    EXPECT_THAT(
        log.lines(),
        ElementsAre(info_line(DISPATCH, "[CRC:] Recv request pkt for webToken from relay "
                                        "server."),
                    error_line("cloud_server_handle_request_web_token", "[CRC:] Out of memory!")));
    EXPECT_EQ(cycle->lastRequestTime, 0);
}

} // namespace
