#include "devices/devices.h"

#include "base/spawn.h"

#include <algorithm>

namespace relay {

Devices::Devices(const Executor& executor, const Config& config, Deadlines& deadlines,
                 MemoryBudget& budget, Clients& clients, Metrics& metrics)
    : executor_(executor), options_(config.devices),
      metrics_(metrics), services_{config.devices, deadlines, budget,           clients,
                                   metrics,        *this,     config.front.hold},
      door_(
          executor, deadlines, clients,
          {{options_.max_handshakes, options_.max_handshakes_per_address},
           "connections of devices",
           newcomers_count,
           metrics.device_connections,
           metrics.refusals[static_cast<std::size_t>(Refusal::crowded_out)]},
          [this](Socket socket, std::shared_ptr<Client> client) {
              welcome(std::move(socket), std::move(client));
          },
          [this] { return sessions_.size() + newcomers_.size() < options_.max_connections; }) {}

bool Devices::load_certificate(std::string& error) {
    auto tls = make_tls_context(options_.tls, error);
    if (!tls)
        return false;
    prefer_ciphers_of_small_processors(*tls);
    tls_ = std::move(tls);
    return true;
}

bool Devices::load_policy(std::string& error) {
    auto policy = relay::load_policy(options_.policy, error);
    if (!policy)
        return false;
    policy_ = std::move(*policy);
    for (const auto& [key, session] : sessions_)
        if (!policy_.objection(session->hello()).empty())
            session->close("the policy does not admit it any more");
    return true;
}

bool Devices::listen(std::string& error) {
    return door_.listen(options_.listen, error);
}

std::uint16_t Devices::port() const {
    return door_.port();
}

void Devices::drain() {
    draining_ = true;
    door_.close();
}

void Devices::close_all() {
    for (const auto& session : newcomers_)
        session->close("the relay ends");
    for (const auto& [key, session] : sessions_)
        session->close("the relay ends");
}

std::shared_ptr<DeviceSession> Devices::find(std::string_view device_id) const {
    const auto found = sessions_.find(device_key(device_id));
    return found == sessions_.end() || found->second->is_closed() ? nullptr : found->second;
}

void Devices::for_each(const std::function<void(const DeviceSession&)>& visit) const {
    for (const auto& [key, session] : sessions_)
        if (!session->is_closed())
            visit(*session);
}

std::size_t Devices::open_exchanges() const {
    std::size_t count = 0;
    for_each([&count](const DeviceSession& session) { count += session.open_exchanges(); });
    return count;
}

std::string Devices::objection(const Hello& hello) const {
    return policy_.objection(hello);
}

// A device that comes back after a link loss finds its old session in its place, which cannot know
// yet: the new one takes over at once, with the requests that had not been sent.
void Devices::admitted(DeviceSession& session) {
    const auto self = session.shared_from_this();
    newcomers_.erase(self);
    auto& place = sessions_[device_key(session.hello().device_id)];
    const auto former = std::exchange(place, self);
    if (!former || former->is_closed())
        return;
    ++metrics_.sessions_replaced;
    for (auto& exchange : former->take_waiting())
        if (!session.submit(exchange))
            exchange->fail(Exchange::State::gone);
    former->close("a new connection from " + session.address() + " takes its place");
}

void Devices::ended(DeviceSession& session) {
    const auto self = session.shared_from_this();
    newcomers_.erase(self);
    const auto found = sessions_.find(device_key(session.hello().device_id));
    if (found != sessions_.end() && found->second == self)
        sessions_.erase(found);
    door_.look_again();
}

void Devices::welcome(Socket socket, std::shared_ptr<Client> client) {
    const auto session = std::make_shared<DeviceSession>(
        services_, door_.crowd(), std::move(client), std::move(socket), tls_);
    newcomers_.insert(session);
    spawn(
        executor_, alive_, [&session] { return session->run(); },
        [this, session] {
            session->close("the relay failed");
            ended(*session);
        });
}

} // namespace relay
