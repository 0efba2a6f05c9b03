#include "devices/exchange.h"

namespace relay {
namespace {

// What comes at once, a TLS record: with it an answer moves even when its holders have their share.
constexpr std::size_t record_bytes = 16 << 10;

PacketType answer_to(const std::string& packet) {
    const auto header = decode_header(std::span(packet).first<PacketHeader::size>());
    const auto type = static_cast<PacketType>(header.type);
    return type == PacketType::web_token ? type : PacketType::answer;
}

} // namespace

Exchange::Exchange(const Surroundings& surroundings, std::string packet,
                   Clock::duration time_to_wait)
    : packet_(std::move(packet)), answer_type_(answer_to(packet_)),
      buffer_bytes_(surroundings.buffer_bytes),
      packet_held_(surroundings.budget, surroundings.holders),
      buffer_held_(surroundings.budget, surroundings.holders),
      taken_held_(surroundings.budget, surroundings.holders), to_user_(surroundings.executor),
      to_session_(surroundings.executor),
      deadline_(surroundings.deadlines, [this] { fail(State::timed_out); }) {
    packet_held_.resize(packet_.size());
    deadline_.set(time_to_wait);
}

Awaitable<Exchange::State> Exchange::answered() {
    while (is_open())
        co_await to_user_.wait();
    co_return state_;
}

Awaitable<bool> Exchange::take(std::vector<char>& bytes) {
    while (buffer_.empty() && state_ == State::answering)
        co_await to_user_.wait();
    bytes.clear();
    bytes.swap(buffer_);
    buffer_held_.resize(buffer_.capacity());
    taken_held_.resize(bytes.capacity());
    to_session_.notify();
    co_return !bytes.empty();
}

void Exchange::abandon() {
    abandoned_ = true;
    packet_ = {};
    packet_held_.resize(0);
    buffer_ = {};
    buffer_held_.resize(0);
    taken_held_.resize(0);
    to_session_.notify();
    if (is_open())
        settle(State::gone);
}

Exchange::Packet Exchange::send_as(std::uint16_t id) {
    set_packet_id(packet_, id);
    deadline_.clear(); // the session's begins when the device has all of it
    state_ = State::out;
    return {std::move(packet_), std::move(packet_held_)};
}

void Exchange::begin(std::size_t answer_size) {
    answer_size_ = answer_size;
    settle(State::answering);
}

void Exchange::give(std::span<const char> bytes) {
    if (abandoned_)
        return;
    buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
    buffer_held_.resize(buffer_.capacity());
    to_user_.notify();
}

bool Exchange::is_full() const {
    return buffer_.size() >= buffer_bytes_ ||
           (!buffer_.empty() && !buffer_held_.may_grow(record_bytes));
}

Awaitable<bool> Exchange::room(Clock::time_point limit) {
    while (is_full() && Clock::now() < limit)
        co_await to_session_.wait(limit);
    co_return !is_full();
}

void Exchange::complete() {
    settle(State::complete);
}

void Exchange::fail(State state) {
    if (state_ != State::complete)
        settle(state);
}

void Exchange::settle(State state) {
    state_ = state;
    deadline_.clear();
    to_user_.notify();
}

} // namespace relay
