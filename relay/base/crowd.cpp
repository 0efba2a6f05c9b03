#include "base/crowd.h"

#include "base/log.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace relay {
namespace {

constexpr unsigned quiet_ms = 1000;

} // namespace

Guest::Guest(Crowd& crowd, std::shared_ptr<Client> client, std::function<bool()> may_go,
             std::function<void()> send_away)
    : crowd_(crowd), client_(std::move(client)), may_go_(std::move(may_go)),
      send_away_(std::move(send_away)) {
    crowd_.guests_.push_back(*this);
    ++crowd_.size_;
    ++crowd_.count_of(*client_);
}

Guest::~Guest() {
    if (!is_linked())
        return; // the crowd has gone first
    crowd_.guests_.erase(Crowd::Guests::s_iterator_to(*this));
    --crowd_.size_;
    crowd_.leaving_ -= is_leaving_;
    --crowd_.count_of(*client_);
    crowd_.left_();
}

bool Guest::comes_from(std::shared_ptr<Client> client) {
    if (client == client_)
        return true;
    if (!crowd_.admits(*client))
        return false;
    --crowd_.count_of(*client_);
    client_ = std::move(client);
    ++crowd_.count_of(*client_);
    return true;
}

Crowd::Crowd(Deadlines& deadlines, Limits limits, std::string_view what, ClientCount count,
             std::uint64_t& turned_away, std::function<void()> left)
    : limits_(limits), count_(count),
      turned_away_(deadlines, turned_away,
                   [what](std::uint64_t number) {
                       log::warning("too many ", what, ": ", number, " turned away");
                   }),
      left_(std::move(left)) {}

bool Crowd::has_room() {
    if (size_ < limits_.all)
        return true;
    if (size_ - leaving_ < limits_.all)
        return false; // one is on his way out
    if (Guest* const guest = most_idle(nullptr))
        send_away(*guest);
    return false;
}

bool Crowd::admits(const Client& client) {
    if (client.is_trusted_proxy || count_of(client) < limits_.of_one_address)
        return true;
    if (Guest* const guest = most_idle(&client)) {
        send_away(*guest);
        return true;
    }
    turned_away_.add();
    return false;
}

// One who may go: of `client`, or of the address that has most; of several the oldest.
Guest* Crowd::most_idle(const Client* client) {
    Guest* found = nullptr;
    for (Guest& guest : guests_) {
        const bool is_candidate =
            client ? guest.client_.get() == client && !found
                   : !found || count_of(*guest.client_) > count_of(*found->client_);
        if (is_candidate && !guest.is_leaving_ && guest.may_go_())
            found = &guest;
    }
    return found;
}

void Crowd::send_away(Guest& guest) {
    guest.is_leaving_ = true;
    ++leaving_;
    turned_away_.add();
    guest.send_away_();
}

bool is_quiet(int socket) {
    tcp_info info{};
    socklen_t size = sizeof info;
    return getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
           info.tcpi_last_data_recv > quiet_ms;
}

} // namespace relay
