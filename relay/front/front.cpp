#include "front/front.h"

#include "base/spawn.h"
#include "base/text.h"
#include "front/user_connection.h"

#include <vector>

namespace relay {

Front::Front(const Services& services)
    : services_(services), door_(services.executor, services.deadlines, services.clients,
                                 {{services.config.front.max_connections,
                                   services.config.front.max_connections_per_address},
                                  "connections of users",
                                  users_count,
                                  services.metrics.user_connections,
                                  services.metrics.user_connections_turned_away},
                                 [this](Socket socket, std::shared_ptr<Client> client) {
                                     welcome(std::move(socket), std::move(client));
                                 }) {}
Front::~Front() = default;

bool Front::load(std::string& error) {
    const auto& options = services_.config.front;
    if (options.tls.certificate.empty())
        return true;
    auto tls = make_tls_context(options.tls, options.more_certificates, error);
    if (!tls)
        return false;
    tls_ = std::move(tls);
    return true;
}

bool Front::listen(std::string& error) {
    return door_.listen(services_.config.front.listen, error);
}

std::uint16_t Front::port() const {
    return door_.port();
}

void Front::drain() {
    draining_ = true;
    door_.close();
    for (const auto& connection : connections_)
        if (connection->is_idle())
            connection->close();
}

void Front::close_all() {
    for (const auto& connection : connections_)
        connection->close();
}

Source Front::source_at(const asio::ip::address& address) {
    return {to_text(address), services_.clients.at(address)};
}

void Front::ended(UserConnection& connection) {
    connections_.erase(connection.shared_from_this());
    services_.metrics.user_connections_open = connections_.size();
}

void Front::welcome(Socket socket, std::shared_ptr<Client> client) {
    error_code ignored;
    Source source{to_text(socket.remote_endpoint(ignored).address()), std::move(client)};
    const auto connection = std::make_shared<UserConnection>(
        *this, services_, door_.crowd(), std::move(source), std::move(socket), tls_);
    connections_.insert(connection);
    services_.metrics.user_connections_open = connections_.size();
    spawn(
        services_.executor, alive_, [&connection] { return connection->run(); },
        [this, connection] { ended(*connection); });
}

} // namespace relay
