#pragma once

#include <cjson/cJSON.h>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/cloud_cycle_record.h"
#include "handshake/hello_cloud.h"

// What both files of the handshake's tests share: an identity of the test's own in the place of the
// router's, and cJSON's memory under control. One test at a time.

// What the cycle's builder hands out, and the verdicts that reached the cycle's other hook.
struct offered_identity {
    bool isThere = true; // else the builder gives no request
    const char* deviceId = "DEVICE-9";
    const char* deviceMac = "A1B2C3D4E5F6";
    const char* firmwareId = "FIRMWARE-7";
    const char* token = "TOKEN-5";
    std::vector<int> verdicts;
};
inline offered_identity offered;

// The body that carries the identity above.
constexpr char OFFERED_BODY[] = R"({"deviceId":"DEVICE-9","deviceMac":"A1B2C3D4E5F6",)"
                                R"("firmwareId":"FIRMWARE-7","token":"TOKEN-5"})";

inline char* copy_or_null(const char* text) {
    return text == nullptr ? nullptr : strdup(text);
}

inline void build_offered(hello_cloud_request_t** request) {
    if (!offered.isThere) {
        return;
    }
    *request = static_cast<hello_cloud_request_t*>(calloc(1, sizeof(hello_cloud_request_t)));
    **request = {copy_or_null(offered.deviceId), copy_or_null(offered.deviceMac),
                 copy_or_null(offered.firmwareId), copy_or_null(offered.token)};
}

inline int note_verdict(hello_cloud_response_t* response) {
    offered.verdicts.push_back(response->errorcode);
    return 0;
}

inline void offer_identity(cloud_cycle_t* cycle) {
    cycle->build_hellocloud = build_offered;
    cycle->response_hellocloud = note_verdict;
}

// Counts cJSON's blocks and refuses one allocation, the `failing`th, while it lives.
struct json_memory {
    explicit json_memory(int failing = 0) : refused(failing) {
        made = 0;
        live = 0;
        toRefuse = failing;
        cJSON_Hooks hooks = {allocate, release};
        cJSON_InitHooks(&hooks);
    }
    ~json_memory() { cJSON_InitHooks(nullptr); }
    json_memory(const json_memory&) = delete;
    json_memory& operator=(const json_memory&) = delete;

    static void* allocate(size_t size) {
        if (++made == toRefuse) {
            return nullptr;
        }
        live++;
        return malloc(size);
    }

    static void release(void* block) {
        live -= block != nullptr;
        free(block);
    }

    bool happened() const { return made >= refused; }

    const int refused;
    static inline int made;
    static inline int live; // blocks made and not released
    static inline int toRefuse;
};
