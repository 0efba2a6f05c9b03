// What each address that is connected has of the relay.
#pragma once

#include "base/address.h"
#include "base/memory_budget.h"
#include "base/networks.h"

#include <array>
#include <map>
#include <memory>
#include <string>
#include <utility>

namespace relay {

// Which connections of an address are counted.
enum ClientCount { newcomers_count, users_count, operators_count, client_counts };

// Owned by the connections from one address.
struct Client {
    MemoryAccount memory;
    std::array<std::size_t, client_counts> connections{};
    bool is_trusted_proxy = false; // its connections are those of many others
};

// Where a connection or a request comes from.
struct Source {
    std::string address; // without port
    std::shared_ptr<Client> client;
};

// Owned by the relay, outlives the connections; used on its thread.
class Clients {
public:
    explicit Clients(Networks trusted_proxies = {})
        : trusted_proxies_(std::move(trusted_proxies)) {}

    // The one of that address. An IPv6 address counts as its network of 64 bits, which is what one
    // customer of a provider has; a trusted proxy is always one by itself.
    std::shared_ptr<Client> at(const asio::ip::address& address);
    std::size_t count() const { return clients_.size(); }

private:
    using Key = std::pair<asio::ip::address_v6, bool>; // whether it is a trusted proxy
    Key key_of(const asio::ip::address& address) const;

    const Networks trusted_proxies_;
    std::map<Key, std::weak_ptr<Client>> clients_;
};

} // namespace relay
