// The HTTP front: where users come in.
#pragma once

#include "base/access_log.h"
#include "base/clients.h"
#include "base/config.h"
#include "base/deadlines.h"
#include "base/door.h"
#include "base/memory_budget.h"
#include "base/metrics.h"
#include "base/tls.h"
#include "devices/devices.h"

#include <memory>
#include <string>
#include <unordered_set>

namespace relay {

class UserConnection;

class Front {
public:
    // What a connection uses. Outlives the connections.
    struct Services {
        Executor executor;
        const Config& config;
        Deadlines& deadlines;
        MemoryBudget& budget;
        Clients& clients;
        Metrics& metrics;
        AccessLog& access_log;
        Devices& devices;
    };

    explicit Front(const Services& services);
    ~Front();

    // Reads the certificate, when there is one. False: nothing has changed, and `error` says why.
    bool load(std::string& error);
    bool listen(std::string& error);
    std::uint16_t port() const;

    // Nobody comes in any more and idle connections end; requests under way go on.
    void drain();
    const bool& is_draining() const { return draining_; } // it may be kept, and looked at later
    void close_all();
    bool is_idle() const { return connections_.empty(); }

    Source source_at(const asio::ip::address& address);
    void ended(UserConnection& connection);

private:
    void welcome(Socket socket, std::shared_ptr<Client> client);

    Services services_;
    TlsContext tls_;
    Door door_;
    bool draining_ = false;
    std::unordered_set<std::shared_ptr<UserConnection>> connections_;
    const std::shared_ptr<const void> alive_ = std::make_shared<char>(); // the first to go
};

} // namespace relay
