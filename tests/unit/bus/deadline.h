// Waiting for conditions. Every wait in these tests ends at PATIENCE at the latest.
#pragma once

#include <chrono>
#include <functional>

// Long enough for a sanitizer build on a loaded machine; no passing test waits for it to end.
constexpr std::chrono::milliseconds PATIENCE{20000};

// Waits for a condition outside of uloop. False when PATIENCE is over.
bool wait_until(const std::function<bool()>& condition);

// Runs uloop until the condition holds. False when PATIENCE is over.
bool run_uloop_until(const std::function<bool()>& condition);
