// The relay's answer to a hello, from the bytes that TLS gives to the verdict.
//
// Input: whether the connection breaks at its end (8 bits), most bytes of one read (8 bits), then
// the stream.

#include "core/session_notice.h"
#include "handshake/hello_cloud.h"
#include "relay_stream.h"
#include "session/cloud_cycle.h"
#include "transport/packet_header.h"

namespace {

int verdict; // what the session heard of the answer

char* copy(const char* text) {
    return strdup(text);
}

void build_hello(hello_cloud_request_t** request) {
    *request = static_cast<hello_cloud_request_t*>(calloc(1, sizeof(hello_cloud_request_t)));
    **request = {copy("device"), copy("AABBCCDDEEFF"), copy("firmware"), copy("token")};
}

int take_verdict(hello_cloud_response_t* response) {
    verdict = response->errorcode;
    return 0;
}

struct exchange_result {
    int result;
    int verdict;
    std::string sent;

    bool operator==(const exchange_result&) const = default;
};

exchange_result exchange(std::string_view stream, size_t slice, bool breaks) {
    constexpr int NOT_HEARD = -12345;
    verdict = NOT_HEARD;
    relay_stream = {stream, slice, breaks, {}};
    cloud_cycle_t* cycle = static_cast<cloud_cycle_t*>(calloc(1, sizeof(cloud_cycle_t)));
    REQUIRE(cloud_cycle_init("127.0.0.1", 1, cycle) == 0);
    relay_stream_connect(cycle->cloudSocket);
    cycle->build_hellocloud = build_hello;
    cycle->response_hellocloud = take_verdict;
    const int result = cloud_handshake_svr(cycle);
    cloud_cycle_destroy(cycle);
    REQUIRE((result == 0) == (verdict == 0)); // accepted: by the relay's own 0
    return {result, verdict, relay_stream.written};
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    REQUIRE(freopen("/dev/null", "w", stdout)); // the log
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    const bool breaks = (input.byte() & 1) != 0;
    const size_t slice = input.byte() + size_t{1};
    const std::string_view stream = input.rest();

    const exchange_result whole = exchange(stream, stream.size() + 1, breaks);
    REQUIRE(exchange(stream, slice, breaks) == whole);
    if (whole.result == 0) { // an acceptance is one packet of the right kind, with the word in it
        REQUIRE(stream.size() > PACKET_HEADER_SIZE);
        const packet_header_t header = packet_header_read(stream.data());
        REQUIRE(header.magic == PACKET_MAGIC && header.type == PACKET_HELLO);
        REQUIRE(stream.substr(PACKET_HEADER_SIZE, header.dataLen).find('{') != stream.npos);
    }
    return 0;
}
