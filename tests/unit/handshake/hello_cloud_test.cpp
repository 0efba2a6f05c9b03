#include "handshake/hello_cloud.h"

#include <cstdlib>
#include <cstring>
#include <gmock/gmock.h>
#include <memory>
#include <string>

#include "core/device_identity.h"
#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "support/namespaces.h"

using testing::Contains;
using testing::ElementsAre;
using testing::Not;

// Getters that never fail, or never give what the builder guards against, can be replaced here.
extern "C" {
int __real__Z10sysFwIdGetPci(char* dst, int len);
int __wrap__Z10sysFwIdGetPci(char* dst, int len);
int __real__Z9sysMacGetPc(char* dst);
int __wrap__Z9sysMacGetPc(char* dst);
int __real__Z19getCloudClientTokenPci(char* dst, int size);
int __wrap__Z19getCloudClientTokenPci(char* dst, int size);
}

namespace {

struct getters {
    bool firmwareFails = false;
    const char* mac = nullptr;         // instead of the device's
    const char* leftByToken = nullptr; // what a failing token lookup writes before it fails
};
getters replaced;

} // namespace

int __wrap__Z10sysFwIdGetPci(char* dst, int len) {
    return replaced.firmwareFails ? -1 : __real__Z10sysFwIdGetPci(dst, len);
}

int __wrap__Z9sysMacGetPc(char* dst) {
    if (replaced.mac == nullptr) {
        return __real__Z9sysMacGetPc(dst);
    }
    strcpy(dst, replaced.mac);
    return 0;
}

int __wrap__Z19getCloudClientTokenPci(char* dst, int size) {
    if (replaced.leftByToken == nullptr) {
        return __real__Z19getCloudClientTokenPci(dst, size);
    }
    strcpy(dst, replaced.leftByToken);
    return -1;
}

namespace {

const bool isPrivate = private_namespaces();

constexpr char BUILD[] = "zemc_build_request_of_hello_cloud_v2";
const std::string NO_DEVICE_ID(40, '0');
const std::string NO_TOKEN(32, '0');

struct request_deleter {
    void operator()(hello_cloud_request_t* request) const { hello_cloud_request_free(request); }
};
using request_ptr = std::unique_ptr<hello_cloud_request_t, request_deleter>;

class hello_cloud : public testing::Test {
protected:
    void SetUp() override {
        replaced = {};
        // Notes its arguments and prints what is there for the method, its second word after
        // "call".
        install_program("ubus", "folder=" + scratch_path("ubus") + R"(
            echo "$*" >>$folder/calls
            while [ "$1" != call ]; do shift; done
            cat $folder/$3)");
        write_file(scratch_path("ubus/calls"), "");
        strcpy(gDevInfo.mac, "A1B2C3D4E5F6");
        strcpy(gDevInfo.fwId, "FIRMWARE-7");
        answer("get_device_id", R"({"device_id": "DEVICE-9"})");
        answer("get_device_token", R"({"device_token": "TOKEN-5"})");
    }

    void TearDown() override { gDevInfo = initial; }

    // What the `ubus` tool prints for a method.
    void answer(const std::string& method, const std::string& text) {
        write_file(scratch_path("ubus/" + method), text);
    }

    std::string calls() { return read_file(scratch_path("ubus/calls")); }

    // Builds a request and keeps what was logged meanwhile.
    request_ptr build() {
        log_capture log;
        auto* stale = reinterpret_cast<hello_cloud_request_t*>(&replaced); // must be overwritten
        zemc_build_request_of_hello_cloud_v2(&stale);
        logged = log.lines();
        return request_ptr(stale);
    }

    const device_info_t initial = gDevInfo;
    std::vector<log_line> logged;
};

TEST_F(hello_cloud, carries_the_four_texts_of_the_identity) {
    request_ptr request = build();
    ASSERT_NE(request, nullptr);
    EXPECT_STREQ(request->deviceId, "DEVICE-9");
    EXPECT_STREQ(request->deviceMac, "A1B2C3D4E5F6");
    EXPECT_STREQ(request->firmwareId, "FIRMWARE-7");
    EXPECT_STREQ(request->token, "TOKEN-5");
}

TEST_F(hello_cloud, logs_the_token_and_then_the_whole_identity) {
    build();
    EXPECT_THAT(logged, ElementsAre(info_line(BUILD, "Begain to get_available_token"),
                                    info_line(BUILD, "get_available_token done: TOKEN-5\n"),
                                    info_line(BUILD, "DEVICE-9 FIRMWARE-7 A1B2C3D4E5F6 TOKEN-5")));
}

TEST_F(hello_cloud, asks_the_cloud_client_service_for_the_id_and_then_for_the_token) {
    build();
    EXPECT_EQ(calls(), "-t 5 call cloudclient get_device_id\n"
                       "-t 5 call cloudclient get_device_token\n");
}

TEST_F(hello_cloud, an_id_of_erased_flash_becomes_forty_zeros) {
    answer("get_device_id", "{\"device_id\": \"\xFF\xFF\xFF\xFF\xFF\"}");
    request_ptr request = build();
    EXPECT_EQ(request->deviceId, NO_DEVICE_ID);
    EXPECT_THAT(logged, Contains(error_line(BUILD, "[HELL_CLOUD_PKT_GEN]: DeviceId invalid.\r\n")));
}

TEST_F(hello_cloud, three_bytes_of_erased_flash_are_enough) {
    answer("get_device_id", "{\"device_id\": \"\xFF\xFF\xFF-REST\"}");
    EXPECT_EQ(build()->deviceId, NO_DEVICE_ID);
}

TEST_F(hello_cloud, two_bytes_of_erased_flash_are_an_id) {
    answer("get_device_id", "{\"device_id\": \"\xFF\xFFZ\"}");
    EXPECT_STREQ(build()->deviceId, "\xFF\xFFZ");
    EXPECT_THAT(logged, Not(Contains(error_line(BUILD, testing::HasSubstr("DeviceId invalid")))));
}

TEST_F(hello_cloud, a_failed_id_lookup_leaves_the_id_empty_without_a_message_of_the_builder) {
    answer("get_device_id", "Command failed: Not found");
    request_ptr request = build();
    EXPECT_STREQ(request->deviceId, "");
    EXPECT_STREQ(request->token, "TOKEN-5");
    EXPECT_THAT(logged, Contains(error_line("getDeviceIdByUbus", "get jsonrpc obj failed.\n")));
    EXPECT_THAT(logged, Not(Contains(error_line(BUILD, testing::_))));
}

TEST_F(hello_cloud, an_id_of_127_characters_is_carried_whole_and_a_longer_one_is_no_id) {
    const std::string longest(127, 'x');
    answer("get_device_id", R"({"device_id": ")" + longest + R"("})");
    EXPECT_EQ(build()->deviceId, longest);
    answer("get_device_id", R"({"device_id": ")" + longest + R"(y"})");
    EXPECT_STREQ(build()->deviceId, "");
}

TEST_F(hello_cloud, an_id_that_is_a_number_is_carried_as_its_text) {
    answer("get_device_id", R"({"device_id": 40213})");
    EXPECT_STREQ(build()->deviceId, "40213");
}

TEST_F(hello_cloud, a_failed_firmware_lookup_gives_32_zeros) {
    replaced.firmwareFails = true;
    EXPECT_EQ(build()->firmwareId, std::string(32, '0'));
    EXPECT_THAT(logged, Contains(error_line(BUILD, "[HELL_CLOUD_PKT_GEN]: fwid invalid.\r\n")));
}

TEST_F(hello_cloud, a_firmware_id_of_63_characters_is_carried_whole) {
    const std::string longest(DEVICE_TEXT_SIZE - 1, 'f');
    strcpy(gDevInfo.fwId, longest.c_str());
    EXPECT_EQ(build()->firmwareId, longest);
}

TEST_F(hello_cloud, without_factory_information_mac_and_firmware_are_zeros) {
    gDevInfo = initial;
    request_ptr request = build();
    EXPECT_STREQ(request->deviceMac, "000000000000");
    EXPECT_EQ(request->firmwareId, std::string(32, '0'));
}

TEST_F(hello_cloud, a_shorter_mac_still_fills_thirteen_bytes) {
    strcpy(gDevInfo.mac, "A1B2");
    request_ptr request = build();
    EXPECT_EQ(std::string(request->deviceMac, DEVICE_MAC_SIZE),
              std::string("A1B2") + std::string(DEVICE_MAC_SIZE - 4, '\0'));
}

TEST_F(hello_cloud, a_longer_mac_is_cut_to_twelve_characters) {
    replaced.mac = "A1:B2:C3:D4:E5:F6";
    EXPECT_STREQ(build()->deviceMac, "A1:B2:C3:D4:");
}

TEST_F(hello_cloud, a_failed_token_lookup_gives_32_zeros) {
    answer("get_device_token", "");
    request_ptr request = build();
    EXPECT_EQ(request->token, NO_TOKEN);
    EXPECT_THAT(logged, Contains(error_line(BUILD, "[HELL_CLOUD_PKT_GEN]: Get token err.")));
    EXPECT_THAT(logged, Contains(info_line(BUILD, "get_available_token done: " + NO_TOKEN + "\n")));
}

TEST_F(hello_cloud, what_a_failing_token_lookup_left_behind_is_used) {
    replaced.leftByToken = "HALF";
    EXPECT_STREQ(build()->token, "HALF");
    EXPECT_THAT(logged, Contains(error_line(BUILD, "[HELL_CLOUD_PKT_GEN]: Get token err.")));
}

TEST_F(hello_cloud, an_empty_token_is_a_token) {
    answer("get_device_token", R"({"device_token": ""})");
    EXPECT_STREQ(build()->token, "");
    EXPECT_THAT(logged, Not(Contains(error_line(BUILD, testing::_))));
}

TEST_F(hello_cloud, a_token_is_cut_to_127_characters) {
    const std::string longest(127, 't');
    answer("get_device_token", R"({"device_token": ")" + longest + R"(uvw"})");
    EXPECT_EQ(build()->token, longest);
}

TEST_F(hello_cloud, percent_signs_in_the_identity_are_only_text) {
    answer("get_device_id", R"({"device_id": "%s%n%d"})");
    EXPECT_STREQ(build()->deviceId, "%s%n%d");
    EXPECT_THAT(logged, Contains(info_line(BUILD, "%s%n%d FIRMWARE-7 A1B2C3D4E5F6 TOKEN-5")));
}

TEST_F(hello_cloud, without_a_place_for_the_request_only_logs) {
    log_capture log;
    fail_call noMemory("calloc", 1);
    zemc_build_request_of_hello_cloud_v2(nullptr);
    EXPECT_THAT(log.lines(), ElementsAre(error_line(BUILD, "Ensure NULL != request failed.")));
    EXPECT_FALSE(noMemory.happened()); // nothing was allocated
    EXPECT_EQ(calls(), "");
}

// The record, then the device id, the firmware id and the MAC address, each a block of its own.
class hello_cloud_out_of_memory : public hello_cloud, public testing::WithParamInterface<int> {};

TEST_P(hello_cloud_out_of_memory, releases_what_was_built_and_gives_no_request) {
    fail_call noMemory("calloc", GetParam());
    EXPECT_EQ(build(), nullptr);
    EXPECT_TRUE(noMemory.happened());
    EXPECT_THAT(logged, ElementsAre(error_line(BUILD, "[HELL_CLOUD_PKT_GEN]: Out of Memory.\r\n")));
}

INSTANTIATE_TEST_SUITE_P(each_block_before_the_token, hello_cloud_out_of_memory,
                         testing::Range(1, 5));

TEST_F(hello_cloud, without_memory_for_the_token_releases_the_rest_and_gives_no_request) {
    fail_call noMemory("calloc", 5);
    EXPECT_EQ(build(), nullptr);
    EXPECT_TRUE(noMemory.happened());
    EXPECT_THAT(logged, ElementsAre(info_line(BUILD, "Begain to get_available_token"),
                                    info_line(BUILD, "get_available_token done: TOKEN-5\n"),
                                    error_line(BUILD, "[HELL_CLOUD_PKT_GEN]: Out of Memory.")));
}

TEST_F(hello_cloud, without_a_process_for_the_lookups_goes_on_with_defaults) {
    fail_call noProcess("posix_spawn", 1);
    request_ptr request = build();
    ASSERT_NE(request, nullptr);
    EXPECT_TRUE(noProcess.happened());
    EXPECT_STREQ(request->deviceId, "");
    EXPECT_STREQ(request->token, "TOKEN-5");
}

TEST(hello_cloud_verdict, is_printed_plainly_between_two_rules) {
    const std::string rule(66, '-');
    for (int code : {0, 7, -2147483647 - 1}) {
        log_capture log;
        hello_cloud_response_t response = {code};
        EXPECT_GE(zemc_recv_response_of_hello_cloud_v2(&response), 0);
        EXPECT_EQ(log.text(), rule + "\nzemc_recv_response_of_hello_cloud_v2\n" +
                                  "response->errorcode is " + std::to_string(code) + "\n" + rule +
                                  "\n");
    }
}

TEST(hello_cloud_request, can_be_freed_when_null_empty_or_half_made) {
    hello_cloud_request_free(nullptr);
    auto empty = static_cast<hello_cloud_request_t*>(calloc(1, sizeof(hello_cloud_request_t)));
    hello_cloud_request_free(empty);
    auto half = static_cast<hello_cloud_request_t*>(calloc(1, sizeof(hello_cloud_request_t)));
    half->firmwareId = strdup("FIRMWARE-7");
    hello_cloud_request_free(half); // the leak checker sees the text go
}

} // namespace
