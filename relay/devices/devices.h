// The listener for devices and the sessions behind it, by device.
#pragma once

#include "base/config.h"
#include "base/door.h"
#include "devices/device_services.h"
#include "devices/device_session.h"
#include "devices/policy.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_set>

namespace relay {

class Devices final : private DeviceDirectory {
public:
    Devices(const Executor& executor, const Config& config, Deadlines& deadlines,
            MemoryBudget& budget, Clients& clients, Metrics& metrics);

    // Each reads one file. False: nothing has changed, and `error` says why.
    bool load_certificate(std::string& error);
    // Ends the sessions that the policy does not admit any more.
    bool load_policy(std::string& error);

    bool listen(std::string& error);
    std::uint16_t port() const;

    // From now on nobody comes in; sessions stay until close_all().
    void drain();
    void close_all();

    // The session of a device, null when it is not connected.
    std::shared_ptr<DeviceSession> find(std::string_view device_id) const;
    // All sessions, by device id.
    void for_each(const std::function<void(const DeviceSession&)>& visit) const;
    std::size_t count() const { return sessions_.size(); }
    std::size_t handshakes() const { return door_.crowd().size(); }
    std::size_t open_exchanges() const;

private:
    std::string objection(const Hello& hello) const override;
    bool is_draining() const override { return draining_; }
    void admitted(DeviceSession& session) override;
    void ended(DeviceSession& session) override;

    void welcome(Socket socket, std::shared_ptr<Client> client);

    Executor executor_;
    const DeviceOptions& options_;
    Metrics& metrics_;
    DeviceServices services_;
    Policy policy_;
    TlsContext tls_;
    Door door_; // its crowd: connections before their hello
    bool draining_ = false;
    std::map<std::string, std::shared_ptr<DeviceSession>, std::less<>> sessions_; // by device_key()
    std::unordered_set<std::shared_ptr<DeviceSession>> newcomers_;                // no session yet
    const std::shared_ptr<const void> alive_ = std::make_shared<char>();          // the first to go
};

} // namespace relay
