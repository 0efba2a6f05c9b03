#include "devices/outgoing.h"

namespace relay {

void Outgoing::add_reply(std::string packet) {
    bytes_ += packet.size();
    replies_.push_back(std::move(packet));
}

void Outgoing::add_request(std::string packet, std::uint16_t id, Reservation held) {
    bytes_ += packet.size();
    requests_.push_back({std::move(packet), id, std::move(held)});
}

std::string_view Outgoing::next() {
    if (rest().empty() && !replies_.empty()) {
        reply_ = std::move(replies_.front());
        replies_.pop_front();
    } else if (rest().empty() && !requests_.empty()) {
        request_.emplace(std::move(requests_.front()));
        requests_.pop_front();
    }
    return rest();
}

std::optional<std::uint16_t> Outgoing::written(std::size_t bytes) {
    written_ += bytes;
    bytes_ -= bytes;
    if (!rest().empty())
        return std::nullopt;
    const auto id = request_ ? std::optional(request_->id) : std::nullopt;
    request_.reset();
    reply_.clear();
    written_ = 0;
    return id;
}

} // namespace relay
