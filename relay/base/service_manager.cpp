#include "base/service_manager.h"

#include "base/log.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <systemd/sd-daemon.h>

namespace relay {
namespace {

constexpr std::chrono::seconds status_interval{1};

// What the process may need after the last connection was closed.
constexpr std::chrono::seconds margin{15};

std::string counted(std::size_t count, const char* one) {
    return std::to_string(count) + ' ' + one + (count == 1 ? "" : "s");
}

// A reload names its beginning by this clock, so that the manager tells two reloads apart.
std::string monotonic_us() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::to_string(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

} // namespace

// Three beats in the manager's limit: one may be late and one may be lost.
ServiceManager::ServiceManager() : is_there_(std::getenv("NOTIFY_SOCKET") != nullptr) {
    std::uint64_t limit_us = 0;
    if (is_there_ && sd_watchdog_enabled(0, &limit_us) > 0)
        beat_interval_ = std::chrono::microseconds(limit_us / 3);
}

void ServiceManager::ready() {
    send("READY=1");
}

void ServiceManager::reloading() {
    send("RELOADING=1\nMONOTONIC_USEC=" + monotonic_us());
}

void ServiceManager::stopping(std::chrono::seconds at_most) {
    is_stopping_ = true;
    const std::chrono::microseconds limit = at_most + margin;
    send("STOPPING=1\nEXTEND_TIMEOUT_USEC=" + std::to_string(limit.count()));
}

void ServiceManager::each_sweep(std::size_t devices, std::size_t users) {
    if (!is_there_)
        return;
    const auto now = Clock::now();
    beat(now);
    show(now, devices, users);
}

void ServiceManager::beat(Clock::time_point now) {
    if (beat_interval_.count() == 0 || now < next_beat_)
        return;
    next_beat_ = now + beat_interval_;
    send("WATCHDOG=1");
}

void ServiceManager::show(Clock::time_point now, std::size_t devices, std::size_t users) {
    if (now < next_status_)
        return;
    next_status_ = now + status_interval;
    std::string status = is_stopping_ ? "draining: " : "";
    status += counted(devices, "device") + ", " + counted(users, "user connection");
    if (status == status_)
        return;
    status_ = std::move(status);
    send("STATUS=" + status_);
}

// The first failure is logged; the manager's own time limits show the others.
void ServiceManager::send(const std::string& state) {
    if (!is_there_)
        return;
    const int result = sd_notify(0, state.c_str());
    if (result >= 0 || failure_is_logged_)
        return;
    failure_is_logged_ = true;
    log::warning("the service manager cannot be reached at NOTIFY_SOCKET: ",
                 std::strerror(-result));
}

} // namespace relay
