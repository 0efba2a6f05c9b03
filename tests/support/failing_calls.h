#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

// Forces calls of library functions to fail, and moves the clock. Works for the functions that the
// program's room_tests() lists under WRAP, in all code that is linked into it statically.
//
//     fail_call failure("calloc", 2);   // the second calloc of this thread from now on fails
//     EXPECT_EQ(cloud_mq_init(4), nullptr);
//     EXPECT_TRUE(failure.happened());
//
// To force every allocation of an operation in turn, count up until one did not happen.
//
// Known: malloc, calloc, realloc, strdup, posix_spawn, socket, setsockopt, getsockopt, getsockname,
// read, recv, select, poll, usleep, clock_nanosleep, pthread_create, localtime_r, json_tokener_new,
// uci_alloc_context, cJSON_CreateObject, cJSON_CreateNumber, cJSON_CreateString,
// cJSON_PrintUnformatted, wolfSSL_CTX_new, wolfSSL_new, wolfSSL_set_fd; each fails with the errno
// that it would have.

enum class calls_of { this_thread, every_thread };

// At most one at a time for one function.
class fail_call {
public:
    // Lets the `nth` call from now on fail, and the following ones pass again. `error` replaces the
    // usual errno.
    explicit fail_call(const std::string& name, int nth = 1, calls_of whose = calls_of::this_thread,
                       int error = 0);
    ~fail_call();
    fail_call(const fail_call&) = delete;
    fail_call& operator=(const fail_call&) = delete;

    bool happened() const;

private:
    struct wrapped_call* call;
};

// Lets every call of every thread fail, until the scope ends.
class fail_every_call {
public:
    explicit fail_every_call(const std::string& name, int error = 0);
    ~fail_every_call();
    fail_every_call(const fail_every_call&) = delete;
    fail_every_call& operator=(const fail_every_call&) = delete;

    int times() const; // failures so far

private:
    struct wrapped_call* call;
};

// Counts the calls of a function, all threads'.
class counted_calls {
public:
    explicit counted_calls(const std::string& name);

    int count() const; // since the object was made

private:
    struct wrapped_call* call;
    int before;
};

// Runs `wanted` once, on the calling thread, right before the next call that this thread makes of
// the function: for what another thread does between two steps. At most one at a time for one
// function.
class before_call {
public:
    before_call(const std::string& name, std::function<void()> wanted);
    ~before_call();
    before_call(const before_call&) = delete;
    before_call& operator=(const before_call&) = delete;

private:
    struct wrapped_call* call;
    std::function<void()> action;
};

// One call of setsockopt.
struct option_call {
    int level;
    int name;
    std::string value;
};

// The calls of setsockopt by this thread (WRAP setsockopt), until the scope ends. One at a time.
class recorded_options {
public:
    recorded_options();
    ~recorded_options();
    recorded_options(const recorded_options&) = delete;
    recorded_options& operator=(const recorded_options&) = delete;

    std::vector<option_call> calls;
};

// Adds to what a clock shows (WRAP clock_gettime), for the code under test alone, until the scope
// ends; further moves add up. CLOCK_MONOTONIC, or for the time of day CLOCK_REALTIME.
class moved_clock {
public:
    explicit moved_clock(int64_t milliseconds = 0, clockid_t moved = CLOCK_MONOTONIC);
    ~moved_clock();
    moved_clock(const moved_clock&) = delete;
    moved_clock& operator=(const moved_clock&) = delete;

    void move(int64_t milliseconds);
    void stop(); // from now on only moves move it: for what happens at an exact age

    // How often the clock was read since the program's start: a thread that polls it has seen the
    // last move for certain once this has grown by two.
    int64_t readings() const;

private:
    clockid_t clock;
};
