#include "core/device_identity.h"

#include <cstring>
#include <memory>

#include "core/helper_program.h"
#include "core/json.h"
#include "core/log.h"
#include "core/uci_option.h"

device_info_t gDevInfo = {
    "9.9", "9.9.9", "default", "00000000000000000000000000000000", "000000000000",
};

namespace {

constexpr char DEVICE_ID_COMMAND[] = "ubus -t 5 call cloudclient get_device_id";
constexpr char DEVICE_TOKEN_COMMAND[] = "ubus -t 5 call cloudclient get_device_token";
// Without a time-out in its arguments: the tool's own default of 30 s holds.
constexpr char FACTORY_INFO_COMMAND[] = "ubus call quorServer getInfo '{\"infoMask\":33}'";

// For a tool that ignores its own time-outs. Its output then counts as empty, which fails to parse.
constexpr int64_t QUERY_LIMIT_MS = 60000;

constexpr size_t ANSWER_SIZE = 1024;    // a longer answer is cut, and then is no JSON
constexpr size_t FACTORY_MAC_SIZE = 17; // AA-BB-CC-DD-EE-FF

struct json_deleter {
    void operator()(json_object* object) const { jsonObjectPut(object); }
};
using json_ptr = std::unique_ptr<json_object, json_deleter>;

// Runs `command` and parses what it prints; null when it cannot be run or prints no JSON. Messages
// carry the name of the asking function, and `named`, the command they speak of.
json_ptr _ask_ubus(const char* command, const char* named, const char* function) {
    char answer[ANSWER_SIZE + 1] = {};
    ssize_t length = helper_program_read(command, answer, ANSWER_SIZE, QUERY_LIMIT_MS);
    if (length < 0) {
        LOG_ERROR_AS(function, "popen exe [%s] failed\n", named);
        return nullptr;
    }
    json_ptr object(jsonParseStr(answer, static_cast<size_t>(length)));
    if (object == nullptr) {
        LOG_ERROR_AS(function, "get jsonrpc obj failed.\n");
    }
    return object;
}

void _log_incomplete(const char* function) {
    LOG_ERROR_AS(function, "device info is incomplete, return error!\n");
}

// Digits only, as the relay wants them. Separators other than dashes are kept, so the field's size
// bounds the copy.
void _store_mac(const char* mac) {
    size_t used = 0;
    for (; *mac != '\0' && used < sizeof gDevInfo.mac - 1; mac++) {
        if (*mac != '-') {
            gDevInfo.mac[used++] = *mac;
        }
    }
    gDevInfo.mac[used] = '\0';
}

} // namespace

int getDeviceIdByUbus(char* dst, int size) {
    if (dst == nullptr || size < 1) {
        LOG_ERROR("params invalid\n");
        return -1;
    }
    // A failure names the factory information's command: the log's readers know it that way.
    json_ptr answer = _ask_ubus(DEVICE_ID_COMMAND, FACTORY_INFO_COMMAND, __func__);
    if (answer == nullptr) {
        return -1;
    }
    const char* id = getValueFromJsonObj(answer.get(), "device_id");
    if (id == nullptr || strlen(id) > static_cast<size_t>(size)) {
        _log_incomplete(__func__);
        return -1;
    }
    memcpy(dst, id, strlen(id));
    return 0;
}

int getFacinfoByUbus() {
    json_ptr answer = _ask_ubus(FACTORY_INFO_COMMAND, FACTORY_INFO_COMMAND, __func__);
    if (answer == nullptr) {
        return -1;
    }
    const char* mac = getValueFromJsonObj(answer.get(), "mac");
    if (mac == nullptr || strlen(mac) != FACTORY_MAC_SIZE) {
        _log_incomplete(__func__);
        return -1;
    }
    _store_mac(mac);
    const char* firmware = getValueFromJsonObj(answer.get(), "fw_cur_id");
    if (firmware == nullptr || strlen(firmware) >= sizeof gDevInfo.fwId) {
        _log_incomplete(__func__);
        return -1;
    }
    strcpy(gDevInfo.fwId, firmware);
    return 0;
}

int getCloudClientToken(char* dst, int size) {
    json_ptr answer = _ask_ubus(DEVICE_TOKEN_COMMAND, DEVICE_TOKEN_COMMAND, __func__);
    if (answer == nullptr) {
        return -1;
    }
    const char* token = getValueFromJsonObj(answer.get(), "device_token");
    if (token == nullptr) {
        _log_incomplete(__func__);
        return -1;
    }
    // strncpy for its zero filling: nothing of what `dst` held before follows a shorter token.
    strncpy(dst, token, static_cast<size_t>(size) - 1);
    dst[size - 1] = '\0';
    return 0;
}

int sysDevIdGet(char* buf, int len) {
    ENSURE(buf, -1);
    memset(buf, 0, static_cast<size_t>(len));
    int result = getDeviceIdByUbus(buf, len - 1);
    if (result != 0) {
        LOG_ERROR(CALL_FAILED, result, "getDeviceIdByUbus(buf, len -1)");
    }
    return result;
}

int sysMacGet(char* dst) {
    strcpy(dst, gDevInfo.mac);
    return 0;
}

int sysFwIdGet(char* dst, int len) {
    strncpy(dst, gDevInfo.fwId, static_cast<size_t>(len) - 1);
    return 0;
}

int sysVerInfoGet(version_info_t* info) {
    *info = {};
    memcpy(info->hwVer, gDevInfo.hwVer, sizeof info->hwVer - 1);
    memcpy(info->swVer, gDevInfo.swVer, sizeof info->swVer - 1);
    memcpy(info->model, gDevInfo.model, sizeof info->model - 1);
    return 0;
}

void adSysApiInit() {
    int result = readUCI("device_info.info.hw_version", gDevInfo.hwVer);
    if (result != 0) {
        LOG_ERROR(CALL_FAILED, result, "readUCI(\"device_info.info.hw_version\", gDevInfo.hwVer)");
        return;
    }
    result = readUCI("device_info.info.sw_version", gDevInfo.swVer);
    if (result != 0) {
        LOG_ERROR(CALL_FAILED, result, "readUCI(\"device_info.info.sw_version\", gDevInfo.swVer)");
        return;
    }
    result = readUCI("device_info.info.device_model", gDevInfo.model);
    if (result != 0) {
        LOG_ERROR(CALL_FAILED, result,
                  "readUCI(\"device_info.info.device_model\", gDevInfo.model)");
        return;
    }
    result = getFacinfoByUbus();
    if (result != 0) {
        LOG_ERROR(CALL_FAILED, result, "getFacinfoByUbus()");
        return;
    }
    LOG_INFO("Init OK.");
}
