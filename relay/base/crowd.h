// The connections of one listener: how many there may be, and who goes when more want to come.
//
// One address has a share of the places. When that is used up, or when all places are taken, a
// connection goes that does nothing and would lose nothing: one of the same address, or of the one
// that has most. When there is none, a newcomer of an address without a share left is turned away,
// and any other one waits in the system's queue: nobody who makes progress is thrown out. A trusted
// proxy has no share: what it passes on counts for the address that it names.
#pragma once

#include "base/clients.h"
#include "base/tally.h"

#include <boost/intrusive/list.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

namespace relay {

class Crowd;

// One connection. The crowd may ask its owner to end it; it leaves the crowd when it is destroyed.
class Guest : public boost::intrusive::list_base_hook<> {
public:
    // `may_go`: whether it does nothing, and would lose nothing. `send_away` ends it.
    Guest(Crowd& crowd, std::shared_ptr<Client> client, std::function<bool()> may_go,
          std::function<void()> send_away);
    ~Guest();
    Guest(const Guest&) = delete;
    Guest& operator=(const Guest&) = delete;

    const Client& client() const { return *client_; }
    // Counts it for that address from now on. False when that has no share left; nothing has
    // changed then.
    bool comes_from(std::shared_ptr<Client> client);

private:
    friend class Crowd;
    Crowd& crowd_;
    std::shared_ptr<Client> client_;
    const std::function<bool()> may_go_;
    const std::function<void()> send_away_;
    bool is_leaving_ = false;
};

class Crowd {
public:
    struct Limits {
        std::size_t all;
        std::size_t of_one_address;
    };

    // `what` the connections are, for the log; `turned_away` counts those that were refused or
    // sent away; `left` is called when a place is free again.
    Crowd(Deadlines& deadlines, Limits limits, std::string_view what, ClientCount count,
          std::uint64_t& turned_away, std::function<void()> left);
    ~Crowd() { guests_.clear(); }

    std::size_t size() const { return size_; }

    // Whether one more may be taken. When not, somebody may be on his way out.
    bool has_room();
    // Whether one of that address may come in.
    bool admits(const Client& client);

private:
    friend class Guest;
    using Guests = boost::intrusive::list<Guest, boost::intrusive::constant_time_size<false>>;

    std::size_t& count_of(Client& client) const { return client.connections[count_]; }
    std::size_t count_of(const Client& client) const { return client.connections[count_]; }
    Guest* most_idle(const Client* client);
    void send_away(Guest& guest);

    const Limits limits_;
    const ClientCount count_;
    Tally turned_away_;
    const std::function<void()> left_;
    Guests guests_; // the oldest first
    std::size_t size_ = 0;
    std::size_t leaving_ = 0; // of them, sent away
};

// Whether nothing has come in on a connection for a second: what does nothing may go.
bool is_quiet(int socket);

} // namespace relay
