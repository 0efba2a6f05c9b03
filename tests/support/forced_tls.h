#pragma once

#include <climits>
#include <string>

// Has a function of wolfSSL end as told instead of doing its work: for what no peer can bring
// about. Works for wolfSSL_connect, wolfSSL_shutdown, wolfSSL_read, wolfSSL_write and wolfSSL_peek
// in programs whose room_tests() lists them, and wolfSSL_get_error, under WRAP.
//
//     forced_tls write("wolfSSL_write", -1, TLS_NO_MEMORY);
//     EXPECT_EQ(cloud_socket_send_buf(socket, "x", 1), 9);
//
// The calls of all threads end so, `times` of them or until the object ends, after the first
// `spared` ones. At most one at a time for one function.
class forced_tls {
public:
    // `error` is what wolfSSL_get_error gives after it.
    forced_tls(const std::string& name, int result, int error, int times = INT_MAX, int spared = 0);
    ~forced_tls();
    forced_tls(const forced_tls&) = delete;
    forced_tls& operator=(const forced_tls&) = delete;

    int count() const; // the calls that were forced so far

private:
    struct forced_function* function;
    int times;
};

// Errors of wolfSSL.
constexpr int TLS_WANT_READ = 2;
constexpr int TLS_WANT_WRITE = 3;
constexpr int TLS_NO_MEMORY = -125;
constexpr int TLS_SOCKET_ERROR = -308;
