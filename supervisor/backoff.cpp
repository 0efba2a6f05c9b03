#include "backoff.h"

#include <algorithm>

dice dice_of(uint64_t seed) {
    return {seed};
}

int64_t dice_throw(dice* generator, int64_t most) {
    generator->state += 0x9e3779b97f4a7c15;
    uint64_t number = generator->state;
    number = (number ^ (number >> 30)) * 0xbf58476d1ce4e5b9;
    number = (number ^ (number >> 27)) * 0x94d049bb133111eb;
    number ^= number >> 31;
    // A day has less than 2^27 milliseconds: what the remainder favours is beyond measure.
    return static_cast<int64_t>(number % (static_cast<uint64_t>(most) + 1));
}

backoff backoff_between(int64_t min_ms, int64_t max_ms) {
    return {min_ms, max_ms, min_ms};
}

int64_t backoff_draw(backoff* pauses, dice* generator) {
    int64_t pause = dice_throw(generator, pauses->ceiling_ms);
    pauses->ceiling_ms = std::min(pauses->ceiling_ms * 2, pauses->max_ms);
    return pause;
}

void backoff_reset(backoff* pauses) {
    pauses->ceiling_ms = pauses->min_ms;
}
