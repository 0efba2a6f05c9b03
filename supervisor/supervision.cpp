#include "supervision.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "identification.h"
#include "log.h"

// Callers of explain() are checked through its attribute.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

namespace {

constexpr int64_t MS_PER_SECOND = 1000;
constexpr int64_t LOOK_MS = 1000;            // while there is something to see
constexpr int64_t WAITING_LOOK_MS = 5000;    // for a session that somebody else has begun
constexpr int64_t WORKER_START_MS = 500;     // until a new worker bears its name
constexpr int64_t HANDSHAKE_MOST_MS = 50000; // the daemon's 35 + 5 + 5 s, and a margin
constexpr int64_t CONNECTING_MOST_MS = 120000;
constexpr int CUT_OFF_LOOKS_NEEDED = 3; // a renewed lease may take an address away for a moment
constexpr int BLIND_LOOKS_NEEDED = 2;   // a daemon that died leaves /proc before it leaves the bus
constexpr int64_t REPEAT_MS = 5000;     // between calls that had no effect
constexpr int64_t IDENTIFY_AGAIN_MS = 30000;
constexpr int64_t MISSING_LIMIT_MOST_MS = 3600000;
constexpr int64_t LONG_AGO = INT64_MIN / 2;

__attribute__((format(printf, 2, 3))) void explain(supervision* self, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(self->reason, sizeof self->reason, format, arguments);
    va_end(arguments);
    log_info("%s", self->reason);
}

double seconds(int64_t ms) {
    return static_cast<double>(ms) / static_cast<double>(MS_PER_SECOND);
}

bool is_wanted(const supervision* self) {
    return self->config.enabled && self->config.server_count > 0 && !self->held;
}

bool has_live_worker(const supervision* self) {
    return self->session.worker != 0 && !self->session.given_up;
}

const server& current_server(const supervision* self) {
    return self->config.servers[self->plan.chosen];
}

bool is_listed(const supervision* self, const server& asked) {
    return configuration_find(self->config, asked) < self->config.server_count;
}

supervision_state state_of(const supervision* self) {
    if (!self->config.enabled) {
        return supervision_state::disabled;
    }
    if (!is_wanted(self)) {
        return supervision_state::idle;
    }
    if (has_live_worker(self) && self->session.connected) {
        return supervision_state::connected;
    }
    bool begun = has_live_worker(self) || self->expecting || self->calling != order::none;
    return begun ? supervision_state::connecting : supervision_state::waiting;
}

void note_state(supervision* self, int64_t now) {
    supervision_state state = state_of(self);
    if (state != self->state) {
        self->state = state;
        self->state_since = now;
    }
}

// --- the session ---

// Says why the next attempt is planned, and when it is.
void explain_plan(supervision* self, const server& toward, const char* why, planned_pause pause) {
    explain(self, "%s: %s; next attempt in %.3f s (at most %.3f s)", server_show(toward).text, why,
            seconds(pause.ms), seconds(pause.most_ms));
}

// A call that failed, or a session that did not last.
void fail(supervision* self, const server& toward, const char* why, int64_t now) {
    explain_plan(self, toward, why, schedule_after_failure(&self->plan, self->config, now));
}

const server& session_server(const supervision* self) {
    return self->session.judged && self->session.right ? self->session.target
                                                       : current_server(self);
}

// Accounts for a session that is over, for us at least. `what` says how it ended when that is more
// than its worker's end.
void end_session(supervision* self, const char* what, int64_t now) {
    const watched_session& session = self->session;
    int64_t lived = session.progress_at - session.established_at;
    server toward = session_server(self); // a copy: the next server's turn may come
    char why[REASON_SIZE];
    if (session.established_at == 0) {
        fail(self, toward, what == nullptr ? "no connection came about" : what, now);
        return;
    }
    snprintf(why, sizeof why, "%s after %lld s", what == nullptr ? "the session ended" : what,
             static_cast<long long>(lived / MS_PER_SECOND));
    if (!session.proved || lived < self->config.success_after_ms) {
        fail(self, toward, why, now);
        return;
    }
    const server* with = session.judged && session.right ? &toward : nullptr;
    explain_plan(self, toward, why, schedule_after_success(&self->plan, self->config, with, now));
}

void give_up(supervision* self, const char* what, int64_t now) {
    end_session(self, what, now);
    self->session.given_up = true;
    self->session.connected = false;
}

void begin_session(supervision* self, int64_t now) {
    watched_session session = {};
    session.worker = self->seen.worker;
    session.progress_at = now;
    session.ours = self->expecting && session.worker != self->worker_before;
    if (session.ours) {
        session.judged = true;
        session.right = is_listed(self, self->called);
        session.target = self->called;
    } else {
        log_info("the daemon has a session that was begun by somebody else");
    }
    self->expecting = false;
    self->session = session;
}

void follow_connection(supervision* self, int64_t now) {
    watched_session& session = self->session;
    const sighting& seen = self->seen;
    if (!seen.established) {
        session.inode = 0;
        session.connected = false;
        session.cut_off_looks = 0;
        return;
    }
    if (seen.inode != session.inode) {
        session.inode = seen.inode;
        session.established_at = now;
        session.proved = false;
        session.connected = false;
        session.judged = session.judged && session.ours;
        session.identify_at = now;
    }
    session.progress_at = now;
    bool stands = now - session.established_at >= HANDSHAKE_MOST_MS;
    session.proved = session.proved || seen.calm || stands;
    session.cut_off_looks = seen.cut_off ? session.cut_off_looks + 1 : 0;
    if (session.given_up && !seen.cut_off) {
        session.given_up = false;
    }
}

void lose_worker(supervision* self, int64_t now) {
    if (!is_wanted(self)) {
        explain(self, "the session has ended, as was asked for");
    } else if (!self->session.given_up) {
        end_session(self, nullptr, now);
    }
    self->session = {};
}

// Takes in which worker there is.
void follow_worker(supervision* self, int64_t now) {
    int worker = self->seen.worker;
    if (worker != 0 && worker != self->session.worker) {
        begin_session(self, now);
    }
    if (worker != 0) {
        follow_connection(self, now);
    } else if (self->session.worker != 0) {
        lose_worker(self, now);
    } else if (self->expecting && is_wanted(self)) {
        fail(self, self->called, "no connection came about", now);
    }
    self->expecting = false;
}

// --- what to do ---

order call(supervision* self, order what) {
    self->calling = what;
    return what;
}

order start(supervision* self) {
    self->called = current_server(self);
    self->worker_before = self->seen.worker;
    self->session = {};
    self->plan.attempts++;
    log_info("%s: connecting, attempt %u", server_show(self->called).text, self->plan.attempts);
    return call(self, order::reload);
}

// A session that is up, but leads to none of the listed servers.
order replace(supervision* self, int64_t now) {
    if (self->object != presence::there || now < self->replaced_at + REPEAT_MS) {
        return order::none;
    }
    self->replaced_at = now;
    explain(self, "the session leads to a server that is not listed; it is replaced");
    return start(self);
}

// Only for a session that somebody else began.
order judge_server(supervision* self, int64_t now) {
    watched_session& session = self->session;
    const configuration& config = self->config;
    int found = identify_by_address(config.servers, config.server_count, self->seen.address,
                                    self->seen.port);
    if (found == SERVER_UNKNOWN) {
        if (now < session.identify_at) {
            return order::none;
        }
        session.identify_at = now + IDENTIFY_AGAIN_MS;
        return order::identify;
    }
    supervision_identified(self, found, now);
    return order::none;
}

void note_connected(supervision* self) {
    watched_session& session = self->session;
    if (session.proved && !session.connected) {
        session.connected = true;
        explain(self, "%s: connected", server_show(session.target).text);
    }
}

order judge_session(supervision* self, int64_t now) {
    watched_session& session = self->session;
    if (session.cut_off_looks >= CUT_OFF_LOOKS_NEEDED) {
        give_up(self, "the session's own address is gone from the router, so it is given up", now);
        return order::none;
    }
    if (session.judged && !session.right) {
        return replace(self, now);
    }
    if (!self->seen.established) {
        if (self->seen.calm) {
            return replace(self, now);
        }
        if (now - session.progress_at > CONNECTING_MOST_MS) {
            give_up(self, "the daemon is still without a connection, so it is given up", now);
        }
        return order::none;
    }
    if (!session.judged) {
        return judge_server(self, now);
    }
    note_connected(self);
    return order::none;
}

// Ends what there is of a session. A stop that falls into the daemon's handshake is forgotten by
// it, so it is repeated.
order wind_down(supervision* self, int64_t now) {
    if (self->seen.worker == 0) {
        self->stopping = false;
        return order::none;
    }
    if (!self->stopping || now < self->stop_at || self->object != presence::there) {
        return order::none;
    }
    self->stop_at = now + REPEAT_MS;
    return call(self, order::stop);
}

// A session that is up needs no bus: then the absence is only reported.
order report_missing(supervision* self, int64_t now) {
    log_error("cloud_relayc has been missing on the bus for %lld s",
              static_cast<long long>((now - self->missing_since) / MS_PER_SECOND));
    snprintf(self->reason, sizeof self->reason, "cloud_relayc is missing on the bus");
    self->missing_limit_ms = std::min(self->missing_limit_ms * 2, MISSING_LIMIT_MOST_MS);
    self->missed_at = now + self->missing_limit_ms;
    return state_of(self) == supervision_state::connected ? order::none : order::restart_daemon;
}

// A daemon that cannot be watched may have a session that must not be disturbed.
bool is_blind(supervision* self) {
    self->blind_looks = self->seen.daemon ? 0 : self->blind_looks + 1;
    if (self->blind_looks == BLIND_LOOKS_NEEDED) {
        explain(self, "cloud_relayc is on the bus, but its process cannot be seen under /proc; "
                      "nothing is done until it can");
    }
    return self->blind_looks > 0;
}

order wait_or_start(supervision* self, int64_t now) {
    if (self->object != presence::there) {
        return order::none;
    }
    if (self->plan.booting) {
        planned_pause pause = schedule_first(&self->plan, self->config, now);
        explain(self, "first attempt in %.3f s (at most %.3f s)", seconds(pause.ms),
                seconds(pause.most_ms));
    }
    return now < self->plan.due_at || is_blind(self) ? order::none : start(self);
}

order decide(supervision* self, int64_t now) {
    if (self->calling != order::none) {
        return order::none;
    }
    follow_worker(self, now);
    if (!is_wanted(self)) {
        return wind_down(self, now);
    }
    if (self->object == presence::missing && now >= self->missed_at) {
        return report_missing(self, now);
    }
    return has_live_worker(self) ? judge_session(self, now) : wait_or_start(self, now);
}

// --- a new configuration ---

void judge_anew(watched_session* session, const supervision* self) {
    bool known = session->judged && session->right;
    session->judged = known && (session->ours || is_listed(self, session->target));
    session->right = known && is_listed(self, session->target);
    session->connected = session->connected && session->right;
    session->identify_at = LONG_AGO;
}

void end_by_switch(supervision* self, const char* why, int64_t now) {
    explain(self, "%s", why);
    self->stopping = true;
    self->stop_at = now;
}

} // namespace

void supervision_init(supervision* self, const configuration& config, uint64_t seed, int64_t now) {
    *self = {};
    self->config = config;
    self->plan = schedule_begin(config, seed);
    self->object = presence::no_bus;
    self->replaced_at = LONG_AGO;
    self->state = state_of(self);
    self->state_since = now;
    snprintf(self->reason, sizeof self->reason, "started");
}

void supervision_configure(supervision* self, const configuration& config, int64_t now) {
    configuration before = self->config;
    self->config = config;
    schedule_configure(&self->plan, before, config, now);
    judge_anew(&self->session, self);
    if (before.enabled && !config.enabled) {
        end_by_switch(self, "disabled by the configuration", now);
    } else {
        explain(self, "the configuration was read anew");
    }
    self->stopping = self->stopping && !is_wanted(self);
    note_state(self, now);
}

void supervision_object(supervision* self, presence object, int64_t now) {
    if (object == self->object) {
        return;
    }
    constexpr const char* NEWS[] = {"the bus is gone; waiting for it",
                                    "waiting for cloud_relayc on the bus",
                                    "cloud_relayc is on the bus"};
    explain(self, "%s", NEWS[static_cast<int>(object)]);
    self->object = object;
    self->blind_looks = 0;
    if (object == presence::missing) {
        self->missing_since = now;
        self->missing_limit_ms = self->config.object_timeout_ms;
        self->missed_at = now + self->missing_limit_ms;
    }
    note_state(self, now);
}

bool supervision_connect(supervision* self, const char* interface, int64_t now) {
    bool person = interface == nullptr;
    if (person && (!self->config.enabled || self->config.server_count == 0)) {
        return false;
    }
    self->held = self->held && !person;
    self->stopping = self->stopping && !is_wanted(self);
    if (is_wanted(self) && state_of(self) != supervision_state::connected) {
        explain(self, "connect was called%s%.32s",
                person ? "" : ": interface up: ", person ? "" : interface);
        backoff_reset(&self->plan.pauses);
        if (state_of(self) == supervision_state::waiting) {
            schedule_hurry(&self->plan, self->config, now);
        } else {
            self->plan.hurried = true;
        }
    }
    note_state(self, now);
    return true;
}

void supervision_disconnect(supervision* self, int64_t now) {
    self->held = true;
    end_by_switch(self, "disconnect was called", now);
    note_state(self, now);
}

void supervision_call_ended(supervision* self, int status, int64_t now) {
    order ended = self->calling;
    self->calling = order::none;
    if (ended == order::reload && status == 0) {
        self->expecting = true;
        self->answered_at = now;
    } else if (ended == order::reload && is_wanted(self)) {
        char what[REASON_SIZE];
        snprintf(what, sizeof what, "the daemon's reload ended with status %d", status);
        fail(self, self->called, what, now);
    }
    note_state(self, now);
}

void supervision_identified(supervision* self, int found, int64_t now) {
    watched_session& session = self->session;
    if (session.judged || session.inode == 0) {
        return;
    }
    if (found == SERVER_UNKNOWN) {
        explain(self, "a session is up, but the listed names do not resolve, so that it cannot be "
                      "told whether it leads to one; it is left alone");
    } else {
        session.judged = true;
        session.right = found != SERVER_NONE;
        session.target = self->config.servers[found == SERVER_NONE ? 0 : found];
    }
    note_state(self, now);
}

order supervision_turn(supervision* self, const sighting& seen, int64_t now) {
    self->seen = seen;
    order result = decide(self, now);
    note_state(self, now);
    return result;
}

int64_t supervision_next_turn(const supervision* self) {
    if (self->calling != order::none) {
        return INT64_MAX;
    }
    int64_t look = self->seen.at + LOOK_MS;
    if (self->expecting) {
        return std::max(look, self->answered_at + WORKER_START_MS);
    }
    if (!is_wanted(self)) {
        return self->stopping ? look : INT64_MAX;
    }
    if (self->session.worker != 0 || self->blind_looks == 1) {
        return look;
    }
    int64_t next = self->seen.at + WAITING_LOOK_MS;
    if (self->object == presence::missing) {
        next = std::min(next, self->missed_at);
    }
    if (self->object == presence::there && self->blind_looks == 0) {
        next = std::min(next, self->plan.booting ? look : self->plan.due_at);
    }
    return next;
}

const server& supervision_server(const supervision* self) {
    return self->called;
}

supervision_report supervision_status(const supervision* self, int64_t now) {
    supervision_report report = {};
    report.state = state_of(self);
    if (self->config.server_count > 0) {
        report.toward = server_show(session_server(self));
    }
    report.since_ms = now - self->state_since;
    report.attempts = self->plan.attempts;
    bool planned = report.state == supervision_state::waiting && !self->plan.booting &&
                   self->object == presence::there;
    report.next_try_ms = planned ? std::max<int64_t>(self->plan.due_at - now, 0) : 0;
    report.reason = self->reason;
    return report;
}

const char* supervision_state_name(supervision_state state) {
    constexpr const char* NAMES[] = {"disabled", "idle", "waiting", "connecting", "connected"};
    return NAMES[static_cast<int>(state)];
}
