// What must go on although a step of it fails: listeners, timers, the event loop.
//
// Connections report their errors as error codes; nearly every exception is a std::bad_alloc.
#pragma once

#include "base/log.h"

#include <exception>
#include <string_view>

namespace relay {

// Whether `step` returned. What it throws is logged with `what` in front.
template <typename Step>
bool guarded(std::string_view what, Step&& step) noexcept {
    try {
        step();
        return true;
    } catch (const std::exception& exception) {
        log::error(what, ": ", exception.what());
        return false;
    }
}

// Runs what an Asio context has to do, through exceptions: it may be run on after each.
template <typename Run>
void run_through(Run&& run) noexcept {
    while (!guarded("an event failed", run)) {
    }
}

} // namespace relay
