#pragma once

#include <chrono>
#include <functional>

// Waiting for a condition, never for time.

// How long a test waits for what must happen; a machine under sanitizers and load is slow.
constexpr std::chrono::milliseconds PATIENCE{20000};
constexpr int PATIENCE_MS = static_cast<int>(PATIENCE.count());

// Waits until `condition` holds; false when it does not within `within`.
bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds within = PATIENCE);
