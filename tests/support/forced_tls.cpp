#include "support/forced_tls.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <wolfssl/options.h>
#include <wolfssl/ssl.h>

struct forced_function {
    const char* name;
    bool isWrapped;
    std::atomic<int> spared{0}; // calls that are still to be true ones
    std::atomic<int> left{0};   // calls that are then to be forced
    std::atomic<int> result{0};
    std::atomic<int> error{0};

    bool is_forced();
};

// What wolfSSL_get_error gives on this thread; 0 when its last call was a true one.
static thread_local int errorOfThread = 0;

bool forced_function::is_forced() {
    bool isSpared = spared > 0 && spared.fetch_sub(1) > 0;
    bool isForced = !isSpared && left > 0 && left.fetch_sub(1) > 0;
    errorOfThread = isForced ? error.load() : 0;
    return isForced;
}

// The libraries' names are reserved ones.
#pragma GCC diagnostic ignored "-Wmissing-declarations"
#define FORCED(NAME, PARAMETERS, ARGUMENTS)                                                        \
    extern "C" int __real_##NAME PARAMETERS __attribute__((weak));                                 \
    static forced_function function_##NAME = {#NAME, __real_##NAME != nullptr};                    \
    extern "C" int __wrap_##NAME PARAMETERS {                                                      \
        return function_##NAME.is_forced() ? function_##NAME.result.load()                         \
                                           : __real_##NAME ARGUMENTS;                              \
    }

FORCED(wolfSSL_connect, (WOLFSSL * session), (session))
FORCED(wolfSSL_shutdown, (WOLFSSL * session), (session))
FORCED(wolfSSL_read, (WOLFSSL * session, void* bytes, int size), (session, bytes, size))
FORCED(wolfSSL_peek, (WOLFSSL * session, void* bytes, int size), (session, bytes, size))
FORCED(wolfSSL_write, (WOLFSSL * session, const void* bytes, int size), (session, bytes, size))

extern "C" int __real_wolfSSL_get_error(WOLFSSL* session, int result) __attribute__((weak));

extern "C" int __wrap_wolfSSL_get_error(WOLFSSL* session, int result) {
    return errorOfThread != 0 ? errorOfThread : __real_wolfSSL_get_error(session, result);
}

static forced_function* const FUNCTIONS[] = {
    &function_wolfSSL_connect, &function_wolfSSL_shutdown, &function_wolfSSL_read,
    &function_wolfSSL_peek,    &function_wolfSSL_write,
};

static forced_function* find_function(const std::string& name) {
    for (forced_function* function : FUNCTIONS) {
        if (name == function->name && function->isWrapped) {
            return function;
        }
    }
    fprintf(stderr, "%s cannot be forced: not known, or not in WRAP\n", name.c_str());
    abort();
}

forced_tls::forced_tls(const std::string& name, int result, int error, int wantedTimes, int spared)
    : function(find_function(name)), times(wantedTimes) {
    function->spared = spared;
    function->result = result;
    function->error = error;
    function->left = wantedTimes;
}

forced_tls::~forced_tls() {
    function->left = 0;
    errorOfThread = 0;
}

int forced_tls::count() const {
    int left = function->left;
    return times - (left > 0 ? left : 0);
}
