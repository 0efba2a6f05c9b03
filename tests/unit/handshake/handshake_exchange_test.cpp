// The handshake over a TLS connection to a relay that the test plays.

#include "core/session_notice.h"

#include <atomic>
#include <gmock/gmock.h>
#include <optional>
#include <string>
#include <thread>

#include "core/cloud_cycle_record.h"
#include "handshake/hello_cloud.h"
#include "support/eventually.h"
#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "support/namespaces.h"
#include "support/packet.h"
#include "support/relay_session.h"
#include "transport/cloud_socket.h"
#include "unit/handshake/offered_identity.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;

namespace {

const bool isPrivate = private_namespaces();

constexpr char HANDSHAKE[] = "cloud_handshake_svr";
constexpr char GENERATE_JSON[] = "cloud_handshake_generate_hellocloud_json";
constexpr char GENERATE_PACKET[] = "cloud_handshake_generate_hellocloud_pkt";
constexpr char PARSE[] = "cloud_handshake_parse_svr_response";
constexpr uint16_t HELLO = 1;

class handshake : public testing::Test {
protected:
    void SetUp() override {
        offered = {};
        offer_identity(session.cycle);
        log.clear();
    }

    int shake_hands() { return cloud_handshake_svr(session.cycle); }

    // The result of an exchange in which the relay answers with these bytes.
    int answered_with(const std::string& bytes) {
        session.relay.send(bytes);
        return shake_hands();
    }

    int answered_with(const packet& answer) { return answered_with(packet_bytes(answer)); }

    // The relay's end of a finished exchange: nothing came.
    void expect_nothing_sent() {
        session.disconnect();
        EXPECT_EQ(session.relay.read_exact(1), "");
    }

    // The lines of the log macro, without the packet headers that are printed between them.
    std::vector<log_line> logged() {
        std::vector<log_line> lines;
        for (const log_line& line : log.lines()) {
            if (line.kind != line_kind::plain && line.function.starts_with("cloud_handshake")) {
                lines.push_back(line);
            }
        }
        return lines;
    }

    log_capture log;
    relay_session session;
};

TEST_F(handshake, sends_one_packet_of_type_1_with_the_identity_and_nothing_else) {
    EXPECT_EQ(answered_with({HELLO, 0, R"({"err_code":0})"}), 0);
    EXPECT_EQ(session.relay.read_packet(), (packet{HELLO, 0, OFFERED_BODY}));
    expect_nothing_sent();
}

TEST_F(handshake, is_told_in_the_log_step_by_step) {
    EXPECT_EQ(answered_with({HELLO, 0, R"({"err_code":0})"}), 0);
    EXPECT_THAT(
        logged(),
        ElementsAre(
            info_line(GENERATE_PACKET, "[CRC:] parse req: B00B"),
            info_line(GENERATE_PACKET, "[CRC:] parse req: 1"),
            info_line(GENERATE_PACKET, "[CRC:] parse req: 0"),
            info_line(GENERATE_PACKET, "[CRC:] parse req: 0"),
            info_line(GENERATE_PACKET, "[CRC:] parse req: " + std::to_string(strlen(OFFERED_BODY))),
            info_line(GENERATE_PACKET, std::string("[CRC:] parse req: ") + OFFERED_BODY),
            info_line(HANDSHAKE, "[CRC:] recv hello-pkt from relay-svr.")));
    EXPECT_THAT(offered.verdicts, ElementsAre(0));
}

TEST_F(handshake, carries_an_identity_with_quotes_and_foreign_letters_byte_for_byte) {
    offered.deviceId = "\"\xC3\xA9\\\n";
    offered.token = nullptr;
    EXPECT_EQ(answered_with({HELLO, 0, R"({"err_code":0})"}), 0);
    packet hello = session.relay.read_packet();
    EXPECT_EQ(hello.body, "{\"deviceId\":\"\\\"\xC3\xA9\\\\\\n\",\"deviceMac\":\"A1B2C3D4E5F6\","
                          "\"firmwareId\":\"FIRMWARE-7\",\"token\":\"\"}");
    expect_nothing_sent();
}

TEST_F(handshake, looks_neither_at_the_identifier_nor_at_the_reserve_of_the_answer) {
    EXPECT_EQ(answered_with({HELLO, 0x1234, R"({"err_code":0})", 0x5678}), 0);
}

TEST_F(handshake, leaves_what_follows_the_answer_on_the_connection) {
    session.relay.send(packet_bytes({HELLO, 0, R"({"err_code":0})"}) + "NEXT");
    EXPECT_EQ(shake_hands(), 0);
    char next[5] = {};
    EXPECT_EQ(cloud_socket_recv_buf(session.cycle->cloudSocket, next, 4, PATIENCE_MS), 4);
    EXPECT_STREQ(next, "NEXT");
}

TEST_F(handshake, an_answer_of_another_type_fails_even_with_code_0) {
    EXPECT_EQ(answered_with({4, 0, R"({"err_code":0})"}), -1);
    EXPECT_THAT(logged(),
                IsSupersetOf({error_line(PARSE, "[CRC:] Response type error."),
                              error_line(HANDSHAKE, "[CRC:] svr response parse error.")}));
    EXPECT_THAT(offered.verdicts, IsEmpty());
}

TEST_F(handshake, code_7_is_logged_reaches_the_verdict_hook_and_fails) {
    EXPECT_EQ(answered_with({HELLO, 0, R"({"err_code":7})"}), -1);
    EXPECT_TRUE(log.has(error_line(PARSE, "[CRC:] Error code of response : 7")));
    EXPECT_FALSE(log.has(error_line(HANDSHAKE, "[CRC:] svr response parse error.")));
    EXPECT_THAT(offered.verdicts, ElementsAre(7));
}

TEST_F(handshake, the_daemons_own_hook_prints_the_code) {
    session.cycle->response_hellocloud = zemc_recv_response_of_hello_cloud_v2;
    EXPECT_EQ(answered_with({HELLO, 0, R"({"err_code":7})"}), -1);
    EXPECT_TRUE(log.has(plain_line("response->errorcode is 7")));
}

TEST_F(handshake, an_answer_that_is_no_json_or_has_no_code_fails) {
    EXPECT_EQ(answered_with({HELLO, 0, "welcome"}), -1);
    EXPECT_EQ(answered_with({HELLO, 0, ""}), -1);
    EXPECT_EQ(answered_with({HELLO, 0, "{}"}), -1);
    constexpr char NO_VERDICT[] = "[CRC:] svr response parse error.";
    std::vector<log_line> errors = logged();
    std::erase_if(errors, [](const log_line& line) { return line.kind != line_kind::error; });
    EXPECT_THAT(errors, ElementsAre(error_line(PARSE, "[CRC:] Parse response error."),
                                    error_line(HANDSHAKE, NO_VERDICT),
                                    error_line(PARSE, "[CRC:] Parse response error."),
                                    error_line(HANDSHAKE, NO_VERDICT),
                                    error_line(PARSE, "[CRC:] Parse errorcode error."),
                                    error_line(HANDSHAKE, NO_VERDICT)));
    EXPECT_THAT(offered.verdicts, IsEmpty());
}

TEST_F(handshake, a_code_behind_a_zero_byte_does_not_count) {
    EXPECT_EQ(answered_with({HELLO, 0, std::string("{}\0{\"err_code\":0}", 17)}), -1);
    EXPECT_TRUE(log.has(error_line(PARSE, "[CRC:] Parse errorcode error.")));
}

TEST_F(handshake, an_answer_of_a_megabyte_is_read_whole) {
    std::string padding(1 << 20, 'x');
    EXPECT_EQ(answered_with({HELLO, 0, R"({"msg":")" + padding + R"(","err_code":0})"}), 0);
}

TEST_F(handshake, without_a_request_sends_nothing_and_says_so_three_times) {
    offered.isThere = false;
    EXPECT_EQ(shake_hands(), 100);
    EXPECT_THAT(
        log.lines(),
        ElementsAre(
            error_line(GENERATE_JSON, "[CRC:] Fail to get the request string of hellocloud."),
            error_line(GENERATE_PACKET, "Ensure NULL != reqJson failed."),
            error_line(HANDSHAKE, "[CRC:] generate hellocloud with authCode error.")));
    expect_nothing_sent();
}

TEST_F(handshake, refuses_a_null_cycle) {
    EXPECT_EQ(cloud_handshake_svr(nullptr), 100);
    EXPECT_THAT(log.lines(), ElementsAre(error_line(HANDSHAKE, "Ensure NULL != cycle failed.")));
}

// --- The connection fails

TEST_F(handshake, on_a_closed_connection_gives_the_code_of_the_send) {
    session.disconnect();
    EXPECT_EQ(shake_hands(), 9);
    EXPECT_TRUE(log.has(error_line(HANDSHAKE, "[CRC:] socket send error.")));
}

TEST_F(handshake, with_a_relay_that_says_goodbye_gives_the_code_of_the_receive) {
    session.relay.close_notify();
    EXPECT_EQ(shake_hands(), 9);
    EXPECT_TRUE(log.has(error_line(HANDSHAKE, "[CRC:] socket recv error.")));
}

TEST_F(handshake, with_a_relay_that_ends_within_the_answer_fails) {
    std::string half = packet_bytes({HELLO, 0, R"({"err_code":0})"}).substr(0, 20);
    session.relay.send(half);
    session.relay.close_notify();
    EXPECT_NE(shake_hands(), 0);
    EXPECT_THAT(offered.verdicts, IsEmpty());
}

TEST_F(handshake, with_a_wrong_magic_number_gives_the_code_of_the_receive) {
    EXPECT_EQ(answered_with({HELLO, 0, R"({"err_code":0})", 0, 0x0BB0}), 10);
    EXPECT_TRUE(log.has(error_line(HANDSHAKE, "[CRC:] socket recv error.")));
}

TEST_F(handshake, waits_five_seconds_for_the_answer_and_no_longer) {
    moved_clock clock;
    std::atomic<int> result = 1;
    std::thread worker([&] { result = shake_hands(); });
    session.relay.read_packet(); // from now on the device waits
    clock.move(4000);
    EXPECT_FALSE(eventually([&] { return result != 1; }, std::chrono::milliseconds(200)));
    clock.move(1001);
    EXPECT_TRUE(eventually([&] { return result != 1; }));
    worker.join();
    EXPECT_EQ(result, 4);
    EXPECT_TRUE(log.has(error_line(HANDSHAKE, "[CRC:] socket recv error.")));
}

// --- Memory is short

TEST_F(handshake, without_memory_for_the_packet_sends_nothing) {
    {
        fail_call noMemory("calloc", 2); // after the request record
        EXPECT_EQ(shake_hands(), 101);
        EXPECT_TRUE(noMemory.happened());
    }
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line(HANDSHAKE, "[CRC:] generate hellocloud with authCode "
                                                  "error.")));
    expect_nothing_sent();
}

TEST_F(handshake, without_memory_for_the_answer_gives_the_code_of_the_receive) {
    fail_call noMemory("calloc", 3); // after the request record and the packet
    EXPECT_EQ(answered_with({HELLO, 0, R"({"err_code":0})"}), 101);
    EXPECT_TRUE(log.has(error_line(HANDSHAKE, "[CRC:] socket recv error.")));
}

TEST_F(handshake, without_memory_for_the_verdict_fails) {
    session.relay.send(packet_bytes({HELLO, 0, R"({"err_code":0})"}));
    fail_call noMemory("malloc", 1);
    EXPECT_EQ(shake_hands(), -1);
    EXPECT_TRUE(log.has(error_line(PARSE, "[CRC:] ResStruct malloc error.")));
    EXPECT_TRUE(log.has(error_line(HANDSHAKE, "[CRC:] svr response parse error.")));
    EXPECT_THAT(offered.verdicts, IsEmpty());
}

TEST_F(handshake, releases_all_of_its_json_whichever_block_of_it_is_refused) {
    for (int failing = 1;; failing++) {
        ASSERT_LT(failing, 200);
        json_memory memory(failing);
        session.relay.send(packet_bytes({HELLO, 0, R"({"err_code":0})"}));
        int result = shake_hands();
        EXPECT_EQ(memory.live, 0) << "allocation " << failing;
        if (!memory.happened()) {
            EXPECT_EQ(result, 0);
            break;
        }
        // Nothing was sent and the answer is still to come, or the answer could not be read.
        EXPECT_TRUE(result == 100 || result == -1) << result;
        if (result == 100) {
            uint8_t answer[HEADER_BYTES + 14] = {};
            EXPECT_EQ(cloud_socket_recv_buf(session.cycle->cloudSocket, answer, sizeof answer,
                                            PATIENCE_MS),
                      static_cast<int>(sizeof answer));
        }
    }
}

} // namespace
