// One of the relay's listeners: it takes connections, no more than there are places for, and no
// more of one address than that address's share.
#pragma once

#include "base/clients.h"
#include "base/crowd.h"
#include "base/listen.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace relay {

// Owned by a part of the relay, which it must not outlive; used on its thread.
class Door {
public:
    struct Kind {
        Crowd::Limits limits;
        std::string_view what; // for the log: "connections of users"
        ClientCount count;
        std::uint64_t& taken; // metrics: all, and of them
        std::uint64_t& turned_away;
    };

    // `enter` takes each connection with whose it is; what it throws ends that connection alone.
    // `has_room`, beside the limits: asked before each.
    Door(
        const Executor& executor, Deadlines& deadlines, Clients& clients, const Kind& kind,
        std::function<void(Socket, std::shared_ptr<Client>)> enter,
        std::function<bool()> has_room = [] { return true; });

    // False: `error` says why.
    bool listen(const ListenAddress& address, std::string& error) {
        return listener_.listen(address, error);
    }
    std::uint16_t port() const { return listener_.port(); }
    void close() { listener_.close(); }
    // There may be room again, after `has_room` said no.
    void look_again() { listener_.look_again(); }

    // Of those who have come in, each while its Guest lives.
    Crowd& crowd() { return crowd_; }
    const Crowd& crowd() const { return crowd_; }

private:
    void welcome(Socket socket);

    Clients& clients_;
    std::uint64_t& taken_;
    const std::function<void(Socket, std::shared_ptr<Client>)> enter_;
    const std::function<bool()> has_room_;
    Crowd crowd_;
    Listener listener_;
};

} // namespace relay
