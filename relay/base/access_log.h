// The access log: one JSON line a request, for machines.
#pragma once

#include "base/background_writer.h"
#include "base/line_file.h"

#include <chrono>
#include <cstdint>
#include <memory>
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

// Lines gather in memory and are given to a writer by flush(), four times a second: a write for
// each would be a good part of what a request costs. Used on the relay's thread.
class AccessLog {
public:
    // `path` as in Config. Opens it again when it is open already, for log rotation; lines added
    // before go to the former file. False: `error` says why, and the log stays what it was.
    bool open(const std::string& path, std::string& error);
    void add(const AccessRecord& record);
    void flush();
    // Flushes, and waits a little until all is written.
    void finish();
    std::uint64_t lost_lines() const { return *lost_; }

private:
    std::string lines_;
    const LostLines lost_ = std::make_shared<std::atomic<std::uint64_t>>();
    bool is_behind_ = false; // the last flush found no room
    std::unique_ptr<BackgroundWriter> writer_;
};

} // namespace relay
