#pragma once

#include <chrono>
#include <functional>

// Waiting for a condition, never for time.

// How long a test waits for what must happen; a machine under sanitizers and load is slow.
constexpr std::chrono::milliseconds PATIENCE{20000};
constexpr int PATIENCE_MS = static_cast<int>(PATIENCE.count());

// How many times slower than usual everything may be: for what must happen within a certain time.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int SLOWNESS = 5;
#else
constexpr int SLOWNESS = 1;
#endif

// Waits until `condition` holds; false when it does not within `within`.
bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds within = PATIENCE);
