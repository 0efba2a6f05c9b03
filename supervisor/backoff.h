#pragma once

#include <cstdint>

// How long to wait before the next attempt: a random time between nothing and a ceiling that
// doubles with each draw ("full jitter"), so that a thousand routers that lost the same relay do
// not come back in the same second. Pure; one owner, one thread.

// A generator of random numbers (splitmix64). Its numbers follow from its seed, so that what was
// drawn can be foretold where the seed is known. Not for secrets.
struct dice {
    uint64_t state;
};

dice dice_of(uint64_t seed);

// A number from 0 to `most`, both included, each as likely as the other.
int64_t dice_throw(dice* generator, int64_t most);

// Times in milliseconds, 0 < min_ms <= max_ms.
struct backoff {
    int64_t min_ms;
    int64_t max_ms;
    int64_t ceiling_ms; // of the next draw
};

backoff backoff_between(int64_t min_ms, int64_t max_ms);

// The next pause, from 0 to the ceiling; the ceiling of the one after it is twice as high, at most
// max_ms.
int64_t backoff_draw(backoff* pauses, dice* generator);

// The next pause is short again.
void backoff_reset(backoff* pauses);
