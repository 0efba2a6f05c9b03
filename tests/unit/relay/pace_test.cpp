#include "front/pace.h"

#include <gtest/gtest.h>

namespace relay {
namespace {

using namespace std::chrono_literals;

constexpr auto window = 10s;
constexpr std::size_t bytes_of_window = 10 * least_rate;
constexpr Clock::time_point start{1000s};

// The second in which a body that brings `bytes_a_second` is given up; 0: not within an hour.
int given_up(std::size_t bytes_a_second, std::size_t at_once = 0) {
    Pace pace(window, start);
    std::size_t bytes = at_once;
    auto due = pace.due(bytes, start);
    for (int second = 1; second <= 3600; ++second) {
        const auto now = start + std::chrono::seconds(second);
        if (due < now)
            return second;
        due = pace.due(bytes += bytes_a_second, now);
    }
    return 0;
}

TEST(Pace, GivesTheFirstBytesOneWindow) {
    Pace pace(window, start);
    EXPECT_EQ(pace.due(0, start), start + window);
    EXPECT_EQ(pace.due(bytes_of_window - 1, start + 9s), start + window);
}

TEST(Pace, GivesANewWindowForTheBytesOfOne) {
    Pace pace(window, start);
    EXPECT_EQ(pace.due(bytes_of_window, start + 3s), start + 3s + window);
    EXPECT_EQ(pace.due(2 * bytes_of_window - 1, start + 4s), start + 3s + window);
    EXPECT_EQ(pace.due(2 * bytes_of_window, start + 5s), start + 5s + window);
}

TEST(Pace, WaitsForWhoKeepsIt) {
    EXPECT_EQ(given_up(least_rate), 0);
    EXPECT_EQ(given_up(10 * least_rate), 0);
}

TEST(Pace, GivesUpWhoFallsBehindInTheFirstWindow) {
    EXPECT_EQ(given_up(0), 11);
    EXPECT_EQ(given_up(least_rate - 1), 11);
}

TEST(Pace, GivesNothingForWhatCameAtOnce) {
    EXPECT_EQ(given_up(100, 8 << 20), 11);
    EXPECT_EQ(given_up(least_rate - 1, 8 << 20), 11);
    EXPECT_EQ(given_up(least_rate, 8 << 20), 0);
}

} // namespace
} // namespace relay
