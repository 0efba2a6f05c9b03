// What the router's services and UCI say of the device, on its way into the hello to the relay.
//
// Input: four texts behind their lengths in 16 bits: what the `ubus` tool prints for the device id,
// for the token and for the factory information, and a value from UCI.

#include <cjson/cJSON.h>
#include <cstring>
#include <memory>

#include "core/device_identity.h"
#include "core/helper_program.h"
#include "core/uci_option.h"
#include "fuzz.h"
#include "handshake/handshake.h"
#include "handshake/hello_cloud.h"
#include "session/cloud_cycle.h"
#include "transport/packet_header.h"

namespace {

struct router_t {
    std::string_view deviceId;
    std::string_view token;
    std::string_view factoryInfo;
    std::string_view option;
};

router_t router;

bool contains(std::string_view text, std::string_view part) {
    return text.find(part) != text.npos;
}

} // namespace

// --- in the place of core/helper_program and core/uci_option ---

ssize_t helper_program_read(const char* command, char* buffer, size_t size, int64_t /*limit*/) {
    std::string_view printed = router.deviceId;
    if (contains(command, "get_device_token")) {
        printed = router.token;
    } else if (contains(command, "getInfo")) {
        printed = router.factoryInfo;
    }
    printed = printed.substr(0, size);
    std::copy(printed.begin(), printed.end(), buffer);
    return static_cast<ssize_t>(printed.size());
}

int readUCI(const char* /*str*/, char* out, size_t size) {
    const std::string_view value = router.option.substr(0, router.option.find('\0'));
    std::copy(value.begin(), value.begin() + static_cast<long>(std::min(value.size(), size - 1)),
              out);
    return 0;
}

int readUCI(const char* str, char* out, size_t size, uci_cache_t* /*cache*/) {
    return readUCI(str, out, size);
}

namespace {

template <size_t SIZE>
void require_text(const char (&field)[SIZE]) {
    REQUIRE(strnlen(field, SIZE) < SIZE);
}

void gather() {
    gDevInfo = {"9.9", "9.9.9", "default", "00000000000000000000000000000000", "000000000000"};
    adSysApiInit();
    require_text(gDevInfo.hwVer);
    require_text(gDevInfo.swVer);
    require_text(gDevInfo.model);
    require_text(gDevInfo.fwId);
    require_text(gDevInfo.mac);
    REQUIRE(!contains(gDevInfo.mac, "-"));
    version_info_t info;
    REQUIRE(sysVerInfoGet(&info) == 0 && strcmp(info.model, gDevInfo.model) == 0);
}

void require_member(const cJSON* hello, const char* key, const char* value) {
    const cJSON* member = cJSON_GetObjectItemCaseSensitive(hello, key);
    REQUIRE(cJSON_IsString(member) && strcmp(member->valuestring, value) == 0);
}

// What is written into the hello is what the relay reads there.
void check_packet(const uint8_t* packet, size_t length, const hello_cloud_request_t& request) {
    const packet_header_t header = packet_header_read(packet);
    REQUIRE(header.magic == PACKET_MAGIC && header.type == PACKET_HELLO);
    REQUIRE(length == PACKET_HEADER_SIZE + header.dataLen);
    const char* body = reinterpret_cast<const char*>(packet + PACKET_HEADER_SIZE);
    const std::unique_ptr<cJSON, decltype(&cJSON_Delete)> hello(
        cJSON_ParseWithLength(body, header.dataLen), cJSON_Delete);
    REQUIRE(hello != nullptr);
    require_member(hello.get(), "deviceId", request.deviceId);
    require_member(hello.get(), "deviceMac", request.deviceMac);
    require_member(hello.get(), "firmwareId", request.firmwareId);
    require_member(hello.get(), "token", request.token);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    REQUIRE(freopen("/dev/null", "w", stdout)); // the log
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    router.deviceId = input.text();
    router.token = input.text();
    router.factoryInfo = input.text();
    router.option = input.text();
    gather();

    cloud_cycle_t cycle = {};
    cycle.build_hellocloud = zemc_build_request_of_hello_cloud_v2;
    cJSON* description = cloud_handshake_generate_hellocloud_json(&cycle);
    uint8_t* packet = nullptr;
    size_t length = 0;
    REQUIRE(cloud_handshake_generate_hellocloud_pkt(description, &packet, &length) == 0);
    hello_cloud_request_t* request = nullptr;
    zemc_build_request_of_hello_cloud_v2(&request);
    check_packet(packet, length, *request);
    hello_cloud_request_free(request);
    free(packet);
    cJSON_Delete(description);
    return 0;
}
