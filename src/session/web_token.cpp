#include "session/web_token.h"

#include <climits>
#include <cstdio>
#include <cstring>

#include "core/block.h"
#include "core/cloud_cycle_record.h"
#include "core/helper_program.h"
#include "core/json.h"
#include "core/log.h"
#include "core/result.h"
#include "transport/cloud_socket.h"
#include "transport/packet_header.h"

namespace {

constexpr char TOKEN_COMMAND[] =
    "lua /usr/lib/lua/cloud_relay_client/cloud_relay_client_helper.lua token_get";
constexpr size_t TOKEN_SIZE = 32;
constexpr int64_t TOKEN_LIMIT_MS = 10000; // heartbeats wait for the helper no longer
constexpr size_t BODY_SIZE = 256;
constexpr size_t REPLY_SIZE = 512;

using token_buffer = char[TOKEN_SIZE + 1];

// The first 32 bytes that the helper prints, untrimmed. Returns 0, or -1 with an empty token.
int cloud_server_handler_token_get(token_buffer& token) {
    memset(token, 0, sizeof token);
    if (helper_program_read(TOKEN_COMMAND, token, TOKEN_SIZE, TOKEN_LIMIT_MS) < 0) {
        LOG_ERROR(ENSURE_FAILED, "fp != NULL");
        return -1;
    }
    return 0;
}

// The request's body as JSON may name who asks; the answer is the same for everybody.
void _read_name(const char* body, uint32_t bodyLen) {
    json_object* request = jsonParseStr(body, bodyLen);
    if (request != nullptr) {
        getValueFromJsonObj(request, "name");
        jsonObjectPut(request);
    }
}

// The reply is the request's header with another length. Its sending is not checked: the session's
// next read meets a broken connection.
void _cloud_web_token_response_handle(cloud_cycle_t* cycle, const uint8_t* reqBuf, int errCode,
                                      const token_buffer& token) {
    char body[BODY_SIZE] = {};
    snprintf(body, sizeof body, "{\"err_code\": %d,\"webToken\":\"%s\"}", errCode, token);
    LOG_INFO("Request token: %s", body);
    uint8_t reply[REPLY_SIZE] = {};
    size_t bodyLen = strlen(body);
    static_assert(PACKET_HEADER_SIZE + BODY_SIZE <= REPLY_SIZE);
    memcpy(reply, reqBuf, PACKET_HEADER_SIZE);
    memcpy(reply + PACKET_HEADER_SIZE, body, bodyLen);
    packet_header_write_data_len(reply, static_cast<uint32_t>(bodyLen));
    cloud_socket_send_buf(cycle->cloudSocket, reply, PACKET_HEADER_SIZE + bodyLen);
}

} // namespace

int cloud_server_handle_request_web_token(cloud_cycle_t* cycle, const uint8_t* reqBuf,
                                          int64_t timeout) {
    ENSURE(NULL != cycle && NULL != reqBuf, CLOUD_BAD_ARGUMENT);
    uint32_t bodyLen = packet_header_read(reqBuf).dataLen;
    // No read could report more than INT_MAX bytes.
    block_ptr request(bodyLen <= INT_MAX ? packet_allocate(bodyLen) : nullptr);
    if (request == nullptr) {
        LOG_ERROR("[CRC:] Out of memory!");
        return CLOUD_NO_MEMORY;
    }
    memcpy(request.get(), reqBuf, PACKET_HEADER_SIZE);
    uint8_t* body = request.get() + PACKET_HEADER_SIZE;
    int count = cloud_socket_recv_buf(cycle->cloudSocket, body, bodyLen, timeout);
    if (count < 0) {
        LOG_ERROR("[CRC:] Recvive webToken request body err.");
        return CLOUD_RECV_ERROR;
    }
    if (count == 0) {
        LOG_ERROR("[CRC:] socket closed by peer");
        return CLOUD_UNREACHABLE;
    }
    if (static_cast<uint32_t>(count) != bodyLen) {
        LOG_ERROR("[CRC:] Bad request.");
        return CLOUD_OK;
    }
    _read_name(reinterpret_cast<const char*>(body), bodyLen);
    token_buffer token;
    int errCode = cloud_server_handler_token_get(token);
    _cloud_web_token_response_handle(cycle, request.get(), errCode, token);
    return errCode;
}
