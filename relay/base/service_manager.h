// Reports the relay's state to the service manager that started it, for systemd's Type=notify.
// Without NOTIFY_SOCKET in the environment nothing is sent.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>

namespace relay {

// Owned by the relay; used on its thread. Each report is one datagram, and nothing waits for a
// manager that does not read: a beat is then left out, all else is sent later.
class ServiceManager {
public:
    using Clock = std::chrono::steady_clock;

    ServiceManager();
    ~ServiceManager();
    ServiceManager(const ServiceManager&) = delete;
    ServiceManager& operator=(const ServiceManager&) = delete;

    // All listeners take connections.
    void ready();
    // Files are read again, until ready() follows.
    void reloading();
    // The process ends within `at_most`; the manager kills it later than that.
    void stopping(std::chrono::seconds at_most);
    // From the event loop, several times a second: the watchdog's beat, when the manager wants one,
    // and the counts, when they have changed.
    void each_sweep(std::size_t devices, std::size_t users);

private:
    void announce(std::string state);
    bool send(const std::string& state);
    void beat(Clock::time_point now);
    void show(Clock::time_point now, std::size_t devices, std::size_t users);

    int socket_ = -1; // stays so without a manager
    sockaddr_un address_{};
    socklen_t address_length_ = 0;
    std::chrono::microseconds beat_interval_{}; // zero: no watchdog
    Clock::time_point next_beat_;
    Clock::time_point next_status_;
    std::string unsent_; // the latest state, until it could be sent
    std::string status_; // as last sent
    bool is_stopping_ = false;
    bool failure_is_logged_ = false;
};

} // namespace relay
