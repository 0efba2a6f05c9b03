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
// must name such a host: a page from elsewhere in an operator's browser then gets nothing.
#pragma once

#include "admin/admin_request.h"
#include "base/config.h"
#include "base/deadlines.h"
#include "base/listen.h"
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

    struct Services {
        Executor executor;
        const Config& config;
        Deadlines& deadlines;
        MemoryBudget& budget;
        Metrics& metrics;
        Devices& devices;
        const std::uint16_t& front_port;
        const bool& draining;
    };

    explicit Admin(const Services& services);

    // Reads the token, when there is one. False: nothing has changed, and `error` says why.
    bool load(std::string& error);
    bool listen(std::string& error);
    std::uint16_t port() const;
    void close_all();

private:
    void welcome(Socket socket);
    Awaitable<void> serve(std::shared_ptr<Socket> socket);
    Awaitable<void> answer(const Request& request, Response& response);
    Awaitable<void> web_token(std::string device_id, Response& response);
    std::string devices_json() const;

    Services services_;
    std::string token_;
    Listener listener_;
    std::set<Socket*> connections_;
    const std::shared_ptr<const void> alive_ = std::make_shared<char>(); // the first to go
};

} // namespace relay
