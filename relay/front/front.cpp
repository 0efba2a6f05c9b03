#include "front/front.h"

#include "base/spawn.h"
#include "front/user_connection.h"

#include <vector>

namespace relay {

Front::Front(const Services& services) : services_(services), acceptor_(services.executor) {}
Front::~Front() = default;

bool Front::load(std::string& error) {
    const auto& options = services_.config.front;
    if (options.certificate.empty())
        return true;
    auto tls = make_tls_context(options.certificate, options.key, error);
    if (!tls)
        return false;
    tls_ = std::move(tls);
    return true;
}

bool Front::listen(std::string& error) {
    if (!relay::listen(acceptor_, services_.config.front.listen, error))
        return false;
    spawn(services_.executor, accept());
    return true;
}

std::uint16_t Front::port() const {
    error_code ignored;
    return acceptor_.local_endpoint(ignored).port();
}

void Front::drain() {
    draining_ = true;
    error_code ignored;
    acceptor_.close(ignored);
    for (const auto& connection : connections_)
        if (connection->is_idle())
            connection->close();
}

void Front::close_all() {
    for (const auto& connection : connections_)
        connection->close();
}

void Front::ended(UserConnection& connection) {
    connections_.erase(connection.shared_from_this());
    services_.metrics.user_connections_open = connections_.size();
}

Awaitable<void> Front::accept() {
    Socket socket(services_.executor);
    bool accepted = co_await relay::accept(acceptor_, socket);
    while (accepted) {
        welcome(std::move(socket));
        accepted = co_await relay::accept(acceptor_, socket);
    }
}

void Front::welcome(Socket socket) {
    Metrics& metrics = services_.metrics;
    ++metrics.user_connections;
    if (connections_.size() >= services_.config.front.max_connections)
        return; // closes it
    const auto connection =
        std::make_shared<UserConnection>(*this, services_, std::move(socket), tls_);
    connections_.insert(connection);
    metrics.user_connections_open = connections_.size();
    spawn(services_.executor, connection->run(), [this, connection] { ended(*connection); });
}

} // namespace relay
