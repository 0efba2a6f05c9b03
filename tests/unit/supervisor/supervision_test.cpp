#include "supervisor/supervision.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <string>

#include "supervisor/identification.h"
#include "support/log_capture.h"

namespace {

using testing::HasSubstr;

constexpr int WORKER = 4711;
constexpr int NEXT_WORKER = 4712;
constexpr uint64_t SOCKET = 900;

// A supervision whose clock the test turns. Time is in seconds; turns are taken when they are due,
// with what the test says is to be seen.
class Supervision : public testing::Test {
protected:
    Supervision() {
        config.servers[0] = {"10.0.0.1", 443};
        config.servers[1] = {"relay.example", 8443};
        config.server_count = 2;
        config.boot_delay_ms = 0;
        view.daemon = true;
    }

    void start() { supervision_init(&mind, config, 11, now); }

    // On the bus, nothing to be seen: the first attempt comes at once.
    void start_and_call() {
        start();
        supervision_object(&mind, presence::there, now);
        ASSERT_EQ(next_order(), order::reload);
    }

    // A session that the supervisor has brought about and that is calm.
    void start_and_connect() {
        start_and_call();
        answer(0);
        see_session(WORKER, SOCKET);
        pass(3);
        ASSERT_EQ(state(), "connected");
    }

    // --- what the daemon does ---

    void see_worker(int worker) {
        view = {};
        view.daemon = true;
        view.worker = worker;
    }

    void see_session(int worker, uint64_t inode, const char* address = "10.0.0.1",
                     uint16_t port = 443) {
        see_worker(worker);
        view.calm = true;
        view.established = true;
        view.inode = inode;
        view.address = inet_addr(address);
        view.port = port;
    }

    void see_nothing() {
        view = {};
        view.daemon = true;
    }

    void answer(int status) { supervision_call_ended(&mind, status, now); }

    // --- time ---

    // Takes the turns that are due within that time; the first order ends it early.
    order pass(double seconds) {
        int64_t end = now + static_cast<int64_t>(seconds * 1000);
        while (supervision_next_turn(&mind) <= end) {
            now = std::max(now, supervision_next_turn(&mind));
            order given = turn();
            if (given != order::none) {
                return given;
            }
        }
        now = end;
        return order::none;
    }

    order turn() {
        EXPECT_GE(now - last_look, 0);
        if (last_look == 0 || now - last_look >= 1000) { // as the watch does
            last_look = now;
            view.at = now;
            fresh = view;
        }
        turns++;
        turns_now = now == last_turn ? turns_now + 1 : 0;
        last_turn = now;
        EXPECT_LT(turns_now, 5) << "it spins";
        return supervision_turn(&mind, fresh, now);
    }

    order next_order(double within = 1000) { return pass(within); }

    // --- what is asked ---

    std::string state() const {
        return supervision_state_name(supervision_status(&mind, now).state);
    }
    std::string toward() const { return server_show(supervision_server(&mind)).text; }
    supervision_report status() const { return supervision_status(&mind, now); }

    log_capture log;
    configuration config = configuration_defaults();
    supervision mind = {};
    sighting view = {};  // what there is to be seen
    sighting fresh = {}; // what was seen last
    int64_t now = 1000000;
    int64_t last_look = 0;
    int turns = 0;
    int64_t last_turn = 0;
    int turns_now = 0; // in the same millisecond
};

// --- starting ---

TEST_F(Supervision, NothingIsCalledWithoutTheDaemonOnTheBus) {
    config.object_timeout_ms = 3600000;
    start();
    EXPECT_EQ(pass(100), order::none);
    supervision_object(&mind, presence::missing, now);
    EXPECT_EQ(pass(100), order::none);
    EXPECT_EQ(state(), "waiting");
    EXPECT_EQ(status().next_try_ms, 0);
    supervision_object(&mind, presence::there, now);
    EXPECT_EQ(pass(1), order::reload);
    EXPECT_EQ(toward(), "10.0.0.1:443");
}

TEST_F(Supervision, TheDelayAtBootBeginsWhenTheDaemonIsThere) {
    config.boot_delay_ms = 10000;
    start();
    pass(60);
    int64_t there = now;
    supervision_object(&mind, presence::there, now);
    EXPECT_EQ(next_order(), order::reload);
    EXPECT_THAT(log.text(), HasSubstr("first attempt in "));
    EXPECT_LE(now - there, 10000);
    EXPECT_GT(now - there, 0);
}

TEST_F(Supervision, ASessionThatIsUpAtTheStartIsAdopted) {
    see_session(WORKER, SOCKET);
    start();
    supervision_object(&mind, presence::there, now);
    EXPECT_EQ(pass(3600), order::none);
    EXPECT_EQ(state(), "connected");
    EXPECT_STREQ(status().toward.text, "10.0.0.1:443");
    EXPECT_EQ(status().attempts, 0U);
}

TEST_F(Supervision, ADaemonThatCannotBeSeenIsNotCalled) {
    start();
    view.daemon = false;
    supervision_object(&mind, presence::there, now);
    EXPECT_EQ(pass(3600), order::none);
    EXPECT_EQ(log.text().find("cannot be seen"), log.text().rfind("cannot be seen")); // said once
    EXPECT_THAT(log.text(), HasSubstr("cannot be seen"));
    see_nothing();
    EXPECT_EQ(pass(6), order::reload);
}

// --- attempts and sessions ---

TEST_F(Supervision, NoTurnIsTakenWhileACallIsOut) {
    start_and_call();
    EXPECT_EQ(supervision_next_turn(&mind), INT64_MAX);
    EXPECT_EQ(state(), "connecting");
}

TEST_F(Supervision, AWorkerHasTimeToShowAfterTheCall) {
    start_and_call();
    answer(0);
    int64_t answered = now;
    EXPECT_GE(supervision_next_turn(&mind), answered + 500);
    EXPECT_EQ(state(), "connecting");
}

TEST_F(Supervision, AWorkerThatNeverShowsIsAFailure) {
    start_and_call();
    answer(0);
    EXPECT_EQ(next_order(), order::reload);
    EXPECT_THAT(log.text(), HasSubstr("10.0.0.1:443: no connection came about; next attempt in "));
    EXPECT_EQ(status().attempts, 2U);
}

TEST_F(Supervision, ACallThatFailsIsAFailure) {
    start_and_call();
    answer(8);
    EXPECT_EQ(state(), "waiting");
    EXPECT_THAT(status().reason, HasSubstr("the daemon's reload ended with status 8"));
    EXPECT_EQ(next_order(), order::reload);
}

TEST_F(Supervision, ACallThatTimedOutButWorkedIsNotRepeated) {
    start_and_call();
    now += 15000;
    answer(7);
    see_session(WORKER, SOCKET);
    EXPECT_EQ(pass(3600), order::none);
    EXPECT_EQ(state(), "connected");
}

TEST_F(Supervision, AConnectionAloneIsNotYetASession) {
    start_and_call();
    answer(0);
    see_session(WORKER, SOCKET);
    view.calm = false;
    pass(45);
    EXPECT_EQ(state(), "connecting");
    pass(10); // longer than any handshake
    EXPECT_EQ(state(), "connected");
}

TEST_F(Supervision, AnotherConnectionBeginsTheWaitAnew) {
    start_and_call();
    answer(0);
    see_session(WORKER, SOCKET);
    view.calm = false;
    pass(40);
    view.inode = SOCKET + 1; // the relay's next address
    pass(40);
    EXPECT_EQ(state(), "connecting");
    pass(15);
    EXPECT_EQ(state(), "connected");
}

TEST_F(Supervision, ASessionIsNeverReloadedWhileItIsUp) {
    start_and_connect();
    EXPECT_EQ(pass(48 * 3600), order::none);
    EXPECT_EQ(state(), "connected");
}

TEST_F(Supervision, WhatIsUpIsLookedAtOnceASecond) {
    start_and_connect();
    int before = turns;
    pass(100);
    EXPECT_NEAR(turns - before, 100, 1);
}

TEST_F(Supervision, ASessionThatLivedAMinuteIsASuccess) {
    start_and_connect();
    pass(61);
    see_nothing();
    EXPECT_EQ(next_order(), order::reload);
    EXPECT_THAT(log.text(), HasSubstr("the session ended after 6"));
    EXPECT_THAT(log.text(), HasSubstr("(at most 1.000 s)"));
    EXPECT_EQ(status().attempts, 1U); // counted anew
    EXPECT_EQ(toward(), "10.0.0.1:443");
}

TEST_F(Supervision, AHandshakeThatHangsIsNoSuccessHoweverLittleASuccessTakes) {
    config.success_after_ms = 1000;
    start_and_call();
    answer(0);
    see_session(WORKER, SOCKET);
    view.calm = false;
    pass(40);
    see_nothing();
    EXPECT_EQ(next_order(), order::reload);
    EXPECT_EQ(status().attempts, 2U);
}

TEST_F(Supervision, SessionsThatDieYoungAreFailures) {
    start_and_call();
    for (int most : {1, 2, 4}) {
        answer(0);
        see_session(WORKER + most, SOCKET + static_cast<uint64_t>(most));
        pass(55);
        see_nothing();
        ASSERT_EQ(next_order(), order::reload);
        EXPECT_THAT(log.text(), HasSubstr("(at most " + std::to_string(most) + ".000 s)"));
    }
    EXPECT_EQ(toward(), "relay.example:8443");
}

TEST_F(Supervision, TheServerOfASuccessKeepsItsTurn) {
    start_and_call();
    for (int i = 0; i < 3; i++) {
        answer(6);
        ASSERT_EQ(next_order(), order::reload);
    }
    ASSERT_EQ(toward(), "relay.example:8443");
    answer(0);
    see_session(WORKER, SOCKET, "10.0.0.9", 8443);
    pass(100);
    EXPECT_STREQ(status().toward.text, "relay.example:8443");
    see_nothing();
    EXPECT_EQ(next_order(), order::reload);
    EXPECT_EQ(toward(), "relay.example:8443");
}

TEST_F(Supervision, AWorkerWithoutConnectionIsGivenUpAfterTwoMinutes) {
    start_and_call();
    answer(0);
    see_worker(WORKER);
    EXPECT_EQ(pass(119), order::none);
    EXPECT_EQ(state(), "connecting");
    EXPECT_EQ(next_order(10), order::reload);
    EXPECT_THAT(log.text(), HasSubstr("still without a connection, so it is given up"));
    answer(0);
    see_session(NEXT_WORKER, SOCKET);
    pass(3);
    EXPECT_EQ(state(), "connected");
}

TEST_F(Supervision, AGivenUpWorkerThatConnectsAfterAllIsNotReloaded) {
    config.pause_min_ms = config.pause_max_ms = 3600000;
    start_and_call();
    answer(0);
    see_worker(WORKER);
    pass(125);
    ASSERT_EQ(state(), "waiting");
    see_session(WORKER, SOCKET);
    EXPECT_EQ(pass(3 * 3600), order::none);
    EXPECT_EQ(state(), "connected");
}

TEST_F(Supervision, ASessionWhoseAddressIsGoneIsReplaced) {
    start_and_connect();
    view.cut_off = true;
    EXPECT_EQ(next_order(10), order::reload);
    EXPECT_THAT(log.text(), HasSubstr("own address is gone"));
}

TEST_F(Supervision, AnAddressThatIsGoneForAMomentChangesNothing) {
    start_and_connect();
    view.cut_off = true;
    pass(2);
    view.cut_off = false;
    EXPECT_EQ(pass(3600), order::none);
    EXPECT_EQ(state(), "connected");
}

// --- sessions of somebody else ---

TEST_F(Supervision, SomebodyElsesSessionElsewhereIsReplacedAtOnce) {
    see_session(WORKER, SOCKET, "10.0.0.66", 443);
    start();
    supervision_object(&mind, presence::there, now);
    EXPECT_EQ(pass(2), order::reload);
    EXPECT_THAT(log.text(), HasSubstr("leads to a server that is not listed"));
}

TEST_F(Supervision, SomebodyElsesSessionOnAnotherPortIsReplacedOnceItIsSurelyOne) {
    see_worker(WORKER);
    start();
    supervision_object(&mind, presence::there, now);
    EXPECT_EQ(pass(20), order::none); // it may be connecting still
    view.calm = true;
    EXPECT_EQ(pass(2), order::reload);
}

TEST_F(Supervision, SomebodyElsesSessionIsJudgedByEachOfItsConnections) {
    see_session(WORKER, SOCKET);
    start();
    supervision_object(&mind, presence::there, now);
    pass(10);
    ASSERT_EQ(state(), "connected");
    see_session(WORKER, SOCKET + 1, "10.0.0.66", 443);
    EXPECT_EQ(pass(2), order::reload);
}

TEST_F(Supervision, AWorkerThatOutlivesItsReplacementIsNotTakenForTheNewOne) {
    see_session(WORKER, SOCKET, "10.0.0.66", 443);
    start();
    supervision_object(&mind, presence::there, now);
    int64_t replaced = 0;
    for (int i = 0; i < 5; i++) {
        ASSERT_EQ(next_order(10), order::reload);
        EXPECT_GE(now - replaced, 5000); // and the daemon is not called over and over
        replaced = now;
        answer(0);
        pass(4);
        EXPECT_EQ(state(), "connecting");
    }
}

TEST_F(Supervision, WhatMayLeadToANameIsIdentified) {
    see_session(WORKER, SOCKET, "10.0.0.9", 8443);
    start();
    supervision_object(&mind, presence::there, now);
    EXPECT_EQ(pass(2), order::identify);
    EXPECT_EQ(pass(10), order::none); // while it is resolved
    supervision_identified(&mind, 1, now);
    EXPECT_EQ(pass(3600), order::none);
    EXPECT_EQ(state(), "connected");
    EXPECT_STREQ(status().toward.text, "relay.example:8443");
}

TEST_F(Supervision, ANameThatDoesNotResolveIsAskedForAgainAndNothingIsReloaded) {
    see_session(WORKER, SOCKET, "10.0.0.9", 8443);
    start();
    supervision_object(&mind, presence::there, now);
    for (int i = 0; i < 20; i++) {
        int64_t asked = now;
        ASSERT_EQ(next_order(), order::identify);
        EXPECT_TRUE(i == 0 || now - asked >= 29000);
        supervision_identified(&mind, SERVER_UNKNOWN, now);
    }
    supervision_identified(&mind, SERVER_NONE, now);
    EXPECT_EQ(next_order(), order::reload);
}

TEST_F(Supervision, AnAnswerAboutASessionThatIsGoneIsIgnored) {
    see_session(WORKER, SOCKET, "10.0.0.9", 8443);
    start();
    supervision_object(&mind, presence::there, now);
    ASSERT_EQ(pass(2), order::identify);
    see_nothing();
    ASSERT_EQ(next_order(), order::reload);
    supervision_identified(&mind, SERVER_NONE, now);
    answer(0);
    see_session(NEXT_WORKER, SOCKET + 1);
    pass(3);
    ASSERT_EQ(state(), "connected");
    supervision_identified(&mind, SERVER_NONE, now);
    EXPECT_EQ(pass(3600), order::none);
    EXPECT_EQ(state(), "connected");
}

// --- connect and disconnect ---

TEST_F(Supervision, AnInterfaceThatComesUpEndsThePauseAndMakesThemShortAgain) {
    start_and_call();
    for (int i = 0; i < 12; i++) {
        answer(6);
        ASSERT_EQ(next_order(), order::reload);
    }
    answer(6);
    log.clear();
    EXPECT_TRUE(supervision_connect(&mind, "wan", now));
    EXPECT_EQ(pass(0.01), order::reload);
    answer(6);
    EXPECT_THAT(log.text(), HasSubstr("(at most 1.000 s)"));
}

TEST_F(Supervision, ConnectChangesNothingAboutASessionThatIsUp) {
    start_and_connect();
    for (int i = 0; i < 10; i++) {
        supervision_connect(&mind, i % 2 == 0 ? nullptr : "wan", now);
        EXPECT_EQ(pass(7), order::none);
    }
    EXPECT_EQ(state(), "connected");
}

TEST_F(Supervision, DisconnectIsRepeatedUntilTheWorkerIsGone) {
    start_and_call();
    answer(0);
    see_worker(WORKER);
    pass(2);
    supervision_disconnect(&mind, now);
    EXPECT_EQ(state(), "idle");
    int64_t stopped = 0;
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(next_order(10), order::stop);
        EXPECT_GE(now - stopped, 5000);
        stopped = now;
        answer(0);
    }
    see_nothing();
    EXPECT_EQ(pass(3600), order::none);
    EXPECT_EQ(supervision_next_turn(&mind), INT64_MAX);
}

TEST_F(Supervision, ADisconnectDuringTheCallEndsWhatComesOfIt) {
    start_and_call();
    supervision_disconnect(&mind, now);
    answer(0);
    see_session(WORKER, SOCKET);
    EXPECT_EQ(next_order(10), order::stop);
}

TEST_F(Supervision, OnlyAPersonEndsADisconnect) {
    start_and_connect();
    supervision_disconnect(&mind, now);
    ASSERT_EQ(next_order(), order::stop);
    answer(0);
    see_nothing();
    pass(5);
    EXPECT_TRUE(supervision_connect(&mind, "wan", now));
    EXPECT_EQ(pass(100), order::none);
    EXPECT_EQ(state(), "idle");
    EXPECT_TRUE(supervision_connect(&mind, nullptr, now));
    EXPECT_EQ(pass(1), order::reload);
}

TEST_F(Supervision, AnInterfaceThatComesUpDuringAnAttemptSparesThePauseAfterIt) {
    config.pause_min_ms = config.pause_max_ms = 3600000;
    start_and_call();
    answer(0);
    see_worker(WORKER);
    pass(3);
    supervision_connect(&mind, "wan", now);
    EXPECT_EQ(pass(5), order::none); // the attempt is not disturbed
    see_nothing();
    EXPECT_EQ(pass(2), order::reload);
}

// --- configuration ---

TEST_F(Supervision, ANewListThatKeepsTheServerKeepsTheSession) {
    start_and_connect();
    std::swap(config.servers[0], config.servers[1]);
    supervision_configure(&mind, config, now);
    EXPECT_EQ(state(), "connected");
    EXPECT_EQ(pass(3600), order::none);
}

TEST_F(Supervision, ANewListWithoutTheServerReplacesTheSession) {
    start_and_connect();
    config.servers[0] = {"10.0.0.2", 443};
    supervision_configure(&mind, config, now);
    EXPECT_EQ(state(), "connecting");
    EXPECT_EQ(pass(2), order::reload);
    EXPECT_EQ(toward(), "10.0.0.2:443");
}

TEST_F(Supervision, AListThatBecameEmptyLeavesTheSessionAlone) {
    start_and_connect();
    configuration empty = config;
    empty.server_count = 0;
    supervision_configure(&mind, empty, now);
    EXPECT_EQ(state(), "idle");
    EXPECT_EQ(pass(3600), order::none);
    supervision_configure(&mind, config, now);
    EXPECT_EQ(pass(3600), order::none);
    EXPECT_EQ(state(), "connected");
}

TEST_F(Supervision, DisablingStopsAndEnablingStarts) {
    start_and_connect();
    config.enabled = false;
    supervision_configure(&mind, config, now);
    EXPECT_EQ(state(), "disabled");
    EXPECT_EQ(next_order(), order::stop);
    answer(0);
    see_nothing();
    EXPECT_EQ(pass(3600), order::none);
    EXPECT_FALSE(supervision_connect(&mind, nullptr, now));
    EXPECT_TRUE(supervision_connect(&mind, "wan", now));
    see_session(NEXT_WORKER, SOCKET + 1); // somebody else's
    supervision_configure(&mind, config, now);
    EXPECT_EQ(pass(10), order::none);
    see_nothing();
    config.enabled = true;
    supervision_configure(&mind, config, now);
    EXPECT_EQ(pass(1), order::reload);
}

TEST_F(Supervision, ASupervisorThatStartsDisabledStopsNothing) {
    config.enabled = false;
    see_session(WORKER, SOCKET);
    start();
    supervision_object(&mind, presence::there, now);
    EXPECT_EQ(pass(3600), order::none);
}

// --- the bus ---

TEST_F(Supervision, AMissingDaemonIsRestartedWithGrowingPatience) {
    start();
    supervision_object(&mind, presence::missing, now);
    view.daemon = false;
    int64_t began = now;
    for (int64_t after : {30, 90, 210, 450}) { // 30, then 60, 120, 240 s more
        ASSERT_EQ(next_order(), order::restart_daemon);
        EXPECT_NEAR(static_cast<double>(now - began) / 1000, static_cast<double>(after), 1);
    }
    EXPECT_THAT(log.errors(), HasSubstr("cloud_relayc has been missing on the bus for 30 s"));
}

TEST_F(Supervision, ABusThatIsAwayIsNoMissingDaemon) {
    start();
    supervision_object(&mind, presence::missing, now);
    pass(20);
    supervision_object(&mind, presence::no_bus, now);
    EXPECT_EQ(pass(3600), order::none);
    supervision_object(&mind, presence::missing, now);
    EXPECT_EQ(pass(29), order::none);
    EXPECT_EQ(pass(2), order::restart_daemon);
}

TEST_F(Supervision, ASessionThatIsUpIsNotSacrificedForAMissingObject) {
    start_and_connect();
    supervision_object(&mind, presence::missing, now);
    EXPECT_EQ(pass(3600), order::none);
    EXPECT_THAT(log.errors(), HasSubstr("missing on the bus"));
    EXPECT_EQ(state(), "connected");
}

TEST_F(Supervision, ARestartOfTheBusLeavesTheSessionAlone) {
    start_and_connect();
    supervision_object(&mind, presence::no_bus, now);
    pass(5);
    supervision_object(&mind, presence::missing, now);
    pass(2);
    supervision_object(&mind, presence::there, now);
    EXPECT_EQ(pass(3600), order::none);
    EXPECT_EQ(state(), "connected");
}

TEST_F(Supervision, StatusTellsWhatIsPlanned) {
    start_and_call();
    answer(6);
    supervision_report report = status();
    EXPECT_EQ(report.state, supervision_state::waiting);
    EXPECT_LE(report.next_try_ms, 1000);
    EXPECT_EQ(report.since_ms, 0);
    EXPECT_EQ(report.attempts, 1U);
    EXPECT_STREQ(report.toward.text, "10.0.0.1:443");
}

} // namespace
