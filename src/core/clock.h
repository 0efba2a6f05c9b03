#pragma once

#include <cstdint>

// The program's clock. Every time and time-out is in milliseconds of the monotonic clock, signed
// 64-bit, so that setting the wall clock neither ends nor prolongs a session. Threads: any.

constexpr int MS_PER_SECOND = 1000;
constexpr int US_PER_MS = 1000;

// Milliseconds since an arbitrary point, commonly the start of the system. Never goes backwards.
int64_t cloud_now_ms();

// The wall clock as "2026-11-21 16:10:06.123" in a fresh allocation that the caller frees; null
// when the time cannot be converted or memory is short. For time-stamped diagnostics.
char* cloud_time_str();
