#pragma once

#include <cstddef>
#include <cstdint>

#include "backoff.h"
#include "configuration.h"

// When the next attempt is, and which of the listed servers it is for. Pure but for the log; one
// owner, main thread. Times in milliseconds; `config` is the present configuration.

struct schedule {
    dice generator;
    backoff pauses;
    bool booting;       // the first attempt has yet to be planned
    int64_t due_at;     // when the next attempt is
    bool hurried;       // the attempt after the present one, should that fail, is due at once
    int64_t hurried_at; // when schedule_hurry last took effect, or will
    size_t chosen;      // index of the server whose turn it is
    int64_t failures;   // of that one, in a row
    unsigned attempts;  // since the last success
};

// A pause that was drawn, and the most that it could have been.
struct planned_pause {
    int64_t ms;
    int64_t most_ms;
};

schedule schedule_begin(const configuration& config, uint64_t seed);

// Plans the first attempt.
planned_pause schedule_first(schedule* self, const configuration& config, int64_t now);

// Plan the next attempt. A failure counts against the server whose turn it is; the last one that
// it is allowed hands on to the next server. A success makes the pause short, and the turn stays
// with the server that it was had with, or where it is when `with` is null.
planned_pause schedule_after_failure(schedule* self, const configuration& config, int64_t now);
planned_pause schedule_after_success(schedule* self, const configuration& config,
                                     const server* with, int64_t now);

// Brings the next attempt forward to now, or to when `connect_interval` allows it.
void schedule_hurry(schedule* self, const configuration& config, int64_t now);

// The configuration was `before` until now. The turn stays with its server if that is still listed;
// where servers or pauses changed, the next attempt is due at once.
void schedule_configure(schedule* self, const configuration& before, const configuration& config,
                        int64_t now);
