#include "supervisor/backoff.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <vector>

namespace {

TEST(Dice, NumbersFollowFromTheSeed) {
    // What the generator is published with: its first numbers for seed 0.
    constexpr int64_t MOST = INT64_MAX;
    dice generator = dice_of(0);
    EXPECT_EQ(dice_throw(&generator, MOST),
              static_cast<int64_t>(0xe220a8397b1dcdaf % (1ULL << 63)));
    EXPECT_EQ(dice_throw(&generator, MOST),
              static_cast<int64_t>(0x6e789e6aa1b965f4 % (1ULL << 63)));
    EXPECT_EQ(dice_throw(&generator, MOST),
              static_cast<int64_t>(0x06c45d188009454f % (1ULL << 63)));
}

TEST(Dice, AllNumbersUpToTheMostComeAboutEquallyOften) {
    dice generator = dice_of(1);
    std::vector<int> counts(10);
    for (int i = 0; i < 10000; i++) {
        int64_t number = dice_throw(&generator, 9);
        ASSERT_GE(number, 0);
        ASSERT_LE(number, 9);
        counts[static_cast<size_t>(number)]++;
    }
    EXPECT_GT(*std::min_element(counts.begin(), counts.end()), 850); // 1000 give or take five sigma
    EXPECT_LT(*std::max_element(counts.begin(), counts.end()), 1150);
}

TEST(Dice, NothingButZeroComesWhereZeroIsTheMost) {
    dice generator = dice_of(5);
    EXPECT_EQ(dice_throw(&generator, 0), 0);
}

TEST(Backoff, TheCeilingDoublesUpToTheMaximum) {
    dice generator = dice_of(3);
    backoff pauses = backoff_between(1000, 300000);
    for (int64_t ceiling :
         {1000, 2000, 4000, 8000, 16000, 32000, 64000, 128000, 256000, 300000, 300000}) {
        EXPECT_EQ(pauses.ceiling_ms, ceiling);
        int64_t pause = backoff_draw(&pauses, &generator);
        EXPECT_GE(pause, 0);
        EXPECT_LE(pause, ceiling);
    }
}

TEST(Backoff, AResetBringsTheShortPauseBack) {
    dice generator = dice_of(3);
    backoff pauses = backoff_between(1000, 300000);
    for (int i = 0; i < 5; i++) {
        backoff_draw(&pauses, &generator);
    }
    backoff_reset(&pauses);
    EXPECT_EQ(pauses.ceiling_ms, 1000);
}

TEST(Backoff, TheWholeRangeIsDrawnFrom) {
    dice generator = dice_of(4);
    backoff pauses = backoff_between(1000, 1000);
    int64_t least = 1000;
    int64_t most = 0;
    for (int i = 0; i < 1000; i++) {
        int64_t pause = backoff_draw(&pauses, &generator);
        least = std::min(least, pause);
        most = std::max(most, pause);
    }
    EXPECT_LT(least, 20);
    EXPECT_GT(most, 980);
}

} // namespace
