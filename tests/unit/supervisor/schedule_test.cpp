#include "supervisor/schedule.h"

#include <gtest/gtest.h>
#include <string>

#include "support/log_capture.h"

namespace {

constexpr int64_t NOW = 1000000;

class Schedule : public testing::Test {
protected:
    Schedule() {
        config.servers[0] = {"first", 1};
        config.servers[1] = {"second", 2};
        config.server_count = 2;
        config.boot_delay_ms = 0;
        plan = schedule_begin(config, 9);
        schedule_first(&plan, config, NOW);
    }

    std::string turn() const { return config.servers[plan.chosen].host; }
    planned_pause fail(int64_t now = NOW) { return schedule_after_failure(&plan, config, now); }

    log_capture log;
    configuration config = configuration_defaults();
    schedule plan = {};
};

TEST_F(Schedule, TheFirstAttemptIsDueWithinTheDelayAtBoot) {
    config.boot_delay_ms = 10000;
    for (uint64_t seed = 0; seed < 50; seed++) {
        schedule fresh = schedule_begin(config, seed);
        EXPECT_TRUE(fresh.booting);
        planned_pause first = schedule_first(&fresh, config, NOW);
        EXPECT_EQ(fresh.due_at, NOW + first.ms);
        EXPECT_LE(first.ms, 10000);
        EXPECT_EQ(first.most_ms, 10000);
        EXPECT_FALSE(fresh.booting);
    }
}

TEST_F(Schedule, EachFailureDoublesWhatThePauseCanBe) {
    for (int64_t most : {1000, 2000, 4000, 8000}) {
        planned_pause pause = fail();
        EXPECT_EQ(pause.most_ms, most);
        EXPECT_EQ(plan.due_at, NOW + pause.ms);
        EXPECT_LE(pause.ms, most);
    }
}

TEST_F(Schedule, TheThirdFailureHandsOnToTheNextServerAndRound) {
    for (const char* expected : {"first", "first", "second", "second", "second", "first"}) {
        fail();
        EXPECT_EQ(turn(), expected);
    }
    EXPECT_EQ(log.text(), "first:1: 3 failures in a row; second:2 is next\n"
                          "second:2: 3 failures in a row; first:1 is next\n");
}

TEST_F(Schedule, ASingleServerKeepsItsTurn) {
    config.server_count = 1;
    for (int i = 0; i < 10; i++) {
        fail();
        EXPECT_EQ(turn(), "first");
    }
    EXPECT_EQ(log.text(), "");
}

TEST_F(Schedule, ASuccessMakesThePauseShortAndKeepsItsServer) {
    plan.attempts = 5;
    for (int i = 0; i < 5; i++) {
        fail();
    }
    EXPECT_EQ(schedule_after_success(&plan, config, &config.servers[1], NOW).most_ms, 1000);
    EXPECT_EQ(turn(), "second");
    EXPECT_EQ(plan.failures, 0);
    EXPECT_EQ(plan.attempts, 0U);
    EXPECT_EQ(fail().most_ms, 2000); // one failure after one success
}

TEST_F(Schedule, ASuccessWithAServerThatIsNotListedChangesNoTurn) {
    server gone = {"gone", 1};
    schedule_after_success(&plan, config, &gone, NOW);
    EXPECT_EQ(turn(), "first");
    schedule_after_success(&plan, config, nullptr, NOW);
    EXPECT_EQ(turn(), "first");
}

TEST_F(Schedule, HurryTakesEffectOnceInItsInterval) {
    plan.due_at = NOW + 100000;
    schedule_hurry(&plan, config, NOW);
    EXPECT_EQ(plan.due_at, NOW);
    plan.due_at = NOW + 100000;
    schedule_hurry(&plan, config, NOW + 2000);
    EXPECT_EQ(plan.due_at, NOW + 5000);
    schedule_hurry(&plan, config, NOW + 3000);
    EXPECT_EQ(plan.due_at, NOW + 5000); // put off once, not again and again
    plan.due_at = NOW + 100000;
    schedule_hurry(&plan, config, NOW + 20000);
    EXPECT_EQ(plan.due_at, NOW + 20000);
}

TEST_F(Schedule, HurryPutsNothingOff) {
    plan.due_at = NOW + 100000;
    schedule_hurry(&plan, config, NOW);
    plan.due_at = NOW + 300;
    schedule_hurry(&plan, config, NOW + 100);
    EXPECT_EQ(plan.due_at, NOW + 300);
}

TEST_F(Schedule, HurryDoesNotWaitForTheDelayAtBoot) {
    schedule fresh = schedule_begin(config, 1);
    schedule_hurry(&fresh, config, NOW);
    EXPECT_FALSE(fresh.booting);
    EXPECT_EQ(fresh.due_at, NOW);
}

TEST_F(Schedule, AHurriedAttemptsFailureIsFollowedByAnotherAtOnce) {
    plan.hurried = true;
    config.pause_min_ms = config.pause_max_ms = 3600000;
    plan.pauses = backoff_between(config.pause_min_ms, config.pause_max_ms);
    EXPECT_EQ(fail().ms, 0);
    EXPECT_GT(fail().ms, 0);
}

TEST_F(Schedule, AChangedListKeepsTheTurnOfAServerThatIsStillListed) {
    for (int i = 0; i < 4; i++) {
        fail();
    }
    ASSERT_EQ(turn(), "second");
    configuration before = config;
    config.servers[0] = {"new", 3};
    schedule_configure(&plan, before, config, NOW);
    EXPECT_EQ(turn(), "second");
    EXPECT_EQ(plan.failures, 1);
    EXPECT_LE(plan.due_at, NOW);
    EXPECT_EQ(fail().most_ms, 1000);
}

TEST_F(Schedule, AServerThatIsNoLongerListedLosesItsTurn) {
    for (int i = 0; i < 4; i++) {
        fail();
    }
    configuration before = config;
    config.server_count = 1;
    schedule_configure(&plan, before, config, NOW);
    EXPECT_EQ(turn(), "first");
    EXPECT_EQ(plan.failures, 0);
}

TEST_F(Schedule, AChangeOfSomethingElseDoesNotShortenThePause) {
    plan.due_at = NOW + 5000;
    configuration before = config;
    config.success_after_ms = 1000;
    schedule_configure(&plan, before, config, NOW);
    EXPECT_EQ(plan.due_at, NOW + 5000);
}

} // namespace
