#pragma once

#include <cstdint>

// The hello-cloud request: how the device introduces itself to the relay; and the relay's verdict.
// Threads: the worker's.

// Four texts of the device's identity, each an allocation of its own. A field is null only in a
// record that is torn down. Whoever holds the record frees it with hello_cloud_request_free.
struct hello_cloud_request_t {
    char* deviceId;
    char* deviceMac; // 12 hexadecimal digits in a block of 13 bytes
    char* firmwareId;
    char* token;
};

struct hello_cloud_response_t {
    int32_t errorcode; // the relay's "err_code": 0 when the device is accepted
};

// Gathers the identity into a fresh record at *request; null there when memory is short. Identity
// that cannot be had is replaced by defaults and logged, never fatal.
void zemc_build_request_of_hello_cloud_v2(hello_cloud_request_t** request);

// Prints the verdict plainly on standard output. Returns 0.
int zemc_recv_response_of_hello_cloud_v2(hello_cloud_response_t* response);

// Frees a record, complete or half made; null is ignored.
void hello_cloud_request_free(hello_cloud_request_t* request);
