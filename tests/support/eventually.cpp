#include "support/eventually.h"

#include <thread>

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds within) {
    constexpr std::chrono::milliseconds LOOK_AGAIN{1};
    auto deadline = std::chrono::steady_clock::now() + within;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(LOOK_AGAIN);
    }
    return true;
}
