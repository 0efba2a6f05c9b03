#include "handshake/handshake.h"

#include <cjson/cJSON.h>
#include <cstdlib>
#include <cstring>
#include <gmock/gmock.h>
#include <memory>
#include <string>

#include "core/cloud_cycle_record.h"
#include "handshake/hello_cloud.h"
#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "support/packet.h"
#include "unit/handshake/offered_identity.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr char GENERATE_JSON[] = "cloud_handshake_generate_hellocloud_json";
constexpr char GENERATE_PACKET[] = "cloud_handshake_generate_hellocloud_pkt";
constexpr char PARSE[] = "cloud_handshake_parse_svr_response";
constexpr uint16_t HELLO = 1;

struct json_deleter {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using json_ptr = std::unique_ptr<cJSON, json_deleter>;

struct free_deleter {
    void operator()(void* block) const { free(block); }
};

std::string print_json(const json_ptr& json) {
    char* text = cJSON_PrintUnformatted(json.get());
    std::string copied = text == nullptr ? "" : text;
    cJSON_free(text);
    return copied;
}

class handshake_step : public testing::Test {
protected:
    void SetUp() override {
        offered = {};
        offer_identity(&cycle);
    }

    json_ptr generate() { return json_ptr(cloud_handshake_generate_hellocloud_json(&cycle)); }

    // Judges an answer with this body.
    int parse(const std::string& body, uint16_t type = HELLO) {
        std::string answer = packet_bytes({type, 0, body});
        hello_cloud_response_t* response = nullptr;
        int result = cloud_handshake_parse_svr_response(
            &cycle, reinterpret_cast<const uint8_t*>(answer.c_str()), &response);
        verdict.reset(response);
        return result;
    }

    cloud_cycle_t cycle = {};
    std::unique_ptr<hello_cloud_response_t, free_deleter> verdict;
    log_capture log;
};

TEST_F(handshake_step, the_request_is_described_as_a_packet_with_the_identity_as_its_body) {
    json_ptr packet = generate();
    std::string entity = OFFERED_BODY;
    for (size_t at = 0; (at = entity.find('"', at)) != std::string::npos; at += 2) {
        entity.insert(at, "\\");
    }
    EXPECT_EQ(print_json(packet),
              R"({"MagicNumber":45067,"DataType":1,"ID":0,"Reserve":0,"DataLen":)" +
                  std::to_string(strlen(OFFERED_BODY)) + R"(,"DataEntity":")" + entity + R"("})");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(handshake_step, a_field_that_is_null_is_sent_as_the_empty_text) {
    offered = {true, nullptr, nullptr, nullptr, nullptr, {}};
    json_ptr packet = generate();
    EXPECT_STREQ(cJSON_GetObjectItem(packet.get(), "DataEntity")->valuestring,
                 R"({"deviceId":"","deviceMac":"","firmwareId":"","token":""})");
}

TEST_F(handshake_step, the_length_counts_bytes_after_escaping) {
    offered.deviceId = "a\"b\\c\n\xC3\xA9";
    json_ptr packet = generate();
    const std::string body = "{\"deviceId\":\"a\\\"b\\\\c\\n\xC3\xA9\","
                             "\"deviceMac\":\"A1B2C3D4E5F6\",\"firmwareId\":\"FIRMWARE-7\","
                             "\"token\":\"TOKEN-5\"}";
    EXPECT_EQ(cJSON_GetObjectItem(packet.get(), "DataEntity")->valuestring, body);
    EXPECT_EQ(cJSON_GetObjectItem(packet.get(), "DataLen")->valueint,
              static_cast<int>(body.size()));
}

TEST_F(handshake_step, without_a_request_there_is_no_packet) {
    offered.isThere = false;
    EXPECT_EQ(generate(), nullptr);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line(GENERATE_JSON,
                                       "[CRC:] Fail to get the request string of hellocloud.")));
}

TEST_F(handshake_step, no_shortage_of_memory_in_building_json_goes_unnoticed_or_leaks) {
    const std::string whole = print_json(generate());
    bool printFailed = false;
    for (int failing = 1;; failing++) {
        ASSERT_LT(failing, 100);
        log.clear();
        auto memory = std::make_unique<json_memory>(failing);
        json_ptr packet = generate();
        bool happened = memory->happened();
        memory.reset();
        if (!happened) {
            EXPECT_EQ(print_json(packet), whole);
            break;
        }
        EXPECT_EQ(packet, nullptr) << "allocation " << failing;
        EXPECT_EQ(json_memory::live, 0) << "allocation " << failing;
        bool print =
            log.has(error_line(GENERATE_JSON, "[CRC:] Transfer from json to string error."));
        printFailed |= print;
        EXPECT_TRUE(print ||
                    log.has(error_line(GENERATE_JSON, "[CRC:] Fail to create json object.")));
    }
    EXPECT_TRUE(printFailed);
}

TEST_F(handshake_step, the_packet_is_header_body_and_one_zero_byte) {
    json_ptr json = generate();
    uint8_t* block = nullptr;
    size_t length = 0;
    ASSERT_EQ(cloud_handshake_generate_hellocloud_pkt(json.get(), &block, &length), 0);
    std::unique_ptr<uint8_t, free_deleter> packet(block);
    EXPECT_EQ(length, strlen(OFFERED_BODY) + HEADER_BYTES);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(block), length + 1),
              packet_bytes({HELLO, 0, OFFERED_BODY}) + std::string(1, '\0'));
    EXPECT_THAT(
        log.lines(),
        ElementsAre(
            info_line(GENERATE_PACKET, "[CRC:] parse req: B00B"),
            info_line(GENERATE_PACKET, "[CRC:] parse req: 1"),
            info_line(GENERATE_PACKET, "[CRC:] parse req: 0"),
            info_line(GENERATE_PACKET, "[CRC:] parse req: 0"),
            info_line(GENERATE_PACKET, "[CRC:] parse req: " + std::to_string(strlen(OFFERED_BODY))),
            info_line(GENERATE_PACKET, std::string("[CRC:] parse req: ") + OFFERED_BODY)));
}

TEST_F(handshake_step, the_bodys_text_is_released_once_it_is_in_the_packet) {
    json_ptr json = generate();
    uint8_t* block = nullptr;
    size_t length = 0;
    ASSERT_EQ(cloud_handshake_generate_hellocloud_pkt(json.get(), &block, &length), 0);
    free(block);
    EXPECT_EQ(cJSON_GetObjectItem(json.get(), "DataEntity")->valuestring, nullptr);
}

TEST_F(handshake_step, the_header_holds_what_its_description_says) {
    json_ptr json(cJSON_Parse(R"({"MagicNumber":4660,"DataType":258,"ID":65534,"Reserve":513,)"
                              R"("DataLen":3,"DataEntity":"abc"})"));
    uint8_t* block = nullptr;
    size_t length = 0;
    ASSERT_EQ(cloud_handshake_generate_hellocloud_pkt(json.get(), &block, &length), 0);
    std::unique_ptr<uint8_t, free_deleter> packet(block);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(block), length),
              packet_bytes({258, 65534, "abc", 513, 4660}));
}

TEST_F(handshake_step, without_a_description_there_is_nothing_to_pack) {
    uint8_t* block = nullptr;
    size_t length = 0;
    EXPECT_EQ(cloud_handshake_generate_hellocloud_pkt(nullptr, &block, &length), 100);
    EXPECT_EQ(block, nullptr);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line(GENERATE_PACKET, "Ensure NULL != reqJson failed.")));
}

struct member {
    const char* key;
    const char* lookup;
};

class handshake_missing_member : public handshake_step,
                                 public testing::WithParamInterface<member> {};

TEST_P(handshake_missing_member, fails_the_packet_and_is_named_by_its_lookup) {
    json_ptr json = generate();
    cJSON_DeleteItemFromObject(json.get(), GetParam().key);
    uint8_t* block = nullptr;
    size_t length = 0;
    EXPECT_EQ(cloud_handshake_generate_hellocloud_pkt(json.get(), &block, &length), -1);
    EXPECT_EQ(block, nullptr);
    std::string call = std::string("(NULL == (") + GetParam().lookup + ")))";
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line(GENERATE_PACKET, "E - 1 call " + call + " failed.")));
}

INSTANTIATE_TEST_SUITE_P(
    of_the_six, handshake_missing_member,
    testing::Values(
        member{"MagicNumber", "innerMagicNumberJson = cJSON_GetObjectItem(reqJson, "
                              "CRC_PKT_HDR_STR_MAGIC_NUMBER_STR"},
        member{"DataType",
               "innerDataTypeJson = cJSON_GetObjectItem(reqJson, CRC_PKT_HDR_STR_DATA_TYPE_STR"},
        member{"ID", "innerIdJson = cJSON_GetObjectItem(reqJson, CRC_PKT_HDR_STR_ID_STR"},
        member{"Reserve", "innerResvJson = cJSON_GetObjectItem(reqJson, CRC_PKT_HDR_STR_RESV_STR"},
        member{"DataLen",
               "innerDataLenJson = cJSON_GetObjectItem(reqJson, CRC_PKT_HDR_STR_DATA_LEN_STR"},
        member{"DataEntity", "innerDataEntityJson = cJSON_GetObjectItem(reqJson, "
                             "CRC_PKT_HDR_STR_DATA_ENTITY_STR"}),
    [](const auto& test) { return test.param.key; });

TEST_F(handshake_step, of_several_missing_members_the_first_is_named) {
    json_ptr json(cJSON_Parse(R"({"MagicNumber":45067,"DataEntity":"{}"})"));
    uint8_t* block = nullptr;
    size_t length = 0;
    EXPECT_EQ(cloud_handshake_generate_hellocloud_pkt(json.get(), &block, &length), -1);
    EXPECT_THAT(log.lines(), ElementsAre(error_line(GENERATE_PACKET, HasSubstr("DATA_TYPE"))));
}

TEST_F(handshake_step, without_memory_for_the_packet_fails_silently) {
    json_ptr json = generate();
    fail_call noMemory("calloc", 1);
    uint8_t* block = nullptr;
    size_t length = 0;
    EXPECT_EQ(cloud_handshake_generate_hellocloud_pkt(json.get(), &block, &length), 101);
    EXPECT_EQ(block, nullptr);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(handshake_step, code_0_is_acceptance) {
    EXPECT_EQ(parse(R"({"err_code":0,"msg":"welcome"})"), 0);
    ASSERT_NE(verdict, nullptr);
    EXPECT_EQ(verdict->errorcode, 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(handshake_step, any_other_code_is_a_refusal_and_is_handed_on) {
    for (int code : {7, -1, 2147483647, -2147483647 - 1}) {
        log.clear();
        EXPECT_EQ(parse(R"({"err_code":)" + std::to_string(code) + "}"), -1);
        ASSERT_NE(verdict, nullptr);
        EXPECT_EQ(verdict->errorcode, code);
        EXPECT_THAT(log.lines(), ElementsAre(error_line(PARSE, "[CRC:] Error code of response : " +
                                                                   std::to_string(code))));
    }
}

TEST_F(handshake_step, a_code_counts_by_its_integer_value) {
    EXPECT_EQ(parse(R"({"err_code":0.9})"), 0);
    EXPECT_EQ(parse(R"({"err_code":1e99})"), -1);
}

TEST_F(handshake_step, only_a_packet_of_type_1_is_an_answer) {
    for (uint16_t type : {0, 2, 3, 4, 5, 6, 0x0100, 0x0101}) {
        log.clear();
        EXPECT_EQ(parse(R"({"err_code":0})", type), -1);
        EXPECT_EQ(verdict, nullptr);
        EXPECT_THAT(log.lines(), ElementsAre(error_line(PARSE, "[CRC:] Response type error.")));
    }
}

TEST_F(handshake_step, a_body_that_is_no_json_is_no_answer) {
    for (const char* body : {"", "welcome", "{\"err_code\":", "{err_code:0}"}) {
        log.clear();
        EXPECT_EQ(parse(body), -1);
        EXPECT_EQ(verdict, nullptr);
        EXPECT_THAT(log.lines(), ElementsAre(error_line(PARSE, "[CRC:] Parse response error.")));
    }
}

TEST_F(handshake_step, json_without_a_numeric_code_is_no_answer) {
    for (const char* body : {"{}", R"({"errcode":0})", "[0]", "0", R"({"err_code":"0"})",
                             R"({"err_code":null})", R"({"err_code":false})"}) {
        log.clear();
        EXPECT_EQ(parse(body), -1) << body;
        EXPECT_EQ(verdict, nullptr);
        EXPECT_THAT(log.lines(), ElementsAre(error_line(PARSE, "[CRC:] Parse errorcode error.")));
    }
}

TEST_F(handshake_step, without_memory_for_the_verdict_there_is_none) {
    fail_call noMemory("malloc", 1);
    EXPECT_EQ(parse(R"({"err_code":0})"), -1);
    EXPECT_TRUE(noMemory.happened());
    EXPECT_EQ(verdict, nullptr);
    EXPECT_THAT(log.lines(), ElementsAre(error_line(PARSE, "[CRC:] ResStruct malloc error.")));
}

TEST_F(handshake_step, null_arguments_are_no_answer) {
    hello_cloud_response_t* response = nullptr;
    const uint8_t answer[HEADER_BYTES + 1] = {};
    EXPECT_EQ(cloud_handshake_parse_svr_response(nullptr, answer, &response), -1);
    EXPECT_EQ(cloud_handshake_parse_svr_response(&cycle, nullptr, &response), -1);
    EXPECT_EQ(cloud_handshake_parse_svr_response(&cycle, answer, nullptr), -1);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line(PARSE, HasSubstr("NULL != cycle")),
                            error_line(PARSE, HasSubstr("NULL != respBuf")),
                            error_line(PARSE, "Ensure (NULL != cycle && NULL != respBuf && NULL != "
                                              "respStruct) failed.")));
}

} // namespace
