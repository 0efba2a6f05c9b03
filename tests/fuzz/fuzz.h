#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <unistd.h>

// What the fuzzers share. Each defines LLVMFuzzerTestOneInput, which gets one input, and ends the
// process when something is wrong: by a sanitizer, or by REQUIRE. The inputs come from libFuzzer in
// the preset fuzz, from replay.cpp in every other one. The functions have the names that libFuzzer
// looks for.

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// Runs once, before the first input. Optional.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

// A statement about the code under test that holds for every input.
#define REQUIRE(condition)                                                                         \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            dprintf(STDERR_FILENO, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition);  \
            abort();                                                                               \
        }                                                                                          \
    } while (0)

// Lets a stream of the code under test, stdout or stderr, go nowhere. libFuzzer, the sanitizers and
// REQUIRE write to the descriptor.
inline void silence(FILE*& stream) {
    stream = fopen("/dev/null", "w");
    REQUIRE(stream);
}

// Takes an input apart from its front. Behind its end there are zeros and empty texts.
class fuzz_input {
public:
    fuzz_input(const uint8_t* data, size_t size)
        : m_rest(reinterpret_cast<const char*>(data), size) {}

    bool is_empty() const { return m_rest.empty(); }
    uint8_t byte() {
        const std::string_view taken = take(1);
        return taken.empty() ? uint8_t{0} : static_cast<uint8_t>(taken[0]);
    }
    uint16_t number() {
        const unsigned high = byte();
        return static_cast<uint16_t>(high << 8 | byte());
    }
    std::string_view take(size_t count) {
        const std::string_view taken = m_rest.substr(0, count);
        m_rest.remove_prefix(taken.size());
        return taken;
    }
    // A text behind its length in 16 bits.
    std::string_view text() { return take(number()); }
    std::string_view rest() { return take(m_rest.size()); }

private:
    std::string_view m_rest;
};
