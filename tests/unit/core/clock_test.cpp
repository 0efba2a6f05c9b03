#include "core/clock.h"

#include <cstdlib>
#include <ctime>
#include <gmock/gmock.h>
#include <memory>
#include <string>

#include "support/failing_calls.h"

namespace {

constexpr int64_t MS_PER_SECOND = 1000;
constexpr int64_t TEN_YEARS_MS = 10LL * 365 * 24 * 3600 * 1000;
constexpr int64_t AN_HOUR_MS = 3600 * 1000;

int64_t monotonic_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

TEST(NowMs, IsTheMonotonicClockInMilliseconds) {
    int64_t before = monotonic_ms();
    int64_t now = cloud_now_ms();
    EXPECT_GE(now, before);
    EXPECT_LE(now, monotonic_ms());
}

TEST(NowMs, CountsPartsOfASecond) {
    int64_t before = cloud_now_ms();
    moved_clock clock(1);
    for (int moves = 1; moves < 1500; moves++) {
        clock.move(1);
    }
    int64_t passed = cloud_now_ms() - before;
    EXPECT_GE(passed, 1500);
    EXPECT_LT(passed, 1500 + MS_PER_SECOND);
}

TEST(NowMs, DoesNotOverflowInYearsOfUptime) {
    int64_t before = cloud_now_ms();
    moved_clock clock(TEN_YEARS_MS);
    int64_t passed = cloud_now_ms() - before;
    EXPECT_GE(passed, TEN_YEARS_MS);
    EXPECT_LT(passed, TEN_YEARS_MS + AN_HOUR_MS);
}

TEST(NowMs, NeverGoesBackwardsWhenTheWallClockIsChanged) {
    int64_t before = cloud_now_ms();
    for (int64_t change : {-AN_HOUR_MS, AN_HOUR_MS, -TEN_YEARS_MS, TEN_YEARS_MS}) {
        moved_clock wall(change, CLOCK_REALTIME);
        int64_t now = cloud_now_ms();
        EXPECT_GE(now, before);
        EXPECT_LT(now, before + AN_HOUR_MS);
        before = now;
    }
}

// --- cloud_time_str ---

struct free_deleter {
    void operator()(char* text) const { free(text); }
};
using text_ptr = std::unique_ptr<char, free_deleter>;

struct TimeStr : testing::Test {
    ~TimeStr() override {
        unsetenv("TZ");
        tzset();
    }

    static void live_in(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }

    static std::string local_second() {
        time_t now = time(nullptr);
        tm local = {};
        localtime_r(&now, &local);
        char text[32];
        strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
        return text;
    }
};

TEST_F(TimeStr, IsTheLocalTimeToTheMillisecond) {
    live_in("XYZ-5:30");
    // Around a change of second either reading of it is right.
    std::string before = local_second();
    text_ptr text(cloud_time_str());
    std::string after = local_second();
    ASSERT_NE(text, nullptr);
    EXPECT_THAT(text.get(), testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} "
                                                  "[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}"));
    EXPECT_GE(std::string(text.get()).substr(0, before.size()), before);
    EXPECT_LE(std::string(text.get()).substr(0, after.size()), after);
}

TEST_F(TimeStr, FollowsTheTimeZone) {
    live_in("XYZ-5:30");
    text_ptr east(cloud_time_str());
    live_in("XYZ+5:30");
    text_ptr west(cloud_time_str());
    EXPECT_GT(std::string(east.get()), std::string(west.get()));
}

TEST_F(TimeStr, IsNullWhenTheTimeCannotBeConverted) {
    fail_call failure("localtime_r");
    EXPECT_EQ(cloud_time_str(), nullptr);
    EXPECT_TRUE(failure.happened());
}

TEST_F(TimeStr, IsNullWhenMemoryIsShort) {
    fail_call failure("malloc");
    EXPECT_EQ(cloud_time_str(), nullptr);
    EXPECT_TRUE(failure.happened());
}

} // namespace
