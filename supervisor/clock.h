#pragma once

#include <cstdint>

// The one clock: milliseconds since some moment before the program's start. Never goes back, and
// does not jump when the router learns the time of day.
int64_t now_ms();
