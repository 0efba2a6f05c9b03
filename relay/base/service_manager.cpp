#include "base/service_manager.h"

#include "base/log.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <systemd/sd-daemon.h>
#include <unistd.h>

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

// sd_notify() waits without a limit for a manager that does not read; this socket does not.
ServiceManager::ServiceManager() {
    const char* name = std::getenv("NOTIFY_SOCKET");
    if (!name)
        return;
    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const std::size_t length = std::min(std::strlen(name), sizeof address_.sun_path);
    address_.sun_family = AF_UNIX;
    std::memcpy(address_.sun_path, name, length);
    if (name[0] == '@')
        address_.sun_path[0] = '\0'; // a name outside the file system
    address_length_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    // Three beats in the manager's limit: one may be late and one may be lost.
    std::uint64_t limit_us = 0;
    if (sd_watchdog_enabled(0, &limit_us) > 0)
        beat_interval_ = std::chrono::microseconds(limit_us / 3);
}

ServiceManager::~ServiceManager() {
    if (socket_ >= 0)
        close(socket_);
}

void ServiceManager::ready() {
    announce("READY=1");
}

void ServiceManager::reloading() {
    announce("RELOADING=1\nMONOTONIC_USEC=" + monotonic_us());
}

void ServiceManager::stopping(std::chrono::seconds at_most) {
    is_stopping_ = true;
    const std::chrono::microseconds limit = at_most + margin;
    announce("STOPPING=1\nEXTEND_TIMEOUT_USEC=" + std::to_string(limit.count()));
}

void ServiceManager::each_sweep(std::size_t devices, std::size_t users) {
    if (socket_ < 0)
        return;
    const auto now = Clock::now();
    beat(now);
    if (!unsent_.empty() && send(unsent_))
        unsent_.clear();
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
    if (status != status_ && send("STATUS=" + status))
        status_ = std::move(status);
}

void ServiceManager::announce(std::string state) {
    if (socket_ < 0)
        return;
    unsent_ = std::move(state);
    if (send(unsent_))
        unsent_.clear();
}

// The first failure is logged; the manager's own time limits show the others.
bool ServiceManager::send(const std::string& state) {
    if (sendto(socket_, state.data(), state.size(), MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&address_), address_length_) >= 0)
        return true;
    const int number = errno;
    if (!failure_is_logged_)
        log::warning("the service manager takes no report at NOTIFY_SOCKET: ",
                     std::strerror(number));
    failure_is_logged_ = true;
    return false;
}

} // namespace relay
