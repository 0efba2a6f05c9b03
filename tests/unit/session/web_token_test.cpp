// The web token on a real connection, from a real helper script under the lua interpreter.

#include "session/web_token.h"

#include <fcntl.h>
#include <future>
#include <sys/stat.h>
#include <unistd.h>

#include "core/cloud_cycle_record.h"
#include "queue/cloud_remote_mq.h"
#include "support/eventually.h"
#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "support/namespaces.h"
#include "support/relay_session.h"
#include "token_helper.h"
#include "transport/cloud_socket.h"
#include "transport/packet_header.h"

using testing::Contains;
using testing::ElementsAre;

namespace {

const bool isPrivate = private_namespaces();

constexpr char HANDLER[] = "cloud_server_handle_request_web_token";
constexpr int64_t TIMEOUT_MS = 20000;
constexpr uint16_t ID = 0x002A;
constexpr char BODY[] = R"({"name":"admin"})";

class WebTokenTest : public testing::Test {
protected:
    WebTokenTest() {
        if (pCloudRemoteMq == nullptr) {
            cloud_remote_mq_init();
        }
        install_token_helper("io.write('0123456789abcdef')");
        log.clear();
    }

    // Handles a request with that body.
    int request(const std::string& body, uint16_t reserve = 0) {
        session.relay.send(body);
        return handle(
            header_bytes(PACKET_WEB_TOKEN, ID, static_cast<uint32_t>(body.size()), reserve));
    }
    int handle(const std::string& header, int64_t timeout = TIMEOUT_MS) {
        return cloud_server_handle_request_web_token(
            session.cycle, reinterpret_cast<const uint8_t*>(header.data()), timeout);
    }

    packet reply() { return session.relay.read_packet(); }

    bool nothing_was_sent() {
        session.disconnect();
        return session.relay.read_exact(1).empty();
    }

    log_capture log;
    relay_session session;
};

std::string token_body(int error, const std::string& token) {
    return "{\"err_code\": " + std::to_string(error) + ",\"webToken\":\"" + token + "\"}";
}

TEST_F(WebTokenTest, RefusesNullArguments) {
    std::string header = header_bytes(PACKET_WEB_TOKEN, ID, 2);
    const uint8_t* bytes = reinterpret_cast<const uint8_t*>(header.data());
    EXPECT_EQ(cloud_server_handle_request_web_token(nullptr, bytes, TIMEOUT_MS), 100);
    EXPECT_EQ(cloud_server_handle_request_web_token(session.cycle, nullptr, TIMEOUT_MS), 100);
    auto refusal = error_line(HANDLER, "Ensure NULL != cycle && NULL != reqBuf failed.");
    EXPECT_THAT(log.lines(), ElementsAre(refusal, refusal));
}

TEST_F(WebTokenTest, RepliesWithTheTokenUnderTheRequestsHeader) {
    EXPECT_EQ(request(BODY, 0xBEEF), 0);
    std::string body = token_body(0, "0123456789abcdef");
    EXPECT_EQ(session.relay.read_exact(12),
              std::string("\xB0\x0B\0\5\0\x2A\xBE\xEF\0\0\0", 11) + static_cast<char>(body.size()));
    EXPECT_EQ(session.relay.read_exact(body.size()), body);
    EXPECT_THAT(log.lines(),
                Contains(info_line("_cloud_web_token_response_handle", "Request token: " + body)));
}

TEST_F(WebTokenTest, AsksTheHelperForTheToken) {
    install_token_helper("io.write(#arg, ' ', arg[1])");
    EXPECT_EQ(request(BODY), 0);
    EXPECT_EQ(reply().body, token_body(0, "1 token_get"));
}

TEST_F(WebTokenTest, KeepsALineFeedInTheToken) {
    install_token_helper("print('abc')");
    EXPECT_EQ(request(BODY), 0);
    EXPECT_EQ(reply().body, token_body(0, "abc\n"));
}

TEST_F(WebTokenTest, CutsTheTokenAtThirtyTwoBytes) {
    install_token_helper("io.write(string.rep('x', 32), 'y', string.rep('z', 100000))");
    EXPECT_EQ(request(BODY), 0);
    EXPECT_EQ(reply().body, token_body(0, std::string(32, 'x')));
}

TEST_F(WebTokenTest, TakesATokenThatComesInPieces) {
    install_token_helper("io.stdout:setvbuf('no') for i = 1, 8 do io.write('ab') end");
    EXPECT_EQ(request(BODY), 0);
    EXPECT_EQ(reply().body, token_body(0, "abababababababab"));
}

TEST_F(WebTokenTest, AnEmptyTokenIsATokenToo) {
    install_token_helper("");
    EXPECT_EQ(request(BODY), 0);
    EXPECT_EQ(reply().body, token_body(0, ""));
}

TEST_F(WebTokenTest, AHelperThatIsMissingOrFailsGivesAnEmptyToken) {
    install_token_helper("error('broken')");
    EXPECT_EQ(request(BODY), 0);
    EXPECT_EQ(reply().body, token_body(0, ""));
    remove_file(TOKEN_HELPER);
    EXPECT_EQ(request(BODY), 0);
    EXPECT_EQ(reply().body, token_body(0, ""));
}

// What it has printed does not count either.
TEST_F(WebTokenTest, AHelperThatHangsIsEndedAfterTenSecondsAndGivesAnEmptyToken) {
    constexpr char GATE[] = "/run/gate";
    install_token_helper("io.write('half') io.stdout:flush() io.open('/run/gate'):read()");
    unlink(GATE);
    ASSERT_EQ(mkfifo(GATE, 0600), 0);
    moved_clock clock;
    auto result = std::async(std::launch::async, [this] { return request(BODY); });
    int gate = -1;
    ASSERT_TRUE(eventually([&] {
        gate = open(GATE, O_WRONLY | O_NONBLOCK | O_CLOEXEC); // fails until the helper reads
        return gate >= 0;
    }));
    clock.move(9000);
    int64_t readings = clock.readings();
    EXPECT_TRUE(eventually([&] { return clock.readings() > readings + 2; }));
    EXPECT_EQ(result.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    clock.move(1001);
    EXPECT_EQ(result.get(), 0);
    EXPECT_EQ(reply(), (packet{PACKET_WEB_TOKEN, ID, token_body(0, "")}));
    close(gate);
}

TEST_F(WebTokenTest, AHelperThatCannotBeStartedIsAnsweredAndEndsTheSession) {
    fail_call failure("posix_spawn");
    EXPECT_EQ(request(BODY), -1);
    EXPECT_EQ(reply(), (packet{PACKET_WEB_TOKEN, ID, token_body(-1, "")}));
    EXPECT_THAT(log.lines(), Contains(error_line("cloud_server_handler_token_get",
                                                 "Ensure fp != NULL failed.")));
}

TEST_F(WebTokenTest, AHelperWhoseOutputCannotBeReadIsLoggedAndGivesAnEmptyToken) {
    fail_call failure("poll");
    EXPECT_EQ(request(BODY), 0);
    EXPECT_EQ(reply(), (packet{PACKET_WEB_TOKEN, ID, token_body(0, "")}));
    EXPECT_THAT(log.lines(),
                Contains(error_line("_read_output", "Read the helper's output failed: Cannot "
                                                    "allocate memory")));
}

TEST_F(WebTokenTest, AnswersEverybodyAlike) {
    for (const char* body : {R"({"name":"guest"})", R"({"user":1})", "{}", "[1,2]", "7", "null",
                             R"({"name":null})", "not JSON", "{\"name\":\"adm"}) {
        EXPECT_EQ(request(body), 0) << body;
        EXPECT_EQ(reply(), (packet{PACKET_WEB_TOKEN, ID, token_body(0, "0123456789abcdef")}));
    }
}

TEST_F(WebTokenTest, AnswersWithoutMemoryForTheJsonToo) {
    fail_call failure("json_tokener_new");
    EXPECT_EQ(request(BODY), 0);
    EXPECT_EQ(reply().body, token_body(0, "0123456789abcdef"));
    EXPECT_TRUE(failure.happened());
}

TEST_F(WebTokenTest, TakesABodyOfManyRecords) {
    EXPECT_EQ(request(std::string(100000, ' ') + "{}"), 0);
    EXPECT_EQ(reply().body, token_body(0, "0123456789abcdef"));
}

TEST_F(WebTokenTest, SaysWhenThereIsNoMemoryForTheRequest) {
    fail_call failure("calloc");
    EXPECT_EQ(request(BODY), 101);
    EXPECT_THAT(log.lines(), ElementsAre(error_line(HANDLER, "[CRC:] Out of memory!")));
    EXPECT_TRUE(nothing_was_sent());
}

TEST_F(WebTokenTest, FailsWhenTheBodyDoesNotCome) {
    EXPECT_EQ(handle(header_bytes(PACKET_WEB_TOKEN, ID, 2), 0), 4);
    EXPECT_THAT(log.messages(HANDLER), ElementsAre("[CRC:] Recvive webToken request body err."));
    EXPECT_TRUE(nothing_was_sent());
}

TEST_F(WebTokenTest, FailsWhenTheRelayClosesBeforeTheBody) {
    session.relay.close_notify();
    EXPECT_EQ(handle(header_bytes(PACKET_WEB_TOKEN, ID, 2)), 9);
    EXPECT_THAT(log.lines(), Contains(error_line(HANDLER, "[CRC:] socket closed by peer")));
}

// Reading nothing looks like the end of the connection.
TEST_F(WebTokenTest, ARequestWithoutBodyCountsAsClosed) {
    EXPECT_EQ(handle(header_bytes(PACKET_WEB_TOKEN, ID, 0)), 9);
    EXPECT_TRUE(nothing_was_sent());
}

TEST_F(WebTokenTest, DropsARequestWhoseBodyArrivesShort) {
    session.relay.send("{\"na");
    session.relay.close(); // without a goodbye
    EXPECT_EQ(handle(header_bytes(PACKET_WEB_TOKEN, ID, 16)), 0);
    EXPECT_THAT(log.messages(HANDLER), ElementsAre("[CRC:] Bad request."));
    EXPECT_THAT(log.messages("_cloud_web_token_response_handle"), testing::IsEmpty());
}

TEST_F(WebTokenTest, DoesNotMindThatTheReplyCannotBeSent) {
    session.relay.send(BODY);
    session.relay.reset();
    ASSERT_TRUE(session.relay.is_done());
    int result = handle(header_bytes(PACKET_WEB_TOKEN, ID, sizeof BODY - 1));
    EXPECT_THAT(result, testing::AnyOf(0, 9)) << "the reset may overtake the body";
}

} // namespace
