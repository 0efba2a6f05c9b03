#include "supervisor.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <sys/random.h>

extern "C" {
#include <libubox/uloop.h>
}

#include "bus.h"
#include "clock.h"
#include "configuration.h"
#include "identification.h"
#include "log.h"
#include "session_watch.h"
#include "supervision.h"

namespace {

constexpr char DAEMON_PROGRAM[] = "cloud_relay_client";
// For tests that foretell the pauses.
constexpr char SEED_VARIABLE[] = "CLOUD_RELAY_SUPERVISOR_SEED";
constexpr int64_t TIMER_MOST_MS = 3600000; // a turn that comes too early does no harm

supervision mind;
session_watch watch;

void on_turn(uloop_timeout* timer);

uloop_timeout make_timer(uloop_timeout_handler callback) {
    uloop_timeout timer = {};
    timer.cb = callback;
    return timer;
}

uloop_timeout turn_timer = make_timer(on_turn);

// After every event: the next turn may have moved.
void set_timer() {
    int64_t next = supervision_next_turn(&mind);
    if (next == INT64_MAX) {
        uloop_timeout_cancel(&turn_timer);
        return;
    }
    int64_t wait = std::clamp<int64_t>(next - now_ms(), 0, TIMER_MOST_MS);
    uloop_timeout_set(&turn_timer, static_cast<int>(wait));
}

void on_identified(int found) {
    supervision_identified(&mind, found, now_ms());
    set_timer();
}

void carry_out(order what) {
    switch (what) {
    case order::none:
        break;
    case order::reload:
        bus_reload(supervision_server(&mind));
        break;
    case order::stop:
        bus_stop();
        break;
    case order::identify:
        identify_start(mind.config.servers, mind.config.server_count, mind.seen.address,
                       mind.seen.port, on_identified);
        break;
    case order::restart_daemon:
        bus_restart_daemon();
        break;
    }
}

void on_turn(uloop_timeout* /*timer*/) {
    int64_t now = now_ms();
    if (now >= supervision_next_turn(&mind)) {
        carry_out(supervision_turn(&mind, session_watch_look(&watch, now), now));
    }
    set_timer();
}

// --- what the bus tells ---

void on_presence(presence object) {
    supervision_object(&mind, object, now_ms());
    set_timer();
}

void on_call_ended(int status) {
    supervision_call_ended(&mind, status, now_ms());
    set_timer();
}

bool on_connect(const char* interface) {
    bool allowed = supervision_connect(&mind, interface, now_ms());
    set_timer();
    return allowed;
}

void on_disconnect() {
    supervision_disconnect(&mind, now_ms());
    set_timer();
}

// A file that cannot be read changes nothing.
void on_reload() {
    configuration fresh = {};
    if (!configuration_read(nullptr, &fresh)) {
        return;
    }
    identify_cancel();
    session_watch_expect(&watch, fresh.servers, fresh.server_count);
    supervision_configure(&mind, fresh, now_ms());
    set_timer();
}

supervision_report on_status() {
    return supervision_status(&mind, now_ms());
}

constexpr bus_listener LISTENER = {on_presence,   on_call_ended, on_connect,
                                   on_disconnect, on_reload,     on_status};

// --- start ---

// Signals wait until uloop runs, which forgets a request to end that came earlier.
void set_signals_blocked(bool blocked) {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    sigprocmask(blocked ? SIG_BLOCK : SIG_UNBLOCK, &ends, nullptr);
}

void on_running(uloop_timeout* /*timer*/) {
    set_signals_blocked(false);
    bus_open(&LISTENER);
    set_timer();
}

uint64_t choose_seed() {
    uint64_t seed = 0;
    const char* given = getenv(SEED_VARIABLE);
    if (given != nullptr) {
        seed = strtoull(given, nullptr, 10);
    } else if (getrandom(&seed, sizeof seed, 0) != static_cast<ssize_t>(sizeof seed)) {
        seed = static_cast<uint64_t>(now_ms());
    }
    return seed;
}

} // namespace

int supervisor_run() {
    set_signals_blocked(true);
    signal(SIGPIPE, SIG_IGN); // a reader of the log that went away
    uloop_init();
    configuration config = configuration_defaults();
    configuration_read(nullptr, &config);
    session_watch_init(&watch, DAEMON_PROGRAM);
    session_watch_expect(&watch, config.servers, config.server_count);
    supervision_init(&mind, config, choose_seed(), now_ms());
    uloop_timeout running = make_timer(on_running);
    uloop_timeout_set(&running, 0);
    uloop_run();
    identify_cancel();
    bus_close();
    session_watch_destroy(&watch);
    uloop_done();
    return EXIT_SUCCESS;
}
