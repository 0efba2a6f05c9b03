// The access log: one JSON line a request, for machines.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace relay {

struct AccessRecord {
    std::chrono::system_clock::time_point time;
    std::string_view user; // address
    std::string_view device;
    std::string_view method;
    std::string_view target;
    unsigned status = 0;             // 0: the user went away before an answer
    std::uint64_t request_bytes = 0; // of body
    std::uint64_t answer_bytes = 0;  // of head and body, as sent
    std::chrono::duration<double, std::milli> duration{};
    std::string_view note; // why the relay answered by itself; empty when the device did
};

// Lines gather in memory and are written by flush(), four times a second: a write for each would be
// a good part of what a request costs.
class AccessLog {
public:
    AccessLog() = default;
    ~AccessLog();
    AccessLog(const AccessLog&) = delete;
    AccessLog& operator=(const AccessLog&) = delete;

    // `path` as in Config. Opens it again when it is open already, for log rotation. False: `error`
    // says why, and the log stays what it was.
    bool open(const std::string& path, std::string& error);
    void add(const AccessRecord& record);
    void flush();

private:
    int file_ = -1;
    std::string lines_;
    bool is_cut_ = false;    // the file ends within a line, with whose rest lines_ begins
    bool is_losing_ = false; // the last flush lost lines
};

} // namespace relay
