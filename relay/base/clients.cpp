#include "base/clients.h"

#include <algorithm>

namespace relay {

Clients::Key Clients::key_of(const asio::ip::address& address) const {
    const bool is_trusted = trusted_proxies_.contain(address);
    const auto v6 = as_v6(address);
    if (is_trusted || v6.is_v4_mapped())
        return {v6, is_trusted};
    auto bytes = v6.to_bytes();
    std::fill(bytes.begin() + bytes.size() / 2, bytes.end(), 0);
    return {asio::ip::address_v6(bytes), is_trusted};
}

std::shared_ptr<Client> Clients::at(const asio::ip::address& address) {
    const Key key = key_of(address);
    auto& place = clients_[key];
    auto client = place.lock();
    if (!client) {
        client = std::shared_ptr<Client>(new Client, [this, key](Client* gone) {
            clients_.erase(key);
            delete gone;
        });
        client->is_trusted_proxy = key.second;
        place = client;
    }
    return client;
}

} // namespace relay
