// How fast the body of a request has to come.
#pragma once

#include "base/asio.h"

namespace relay {

// The slowest user that is waited for, in bytes a second.
constexpr std::size_t least_rate = 4096;

// A body has to bring `least_rate` in each window. The next window begins when one has brought its
// bytes, whatever was left of its time and however many they were: what came quickly buys no time.
class Pace {
public:
    Pace(std::chrono::seconds window, Clock::time_point now)
        : window_(window), bytes_of_window_(least_rate * static_cast<std::size_t>(window.count())),
          due_(now + window) {}

    // When the window ends, after `bytes` have come in all.
    Clock::time_point due(std::size_t bytes, Clock::time_point now) {
        if (bytes - bytes_before_ >= bytes_of_window_) {
            bytes_before_ = bytes;
            due_ = now + window_;
        }
        return due_;
    }

private:
    const std::chrono::seconds window_;
    const std::size_t bytes_of_window_;
    std::size_t bytes_before_ = 0; // of former windows
    Clock::time_point due_;
};

} // namespace relay
