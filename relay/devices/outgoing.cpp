#include "devices/outgoing.h"

namespace relay {

void Outgoing::add_reply(std::string packet) {
    hold(packet.size());
    replies_.push_back(std::move(packet));
}

void Outgoing::add_request(std::string packet, std::uint16_t id) {
    hold(packet.size());
    requests_.push_back({std::move(packet), id});
}

std::string_view Outgoing::next() {
    if (!rest().empty())
        return rest();
    written_ = 0;
    id_.reset();
    packet_.clear();
    if (!replies_.empty()) {
        packet_ = std::move(replies_.front());
        replies_.pop_front();
    } else if (!requests_.empty()) {
        packet_ = std::move(requests_.front().packet);
        id_ = requests_.front().id;
        requests_.pop_front();
    }
    return packet_;
}

std::optional<std::uint16_t> Outgoing::written(std::size_t bytes) {
    written_ += bytes;
    if (!rest().empty())
        return std::nullopt;
    held_.resize(held_.bytes() - packet_.size());
    packet_ = {}; // gives a large one's memory back
    written_ = 0;
    return std::exchange(id_, std::nullopt);
}

} // namespace relay
