#include "handshake/hello_cloud.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/device_identity.h"
#include "core/log.h"

namespace {

constexpr size_t TEXT_SIZE = 128;
constexpr size_t VERDICT_SIZE = 256;
constexpr char INVALID_DEVICE_ID[] = "0000000000000000000000000000000000000000";
constexpr char INVALID_FIRMWARE_ID[] = "00000000000000000000000000000000";
constexpr char DEFAULT_MAC[] = "000000000000";
constexpr char DEFAULT_TOKEN[] = "00000000000000000000000000000000";
constexpr char BUILD[] = "zemc_build_request_of_hello_cloud_v2";

using text_buffer = char[TEXT_SIZE];

// A flash that was erased and never written reads as 0xFF.
bool _is_erased_flash(const char* text) {
    return memcmp(text, "\xFF\xFF\xFF", 3) == 0;
}

void _gather_device_id(text_buffer& deviceId) {
    // A failed lookup leaves the id empty; only an id that was read can be invalid.
    if (sysDevIdGet(deviceId, sizeof deviceId) == 0 && _is_erased_flash(deviceId)) {
        snprintf(deviceId, sizeof deviceId, "%s", INVALID_DEVICE_ID);
        LOG_ERROR_AS(BUILD, "[HELL_CLOUD_PKT_GEN]: DeviceId invalid.\r\n");
    }
}

void _gather_firmware_id(text_buffer& firmwareId) {
    if (sysFwIdGet(firmwareId, sizeof firmwareId) != 0) {
        snprintf(firmwareId, sizeof firmwareId, "%s", INVALID_FIRMWARE_ID);
        LOG_ERROR_AS(BUILD, "[HELL_CLOUD_PKT_GEN]: fwid invalid.\r\n");
    }
}

void _gather_token(text_buffer& token) {
    LOG_INFO_AS(BUILD, "Begain to get_available_token");
    snprintf(token, sizeof token, "%s", DEFAULT_TOKEN);
    if (getCloudClientToken(token, sizeof token) != 0) {
        LOG_ERROR_AS(BUILD, "[HELL_CLOUD_PKT_GEN]: Get token err.");
    }
    LOG_INFO_AS(BUILD, "get_available_token done: %s\n", token);
}

// A zeroed copy of `text` in a block of `size` bytes, cut to fit.
char* _copy(const char* text, size_t size) {
    char* copy = static_cast<char*>(calloc(1, size));
    if (copy != nullptr) {
        memcpy(copy, text, strnlen(text, size - 1));
    }
    return copy;
}

char* _copy(const char* text) {
    return _copy(text, strlen(text) + 1);
}

// The record without its token; null, logged, when memory is short.
hello_cloud_request_t* _build_identity(const char* deviceId, const char* firmwareId) {
    hello_cloud_request_t* request =
        static_cast<hello_cloud_request_t*>(calloc(1, sizeof(hello_cloud_request_t)));
    if (request != nullptr) {
        request->deviceId = _copy(deviceId);
    }
    if (request != nullptr && request->deviceId != nullptr) {
        request->firmwareId = _copy(firmwareId);
    }
    if (request != nullptr && request->firmwareId != nullptr) {
        text_buffer mac = {};
        snprintf(mac, sizeof mac, "%s", DEFAULT_MAC);
        sysMacGet(mac);
        request->deviceMac = _copy(mac, DEVICE_MAC_SIZE);
    }
    if (request == nullptr || request->deviceMac == nullptr) {
        LOG_ERROR_AS(BUILD, "[HELL_CLOUD_PKT_GEN]: Out of Memory.\r\n");
        hello_cloud_request_free(request);
        return nullptr;
    }
    return request;
}

} // namespace

void zemc_build_request_of_hello_cloud_v2(hello_cloud_request_t** request) {
    ENSURE(NULL != request, );
    *request = nullptr;
    text_buffer deviceId = {};
    text_buffer firmwareId = {};
    text_buffer token = {};
    _gather_device_id(deviceId);
    _gather_firmware_id(firmwareId);
    hello_cloud_request_t* built = _build_identity(deviceId, firmwareId);
    if (built == nullptr) {
        return;
    }
    _gather_token(token);
    built->token = _copy(token);
    if (built->token == nullptr) {
        LOG_ERROR("[HELL_CLOUD_PKT_GEN]: Out of Memory.");
        hello_cloud_request_free(built);
        return;
    }
    LOG_INFO("%s %s %s %s", built->deviceId, built->firmwareId, built->deviceMac, built->token);
    *request = built;
}

int zemc_recv_response_of_hello_cloud_v2(hello_cloud_response_t* response) {
#define RULE "------------------------------------------------------------------\n"
    static_assert(sizeof RULE == 66 + 2);
    char text[VERDICT_SIZE];
    int length = snprintf(text, sizeof text, RULE "%s\nresponse->errorcode is %d\n" RULE, __func__,
                          response->errorcode);
#undef RULE
    cloud_print(text, static_cast<size_t>(length));
    return 0;
}

void hello_cloud_request_free(hello_cloud_request_t* request) {
    if (request == nullptr) {
        return;
    }
    free(request->deviceId);
    free(request->deviceMac);
    free(request->firmwareId);
    free(request->token);
    free(request);
}
