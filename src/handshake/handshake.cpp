#include "handshake/handshake.h"

#include <cjson/cJSON.h>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/block.h"
#include "core/cloud_cycle_record.h"
#include "core/log.h"
#include "core/result.h"
#include "core/session_notice.h"
#include "handshake/hello_cloud.h"
#include "transport/packet_header.h"
#include "transport/relay_packet.h"

namespace {

constexpr int64_t ANSWER_TIMEOUT_MS = 5000;

constexpr char MAGIC_NUMBER[] = "MagicNumber";
constexpr char DATA_TYPE[] = "DataType";
constexpr char ID[] = "ID";
constexpr char RESERVE[] = "Reserve";
constexpr char DATA_LEN[] = "DataLen";
constexpr char DATA_ENTITY[] = "DataEntity";

struct json_deleter {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using json_ptr = std::unique_ptr<cJSON, json_deleter>;

struct request_deleter {
    void operator()(hello_cloud_request_t* request) const { hello_cloud_request_free(request); }
};
using request_ptr = std::unique_ptr<hello_cloud_request_t, request_deleter>;

struct verdict_deleter {
    void operator()(hello_cloud_response_t* verdict) const { free(verdict); }
};
using verdict_ptr = std::unique_ptr<hello_cloud_response_t, verdict_deleter>;

// Takes `item` over, also when it cannot be added.
bool _add_item(const json_ptr& object, const char* key, cJSON* item) {
    if (item != nullptr && cJSON_AddItemToObject(object.get(), key, item)) {
        return true;
    }
    cJSON_Delete(item);
    return false;
}

bool _add_text(const json_ptr& object, const char* key, const char* text) {
    return _add_item(object, key, cJSON_CreateString(text == nullptr ? "" : text));
}

bool _add_number(const json_ptr& object, const char* key, double value) {
    return _add_item(object, key, cJSON_CreateNumber(value));
}

bool _add_identity(const json_ptr& body, const request_ptr& request) {
    return _add_text(body, "deviceId", request->deviceId) &&
           _add_text(body, "deviceMac", request->deviceMac) &&
           _add_text(body, "firmwareId", request->firmwareId) &&
           _add_text(body, "token", request->token);
}

bool _add_packet_fields(const json_ptr& packet, const char* body) {
    return _add_number(packet, MAGIC_NUMBER, PACKET_MAGIC) &&
           _add_number(packet, DATA_TYPE, PACKET_HELLO) && _add_number(packet, ID, 0) &&
           _add_number(packet, RESERVE, 0) &&
           _add_number(packet, DATA_LEN, static_cast<double>(strlen(body))) &&
           _add_text(packet, DATA_ENTITY, body);
}

// The members of the packet's JSON description, as found.
struct packet_members {
    cJSON* magic;
    cJSON* type;
    cJSON* id;
    cJSON* reserve;
    cJSON* dataLen;
    cJSON* entity;
};

// Looks a member up; what is missing is logged as the lookup's source text.
bool _find_member(cJSON* reqJson, const char* key, cJSON** member, const char* call) {
    *member = cJSON_GetObjectItem(reqJson, key);
    if (*member == nullptr) {
        LOG_ERROR_AS("cloud_handshake_generate_hellocloud_pkt", CALL_FAILED, 1, call);
    }
    return *member != nullptr;
}

bool _find_members(cJSON* reqJson, packet_members* members) {
#define LOOKUP(inner, key) "(NULL == (" inner " = cJSON_GetObjectItem(reqJson, " key ")))"
    return _find_member(reqJson, MAGIC_NUMBER, &members->magic,
                        LOOKUP("innerMagicNumberJson", "CRC_PKT_HDR_STR_MAGIC_NUMBER_STR")) &&
           _find_member(reqJson, DATA_TYPE, &members->type,
                        LOOKUP("innerDataTypeJson", "CRC_PKT_HDR_STR_DATA_TYPE_STR")) &&
           _find_member(reqJson, ID, &members->id,
                        LOOKUP("innerIdJson", "CRC_PKT_HDR_STR_ID_STR")) &&
           _find_member(reqJson, RESERVE, &members->reserve,
                        LOOKUP("innerResvJson", "CRC_PKT_HDR_STR_RESV_STR")) &&
           _find_member(reqJson, DATA_LEN, &members->dataLen,
                        LOOKUP("innerDataLenJson", "CRC_PKT_HDR_STR_DATA_LEN_STR")) &&
           _find_member(reqJson, DATA_ENTITY, &members->entity,
                        LOOKUP("innerDataEntityJson", "CRC_PKT_HDR_STR_DATA_ENTITY_STR"));
#undef LOOKUP
}

void _log_packet(const packet_header_t& header, const char* body) {
    constexpr char NAME[] = "cloud_handshake_generate_hellocloud_pkt";
    LOG_INFO_AS(NAME, "[CRC:] parse req: %04X", header.magic);
    LOG_INFO_AS(NAME, "[CRC:] parse req: %d", header.type);
    LOG_INFO_AS(NAME, "[CRC:] parse req: %d", header.id);
    LOG_INFO_AS(NAME, "[CRC:] parse req: %d", header.reserve);
    LOG_INFO_AS(NAME, "[CRC:] parse req: %d", static_cast<int>(header.dataLen));
    LOG_INFO_AS(NAME, "[CRC:] parse req: %s", body);
}

// Sends the request and gives the answer, a whole packet. Messages carry the exchange's name.
int _exchange(cloud_cycle_t* cycle, const block_ptr& packet, size_t length, block_ptr* answer) {
    constexpr char NAME[] = "cloud_handshake_svr";
    int result = cloud_socket_send(cycle->cloudSocket, packet.get(), length);
    if (result != 0) {
        LOG_ERROR_AS(NAME, "[CRC:] socket send error.");
        return result;
    }
    uint8_t* received = nullptr;
    size_t receivedLength = 0;
    result = cloud_socket_recv(cycle->cloudSocket, &received, &receivedLength, ANSWER_TIMEOUT_MS);
    if (result != 0) {
        LOG_ERROR_AS(NAME, "[CRC:] socket recv error.");
        return result;
    }
    answer->reset(received);
    LOG_INFO_AS(NAME, "[CRC:] recv hello-pkt from relay-svr.");
    return 0;
}

} // namespace

cJSON* cloud_handshake_generate_hellocloud_json(cloud_cycle_t* cycle) {
    hello_cloud_request_t* built = nullptr;
    cycle->build_hellocloud(&built);
    request_ptr request(built);
    if (request == nullptr) {
        LOG_ERROR("[CRC:] Fail to get the request string of hellocloud.");
        return nullptr;
    }
    json_ptr packet(cJSON_CreateObject());
    json_ptr body(cJSON_CreateObject());
    if (packet == nullptr || body == nullptr || !_add_identity(body, request)) {
        LOG_ERROR("[CRC:] Fail to create json object.");
        return nullptr;
    }
    char* text = cJSON_PrintUnformatted(body.get());
    if (text == nullptr) {
        LOG_ERROR("[CRC:] Transfer from json to string error.");
        return nullptr;
    }
    bool complete = _add_packet_fields(packet, text);
    cJSON_free(text);
    if (!complete) {
        LOG_ERROR("[CRC:] Fail to create json object.");
        return nullptr;
    }
    return packet.release();
}

int cloud_handshake_generate_hellocloud_pkt(cJSON* reqJson, uint8_t** packet, size_t* length) {
    ENSURE(NULL != reqJson, CLOUD_BAD_ARGUMENT);
    packet_members members = {};
    if (!_find_members(reqJson, &members)) {
        return CLOUD_ERROR;
    }
    packet_header_t header = {static_cast<uint16_t>(members.magic->valueint),
                              static_cast<uint16_t>(members.type->valueint),
                              static_cast<uint16_t>(members.id->valueint),
                              static_cast<uint16_t>(members.reserve->valueint),
                              static_cast<uint32_t>(members.dataLen->valueint)};
    uint8_t* block = packet_allocate(header.dataLen);
    if (block == nullptr) {
        return CLOUD_NO_MEMORY;
    }
    packet_header_write(block, header);
    memcpy(block + PACKET_HEADER_SIZE, members.entity->valuestring, header.dataLen);
    _log_packet(header, members.entity->valuestring);
    // Copied into the packet: the longest text need not wait for the answer.
    cJSON_free(members.entity->valuestring);
    members.entity->valuestring = nullptr;
    *packet = block;
    *length = PACKET_HEADER_SIZE + header.dataLen;
    return CLOUD_OK;
}

int cloud_handshake_parse_svr_response(cloud_cycle_t* cycle, const uint8_t* respBuf,
                                       hello_cloud_response_t** respStruct) {
    ENSURE((NULL != cycle && NULL != respBuf && NULL != respStruct), CLOUD_ERROR);
    if (packet_header_read(respBuf).type != PACKET_HELLO) {
        LOG_ERROR("[CRC:] Response type error.");
        return CLOUD_ERROR;
    }
    json_ptr answer(cJSON_Parse(reinterpret_cast<const char*>(respBuf + PACKET_HEADER_SIZE)));
    if (answer == nullptr) {
        LOG_ERROR("[CRC:] Parse response error.");
        return CLOUD_ERROR;
    }
    cJSON* code = cJSON_GetObjectItem(answer.get(), "err_code");
    if (!cJSON_IsNumber(code)) { // missing, or no number: a text would read as 0, acceptance
        LOG_ERROR("[CRC:] Parse errorcode error.");
        return CLOUD_ERROR;
    }
    *respStruct = static_cast<hello_cloud_response_t*>(malloc(sizeof(hello_cloud_response_t)));
    if (*respStruct == nullptr) {
        LOG_ERROR("[CRC:] ResStruct malloc error.");
        return CLOUD_ERROR;
    }
    (*respStruct)->errorcode = code->valueint;
    if (code->valueint != 0) {
        LOG_ERROR("[CRC:] Error code of response : %d", code->valueint);
        return CLOUD_ERROR;
    }
    return CLOUD_OK;
}

int cloud_handshake_svr(cloud_cycle_t* cycle) {
    ENSURE(NULL != cycle, CLOUD_BAD_ARGUMENT);
    json_ptr reqJson(cloud_handshake_generate_hellocloud_json(cycle));
    uint8_t* generated = nullptr;
    size_t length = 0;
    int result = cloud_handshake_generate_hellocloud_pkt(reqJson.get(), &generated, &length);
    block_ptr packet(generated);
    if (result != 0) {
        LOG_ERROR("[CRC:] generate hellocloud with authCode error.");
        return result;
    }
    block_ptr answer;
    result = _exchange(cycle, packet, length, &answer);
    if (result != 0) {
        return result;
    }
    hello_cloud_response_t* parsed = nullptr;
    result = cloud_handshake_parse_svr_response(cycle, answer.get(), &parsed);
    verdict_ptr verdict(parsed);
    if (verdict == nullptr) {
        LOG_ERROR("[CRC:] svr response parse error.");
        return CLOUD_ERROR;
    }
    cycle->response_hellocloud(verdict.get());
    return result;
}
