// The operators' listener: dashboard, figures for machines, web tokens.
//
//   GET  /                              the dashboard
//   GET  /api/devices                   devices and figures, JSON
//   POST /api/devices/<id>/web-token    asks the device for its web token; the device's JSON
//   GET  /metrics                       for Prometheus
//   GET  /healthz                       200 while the relay takes devices and users, 503 in a drain
//
// With a token, everything but /healthz and the dashboard's page, which holds no data, wants
// "Authorization: Bearer TOKEN". Without one the listener is on a loopback address, and requests
// must come straight from this machine. A wrong token is answered after a second, so that one
// address has no more guesses a second than connections. Idle connections give way to newcomers.
#pragma once

#include "admin/admin_request.h"
#include "base/access_log.h"
#include "base/clients.h"
#include "base/config.h"
#include "base/deadlines.h"
#include "base/door.h"
#include "base/memory_budget.h"
#include "base/metrics.h"
#include "devices/devices.h"

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>

namespace relay {

class Admin {
public:
    using Request = AdminRequest;
    using Response = http::response<http::string_body>;

    static constexpr std::size_t max_connections = 256;

    struct Services {
        Executor executor;
        const Config& config;
        Deadlines& deadlines;
        MemoryBudget& budget;
        Clients& clients;
        Metrics& metrics;
        Devices& devices;
        const AccessLog& access_log;
        const std::uint16_t& front_port;
        const bool& draining;
    };

    explicit Admin(const Services& services);

    // Reads the tokens, where there are any. False: nothing has changed, and `error` says why.
    bool load(std::string& error);
    bool listen(std::string& error);
    std::uint16_t port() const;
    void close_all();

private:
    struct Connection;
    struct Asked;

    void welcome(Socket socket, std::shared_ptr<Client> client);
    Awaitable<void> serve(std::shared_ptr<Connection> connection);
    Awaitable<void> answer(const Connection& connection, const Request& request,
                           Response& response);
    Awaitable<void> refuse_login(const Request& request, Response& response);
    Awaitable<void> web_token(const Connection& connection, std::string device_id,
                              Response& response);
    std::string devices_json() const;

    Services services_;
    AdminTokens tokens_;
    std::set<std::string> asked_for_tokens_; // keys of devices
    Tally failed_logins_;
    Door door_;
    std::set<Connection*> connections_;
    const std::shared_ptr<const void> alive_ = std::make_shared<char>(); // the first to go
};

} // namespace relay
