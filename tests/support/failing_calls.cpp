#include "support/failing_calls.h"

#include <cerrno>
#include <cjson/cJSON.h>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <json-c/json.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <uci.h>
#include <unistd.h>
#include <utility>
#include <wolfssl/options.h>
#include <wolfssl/ssl.h>

// One function under control. Its wrapper is what the linker puts in the place of every call; the
// true function is null in programs that do not wrap it.
struct wrapped_call {
    const char* name;
    bool isWrapped;
    int error;                     // errno of the failure
    std::atomic<int> countdown{0}; // the call that takes it from 1 to 0 fails
    std::atomic<bool> isThreadBound{false};
    std::atomic<pthread_t> thread{};
    std::atomic<int> forcedError{0}; // instead of `error`, unless 0
    std::atomic<int> calls{0};
    std::atomic<bool> failsAlways{false};
    std::atomic<int> failures{0};                              // while it fails always
    std::atomic<const std::function<void()>*> action{nullptr}; // of before_call
    std::atomic<pthread_t> actingThread{};

    void act() {
        if (action != nullptr && pthread_equal(actingThread, pthread_self())) {
            (*action.exchange(nullptr))();
        }
    }

    void set_errno() const {
        int number = forcedError != 0 ? forcedError.load() : error;
        errno = number != 0 ? number : errno;
    }

    bool fails() {
        calls++;
        act();
        if (failsAlways) {
            failures++;
            set_errno();
            return true;
        }
        if (countdown.load() <= 0 || (isThreadBound && !pthread_equal(thread, pthread_self()))) {
            return false;
        }
        if (countdown.fetch_sub(1) != 1) {
            return false;
        }
        set_errno();
        return true;
    }
};

// NAME's wrapper: fails with ERROR and FAILURE when told to. The libraries' names are reserved
// ones.
#pragma GCC diagnostic ignored "-Wmissing-declarations"
#define WRAPPED(RESULT, NAME, PARAMETERS, ARGUMENTS, ERROR, FAILURE)                               \
    extern "C" RESULT __real_##NAME PARAMETERS __attribute__((weak));                              \
    static wrapped_call call_of_##NAME = {#NAME, __real_##NAME != nullptr, ERROR};                 \
    extern "C" RESULT __wrap_##NAME PARAMETERS {                                                   \
        return call_of_##NAME.fails() ? FAILURE : __real_##NAME ARGUMENTS;                         \
    }

WRAPPED(void*, malloc, (size_t size), (size), ENOMEM, nullptr)
WRAPPED(void*, calloc, (size_t count, size_t size), (count, size), ENOMEM, nullptr)
WRAPPED(void*, realloc, (void* block, size_t size), (block, size), ENOMEM, nullptr)
WRAPPED(char*, strdup, (const char* text), (text), ENOMEM, nullptr)
WRAPPED(int, posix_spawn,
        (pid_t * process, const char* path, const posix_spawn_file_actions_t* files,
         const posix_spawnattr_t* attributes, char* const* arguments, char* const* environment),
        (process, path, files, attributes, arguments, environment), 0,
        EAGAIN) // by its result alone
WRAPPED(int, socket, (int domain, int type, int protocol), (domain, type, protocol), EMFILE, -1)
WRAPPED(int, getsockopt, (int fd, int level, int name, void* value, socklen_t* size),
        (fd, level, name, value, size), ENOBUFS, -1)
WRAPPED(int, poll, (pollfd * polled, nfds_t count, int limit), (polled, count, limit), ENOMEM, -1)
WRAPPED(ssize_t, read, (int fd, void* data, size_t size), (fd, data, size), EIO, -1)
WRAPPED(int, getsockname, (int fd, sockaddr* address, socklen_t* size), (fd, address, size),
        ENOBUFS, -1)
WRAPPED(ssize_t, recv, (int fd, void* bytes, size_t size, int flags), (fd, bytes, size, flags), EIO,
        -1)
WRAPPED(int, select, (int count, fd_set* in, fd_set* out, fd_set* other, timeval* limit),
        (count, in, out, other, limit), EINTR, -1)
WRAPPED(int, usleep, (useconds_t pause), (pause), EINTR, -1)
WRAPPED(int, clock_nanosleep, (clockid_t clock, int flags, const timespec* until, timespec* rest),
        (clock, flags, until, rest), EINVAL, EINVAL)
WRAPPED(int, pthread_create,
        (pthread_t * thread, const pthread_attr_t* attributes, void* (*run)(void*), void* argument),
        (thread, attributes, run, argument), EAGAIN, EAGAIN)
WRAPPED(tm*, localtime_r, (const time_t* time, tm* local), (time, local), EOVERFLOW, nullptr)
WRAPPED(json_tokener*, json_tokener_new, (), (), ENOMEM, nullptr)
WRAPPED(uci_context*, uci_alloc_context, (), (), ENOMEM, nullptr)
WRAPPED(cJSON*, cJSON_CreateObject, (), (), ENOMEM, nullptr)
WRAPPED(cJSON*, cJSON_CreateNumber, (double value), (value), ENOMEM, nullptr)
WRAPPED(cJSON*, cJSON_CreateString, (const char* text), (text), ENOMEM, nullptr)
WRAPPED(char*, cJSON_PrintUnformatted, (const cJSON* item), (item), ENOMEM, nullptr)
// Releases the method even when it fails, as the true one does.
WRAPPED(WOLFSSL_CTX*, wolfSSL_CTX_new, (WOLFSSL_METHOD * method), (method), ENOMEM,
        (free(method), nullptr))
WRAPPED(WOLFSSL*, wolfSSL_new, (WOLFSSL_CTX * context), (context), ENOMEM, nullptr)
WRAPPED(int, wolfSSL_set_fd, (WOLFSSL * session, int fd), (session, fd), EINVAL, -1)

extern "C" int __real_setsockopt(int fd, int level, int name, const void* value, socklen_t size)
    __attribute__((weak));
static wrapped_call call_of_setsockopt = {"setsockopt", __real_setsockopt != nullptr, ENODEV};
static thread_local std::vector<option_call>* optionCalls = nullptr; // null: nobody records

extern "C" int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t size) {
    if (optionCalls != nullptr) {
        optionCalls->push_back({level, name, std::string(static_cast<const char*>(value), size)});
    }
    return call_of_setsockopt.fails() ? -1 : __real_setsockopt(fd, level, name, value, size);
}

static wrapped_call* const CALLS[] = {
    &call_of_malloc,
    &call_of_calloc,
    &call_of_realloc,
    &call_of_strdup,
    &call_of_posix_spawn,
    &call_of_socket,
    &call_of_setsockopt,
    &call_of_getsockname,
    &call_of_getsockopt,
    &call_of_poll,
    &call_of_recv,
    &call_of_read,
    &call_of_select,
    &call_of_usleep,
    &call_of_clock_nanosleep,
    &call_of_pthread_create,
    &call_of_localtime_r,
    &call_of_json_tokener_new,
    &call_of_uci_alloc_context,
    &call_of_cJSON_CreateObject,
    &call_of_cJSON_CreateNumber,
    &call_of_cJSON_CreateString,
    &call_of_cJSON_PrintUnformatted,
    &call_of_wolfSSL_CTX_new,
    &call_of_wolfSSL_new,
    &call_of_wolfSSL_set_fd,
};

static wrapped_call* find_call(const std::string& name) {
    for (wrapped_call* call : CALLS) {
        if (name == call->name && call->isWrapped) {
            return call;
        }
    }
    fprintf(stderr, "calls of %s cannot be forced to fail: not known, or not in WRAP\n",
            name.c_str());
    abort();
}

fail_call::fail_call(const std::string& name, int nth, calls_of whose, int error)
    : call(find_call(name)) {
    call->forcedError = error;
    call->isThreadBound = whose == calls_of::this_thread;
    call->thread = pthread_self();
    call->countdown = nth;
}

fail_call::~fail_call() {
    call->countdown = 0;
}

bool fail_call::happened() const {
    return call->countdown <= 0;
}

fail_every_call::fail_every_call(const std::string& name, int error) : call(find_call(name)) {
    call->forcedError = error;
    call->failures = 0;
    call->failsAlways = true;
}

fail_every_call::~fail_every_call() {
    call->failsAlways = false;
}

int fail_every_call::times() const {
    return call->failures;
}

counted_calls::counted_calls(const std::string& name)
    : call(find_call(name)), before(call->calls) {}

int counted_calls::count() const {
    return call->calls - before;
}

before_call::before_call(const std::string& name, std::function<void()> wanted)
    : call(find_call(name)), action(std::move(wanted)) {
    call->actingThread = pthread_self();
    call->action = &action;
}

before_call::~before_call() {
    call->action = nullptr;
}

// --- socket options ---

recorded_options::recorded_options() {
    find_call("setsockopt"); // ends a program that does not wrap it
    optionCalls = &calls;
}

recorded_options::~recorded_options() {
    optionCalls = nullptr;
}

// --- the clock ---

static_assert(CLOCK_REALTIME == 0 && CLOCK_MONOTONIC == 1);
static std::atomic<int64_t> clockOffsetsMs[2];
static std::atomic<int64_t> clockReadings[2];
static std::atomic<int64_t> clockStopsNs[2]; // where each stands still, 0 while it runs

extern "C" int __real_clock_gettime(clockid_t clock, timespec* now) __attribute__((weak));

extern "C" int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    constexpr int64_t MS_PER_SECOND = 1000;
    constexpr int64_t NS_PER_MS = 1000000;
    constexpr int64_t NS_PER_SECOND = MS_PER_SECOND * NS_PER_MS;
    int result = __real_clock_gettime(clock, now);
    if (clock == CLOCK_REALTIME || clock == CLOCK_MONOTONIC) {
        if (int64_t stop = clockStopsNs[clock]; stop != 0) {
            now->tv_sec = static_cast<time_t>(stop / NS_PER_SECOND);
            now->tv_nsec = static_cast<long>(stop % NS_PER_SECOND);
        }
        clockReadings[clock]++;
        int64_t offset = clockOffsetsMs[clock];
        int64_t nanoseconds = now->tv_nsec + offset % MS_PER_SECOND * NS_PER_MS + NS_PER_SECOND;
        now->tv_sec += offset / MS_PER_SECOND + nanoseconds / NS_PER_SECOND - 1;
        now->tv_nsec = nanoseconds % NS_PER_SECOND;
    }
    return result;
}

moved_clock::moved_clock(int64_t milliseconds, clockid_t moved) : clock(moved) {
    if (__real_clock_gettime == nullptr) {
        fprintf(stderr, "the clock cannot be moved: clock_gettime is not in WRAP\n");
        abort();
    }
    move(milliseconds);
}

void moved_clock::move(int64_t milliseconds) {
    clockOffsetsMs[clock] += milliseconds;
}

void moved_clock::stop() {
    constexpr int64_t NS_PER_SECOND = 1000000000;
    timespec now = {};
    __real_clock_gettime(clock, &now);
    clockStopsNs[clock] = now.tv_sec * NS_PER_SECOND + now.tv_nsec;
}

int64_t moved_clock::readings() const {
    return clockReadings[clock];
}

moved_clock::~moved_clock() {
    clockOffsetsMs[clock] = 0;
    clockStopsNs[clock] = 0;
}
