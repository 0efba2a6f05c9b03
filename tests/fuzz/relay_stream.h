#pragma once

#include <cstring>
#include <string>

#include <wolfssl/options.h>
// The library's options come first.
#include <wolfssl/ssl.h>

#include "fuzz.h"
#include "transport/cloud_socket.h"

// The relay's end of a device's connection, in the place of TLS: the functions of wolfSSL that a
// connected cloud socket calls are defined here. For one source file of a fuzzer.

struct relay_stream_t {
    std::string_view unread; // what the relay sends
    size_t slice = 0;        // most bytes that one read gives
    bool breaks = false;     // the end is an error, not TLS's goodbye
    std::string written;     // what the relay got
};

inline relay_stream_t relay_stream;

// Connects a cloud socket to the stream.
inline void relay_stream_connect(cloud_socket_t* socket) {
    static char session; // an address, never looked into
    socket->SSL = reinterpret_cast<WOLFSSL*>(&session);
    socket->status = CLOUD_SOCKET_CONNECTED;
}

extern "C" int wolfSSL_read(WOLFSSL* /*session*/, void* buffer, int size) {
    const size_t most = std::min(relay_stream.slice, static_cast<size_t>(size));
    const std::string_view bytes = relay_stream.unread.substr(0, most);
    relay_stream.unread.remove_prefix(bytes.size());
    std::copy(bytes.begin(), bytes.end(), static_cast<char*>(buffer));
    return bytes.empty() ? -1 : static_cast<int>(bytes.size());
}

extern "C" int wolfSSL_get_error(WOLFSSL* /*session*/, int /*result*/) {
    return relay_stream.breaks ? int{SOCKET_ERROR_E} : int{SSL_ERROR_ZERO_RETURN};
}

extern "C" int wolfSSL_write(WOLFSSL* /*session*/, const void* bytes, int size) {
    relay_stream.written.append(static_cast<const char*>(bytes), static_cast<size_t>(size));
    return size;
}

extern "C" int wolfSSL_shutdown(WOLFSSL* /*session*/) {
    return SSL_SUCCESS;
}

extern "C" void wolfSSL_free(WOLFSSL* /*session*/) {}

// A packet may claim 4 GiB. Like a router, the fuzzer does not have them. libFuzzer needs 20 MiB.
extern "C" const char* __asan_default_options();

extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=32";
}
