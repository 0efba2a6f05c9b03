// Counts what strangers can make happen thousands of times a second, and logs it without becoming
// part of the flood: the first one at once, the others once a minute, with their number.
#pragma once

#include "base/deadlines.h"

#include <cstdint>
#include <functional>

namespace relay {

class Tally {
public:
    // `total` is a metric and outlives the tally. `log` writes the line about `count` of them.
    Tally(Deadlines& deadlines, std::uint64_t& total, std::function<void(std::uint64_t count)> log);

    void add();

private:
    void log_new_ones();

    std::uint64_t& total_;
    std::uint64_t logged_ = 0; // of total_
    const std::function<void(std::uint64_t)> log_;
    Deadline log_again_;
};

} // namespace relay
