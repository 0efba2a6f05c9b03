#pragma once

#include <cstddef>
#include <cstdint>

// The exchange that identifies the device right after TLS is up: a DataType 1 packet with the
// hello-cloud request as JSON, and the relay's verdict in its DataType 1 answer.
// Threads: the worker's.

struct cloud_cycle_t;
struct cJSON;
struct hello_cloud_response_t;

// The exchange itself, cloud_handshake_svr, is declared in core/session_notice.h: the transport
// runs it once a server is connected. Its steps, in their order:

// The packet as a JSON object, header fields first and the body's text as its last member; null,
// logged, when it cannot be built. The caller deletes it.
cJSON* cloud_handshake_generate_hellocloud_json(cloud_cycle_t* cycle);

// Puts the packet that `reqJson` describes into a fresh block at *packet, which the caller frees,
// and its length into *length; the body's text leaves `reqJson` then. Returns 0, 100 without
// `reqJson`, -1 for a missing member, 101 when memory is short.
int cloud_handshake_generate_hellocloud_pkt(cJSON* reqJson, uint8_t** packet, size_t* length);

// Reads the verdict from an answer, a whole packet with one zero byte behind it, into a fresh
// record at *respStruct, which the caller frees. Returns 0 when the device is accepted, else -1;
// *respStruct is null unless the answer had an "err_code".
int cloud_handshake_parse_svr_response(cloud_cycle_t* cycle, const uint8_t* respBuf,
                                       hello_cloud_response_t** respStruct);
