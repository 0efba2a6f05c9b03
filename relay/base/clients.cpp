#include "base/clients.h"

#include <algorithm>

namespace relay {

// An IPv4 address takes the place of a network that no IPv6 address is in.
Clients::Key Clients::key_of(const asio::ip::address& address) {
    Key key{};
    if (address.is_v4() || address.to_v6().is_v4_mapped()) {
        const auto v4 = address.is_v4()
                            ? address.to_v4()
                            : asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6());
        const auto bytes = v4.to_bytes();
        std::copy(bytes.begin(), bytes.end(), key.begin() + 4);
    } else {
        const auto bytes = address.to_v6().to_bytes();
        std::copy_n(bytes.begin(), key.size(), key.begin());
    }
    return key;
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
        place = client;
    }
    return client;
}

} // namespace relay
