// A log file, which holds whole lines whatever happens to the disk. Used on one thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace relay {

// Of one log, in all its files. Written by the threads that lose them.
using LostLines = std::shared_ptr<std::atomic<std::uint64_t>>;

class LineFile {
public:
    // Owns `descriptor`, unless it is one of the three that every process has. `name` is the log's
    // in messages.
    LineFile(int descriptor, std::string name, LostLines lost);
    ~LineFile();
    LineFile(const LineFile&) = delete;
    LineFile& operator=(const LineFile&) = delete;

    // A reader that is gone, or a full disk, loses lines, which are counted, but cuts none: the
    // rest of a line of which the file took a part leads the next call. The log tells when lines
    // begin to be lost and when they are written again.
    void write(std::string_view lines);

private:
    void note(bool is_losing, const char* why);

    const int descriptor_;
    const std::string name_;
    const LostLines lost_;
    std::string rest_; // of the line within which the file ends
    bool is_losing_ = false;
};

} // namespace relay
