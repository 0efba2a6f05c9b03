#include "devices/device_session.h"

#include "base/arrival.h"
#include "base/log.h"
#include "base/text.h"

#include <boost/asio/write.hpp>

#include <algorithm>
#include <cstring>

#include <netinet/tcp.h>

namespace relay {
namespace {

// One TLS record fits, so a read never leaves a part of one behind.
constexpr std::size_t input_bytes = 16 << 10;
constexpr std::size_t write_bytes = 64 << 10;
constexpr std::size_t max_web_token_bytes = 64 << 10;

// A device that takes none of our bytes for that long has gone, or hangs.
constexpr std::chrono::seconds write_patience{30};
// The slowest device that requests are sent to, in bytes a second, beyond the time to answer.
constexpr std::size_t least_rate = 4096;
// A device that gives no byte of an answer for that long has broken it off.
constexpr std::chrono::seconds longest_answer_pause{30};
// Bytes that the system keeps unsent: what it took counts as with the device, and a reply waits
// behind it.
constexpr int unsent_bytes = 64 << 10;
// For a refused device to read the reply and hang up first; a reset would take the reply from it.
constexpr std::chrono::seconds farewell{2};
// Replies to heartbeats that a device may leave unread.
constexpr std::size_t max_unread_replies = 16;

// The relay's answers to a hello, in "err_code"; docs/relay.md explains them to operators.
enum HelloCode { admitted_code = 0, malformed_code = 1, not_admitted_code = 2, draining_code = 3 };

std::string hello_reply(int code) {
    return make_packet(PacketType::hello, 0, "{\"err_code\":" + std::to_string(code) + "}");
}

} // namespace

DeviceSession::DeviceSession(DeviceServices& services, Crowd& newcomers,
                             std::shared_ptr<Client> client, Socket socket, TlsContext tls)
    : services_(services), socket_(std::move(socket)), tls_(std::move(tls)),
      stream_(socket_, *tls_), input_(std::make_unique_for_overwrite<char[]>(input_bytes)),
      reading_(services.deadlines,
               [this] {
                   if (admitted_)
                       return close("it was silent for too long");
                   refuse(refusal_, refused_why_);
               }),
      writing_(services.deadlines, [this] { close("it takes no bytes"); }),
      answer_pause_(services.deadlines, [this] { break_off_answer(); }) {
    guest_.emplace(
        newcomers, std::move(client), [this] { return is_quiet(socket_.native_handle()); },
        [this] { end(); });
    error_code ignored;
    address_ = to_text(socket_.remote_endpoint(ignored));
    socket_.set_option(Tcp::no_delay(true), ignored);
    setsockopt(socket_.native_handle(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &unsent_bytes,
               sizeof unsent_bytes);
    reading_.set(services_.options.hello);
}

Awaitable<void> DeviceSession::run() {
    const auto self = shared_from_this();
    const bool established = co_await establish();
    if (established) {
        admitted_ = true;
        guest_.reset();
        figures_.since = std::chrono::system_clock::now();
        ++services_.metrics.sessions;
        log::info("device ", hello_.device_id, " from ", address_, " is connected, MAC ",
                  hello_.mac, ", firmware ", hello_.firmware_id);
        services_.directory.admitted(*this);
        co_await serve();
    }
    close("it closed the connection");
    services_.directory.ended(*this);
}

void DeviceSession::refuse(Refusal cause, std::string_view why) {
    if (!closed_)
        services_.metrics.refuse(cause);
    close(why);
}

void DeviceSession::close(std::string_view why) {
    if (closed_)
        return;
    if (admitted_)
        log::info("device ", hello_.device_id, " from ", address_, " is gone: ", why);
    else
        log::warning("a connection from ", address_, " became no session: ", why);
    end();
}

void DeviceSession::end() {
    closed_ = true;
    reading_.clear();
    writing_.clear();
    fail_all(Exchange::State::gone);
    error_code ignored;
    socket_.close(ignored);
}

Awaitable<bool> DeviceSession::establish() {
    std::string early; // bytes that came before TLS began
    bool goes_on = true;
    if (guest_->client().is_trusted_proxy)
        goes_on = co_await receive_address(early);
    if (!goes_on)
        co_return false;
    error_code error;
    co_await stream_.async_handshake(asio::ssl::stream_base::server, asio::buffer(early),
                                     into(error));
    if (error)
        refuse(Refusal::tls, "TLS failed: " + error.message());
    if (closed_)
        co_return false;
    const bool welcome = co_await say_hello();
    co_return welcome;
}

// Takes the device's address from a trusted proxy. False: the connection has ended.
Awaitable<bool> DeviceSession::receive_address(std::string& early) {
    const auto header = co_await receive_proxy_header(socket_, early);
    if (header.state == ProxyHeader::State::broken)
        refuse(Refusal::malformed, log::join("its PROXY header is broken: ", header.mistake));
    if (closed_ || !header.client)
        co_return !closed_;
    address_ = to_text(*header.client);
    if (!guest_->comes_from(services_.clients.at(header.client->address())))
        end();
    co_return !closed_;
}

// A peer that does not even frame its hello is no device and gets no reply.
Awaitable<bool> DeviceSession::say_hello() {
    PacketHeader header;
    const bool framed = co_await read_header(header);
    if (!framed)
        co_return false;
    if (header.magic != PacketHeader::magic_number ||
        header.type != static_cast<std::uint16_t>(PacketType::hello) ||
        header.length > max_hello_bytes) {
        refuse(Refusal::malformed, "its first packet is no hello");
        co_return false;
    }
    std::string json;
    while (json.size() < header.length) {
        const bool filled = co_await fill_if_empty();
        if (!filled)
            co_return false;
        const auto bytes = consume(header.length - json.size());
        json.append(bytes.data(), bytes.size());
    }

    std::string why;
    auto hello = parse_hello(json, why);
    if (!hello)
        co_return co_await turn_away(Refusal::malformed, malformed_code,
                                     "its hello is malformed: " + why);
    hello_ = std::move(*hello);
    if (services_.directory.is_draining())
        co_return co_await turn_away(Refusal::draining, draining_code, "the relay is about to end");
    why = services_.directory.objection(hello_);
    if (!why.empty())
        co_return co_await turn_away(Refusal::not_admitted, not_admitted_code,
                                     "device " + hello_.device_id + " is not admitted: " + why);
    reading_.set(services_.options.silence);
    reply(hello_reply(admitted_code));
    co_return true;
}

Awaitable<bool> DeviceSession::turn_away(Refusal cause, int code, std::string why) {
    const std::string reply = hello_reply(code);
    error_code error;
    refusal_ = cause;
    refused_why_ = std::move(why);
    reading_.set(farewell);
    co_await asio::async_write(stream_, asio::buffer(reply), into(error));
    socket_.shutdown(Socket::shutdown_send, error);
    std::array<char, 256> rest;
    while (!error && !closed_)
        co_await socket_.async_read_some(asio::buffer(rest), into(error));
    refuse(refusal_, refused_why_);
    co_return false;
}

Awaitable<void> DeviceSession::serve() {
    PacketHeader header;
    bool goes_on = co_await read_header(header);
    while (goes_on) {
        goes_on = co_await handle(header);
        if (goes_on)
            goes_on = co_await read_header(header);
    }
}

Awaitable<bool> DeviceSession::handle(const PacketHeader& header) {
    if (header.magic != PacketHeader::magic_number) {
        close("it sent a bad magic number");
        co_return false;
    }
    switch (static_cast<PacketType>(header.type)) {
    case PacketType::heartbeat:
        if (header.length != 0)
            break;
        heartbeat(header.id);
        co_return !closed_;
    case PacketType::answer:
        if (header.length <= services_.options.max_answer_bytes)
            co_return co_await receive_answer(header);
        close("its answer of " + std::to_string(header.length) + " bytes is above the limit");
        co_return false;
    case PacketType::web_token:
        if (header.length <= max_web_token_bytes)
            co_return co_await receive_answer(header);
        break;
    default:
        break;
    }
    close(log::join("it sent a packet that no device sends, type ", header.type, " with ",
                    header.length, " bytes"));
    co_return false;
}

// The slot is free as soon as its answer begins: the device has done with the request, and the
// next one travels while the answer comes. False for an answer of another type than was asked for.
bool DeviceSession::begin_answer(const PacketHeader& header) {
    if (const auto slot = out_.find(header.id); slot != out_.end()) {
        if (header.type != static_cast<std::uint16_t>(slot->second.exchange->answer_type())) {
            close(log::join("it answered a request with a packet of type ", header.type));
            return false;
        }
        answering_ = std::move(slot->second.exchange);
        out_.erase(slot);
    }
    pump();
    if (answering_ && !answering_->is_open())
        answering_ = nullptr; // given up
    if (answering_)
        answering_->begin(header.length);
    else
        ++services_.metrics.late_answers;
    return true;
}

// Receives an answer, and drops it once its user has gone. False when the connection has ended.
Awaitable<bool> DeviceSession::receive_answer(const PacketHeader& header) {
    if (!begin_answer(header))
        co_return false;
    auto hold = std::chrono::duration_cast<Clock::duration>(services_.hold);
    std::size_t left = header.length;
    while (left > 0) {
        answer_pause_.set(longest_answer_pause);
        const bool filled = co_await fill_if_empty();
        answer_pause_.clear();
        if (!filled)
            break;
        const auto bytes = consume(left);
        left -= bytes.size();
        if (!answering_)
            continue;
        const bool taken = co_await give(*answering_, bytes, hold);
        if (!taken)
            answering_ = nullptr;
    }
    const bool is_whole = left == 0;
    if (answering_ && is_whole)
        answering_->complete();
    else if (answering_)
        answering_->fail(Exchange::State::gone);
    answering_ = nullptr;
    co_return is_whole && !closed_;
}

void DeviceSession::break_off_answer() {
    if (!answering_)
        return;
    note_error("it broke off an answer");
    answering_->fail(Exchange::State::gone);
    answering_ = nullptr;
}

// False when the user was too slow for too long.
Awaitable<bool> DeviceSession::give(Exchange& exchange, std::span<const char> bytes,
                                    Clock::duration& hold) {
    exchange.give(bytes);
    if (!exchange.is_full())
        co_return true;
    const auto began = Clock::now();
    reading_.clear(); // the silence is ours
    const bool has_room = co_await exchange.room(began + hold);
    hold -= Clock::now() - began;
    if (!closed_)
        reading_.set(services_.options.silence);
    if (!has_room) {
        note_error("a user took an answer too slowly");
        exchange.fail(Exchange::State::gone);
    }
    co_return has_room;
}

Awaitable<bool> DeviceSession::fill_if_empty() {
    if (input_begin_ != input_end_)
        co_return true;
    const bool filled = co_await fill();
    co_return filled;
}

// Reads more behind what is unread. False when the connection is no more.
Awaitable<bool> DeviceSession::fill() {
    std::memmove(input_.get(), input_.get() + input_begin_, input_end_ - input_begin_);
    input_end_ -= input_begin_;
    input_begin_ = 0;
    error_code error;
    const auto count = co_await stream_.async_read_some(
        asio::buffer(input_.get() + input_end_, input_bytes - input_end_), into(error));
    input_end_ += count;
    figures_.bytes_in += count;
    services_.metrics.bytes_from_devices += count;
    if (closed_)
        co_return false;
    if (error) {
        if (!admitted_)
            refuse(Refusal::malformed, "it went away without a hello");
        else if (error != asio::error::eof && error != asio::ssl::error::stream_truncated)
            close(error.message());
        co_return false;
    }
    if (admitted_)
        reading_.set(services_.options.silence);
    co_return true;
}

Awaitable<bool> DeviceSession::read_header(PacketHeader& header) {
    while (input_end_ - input_begin_ < PacketHeader::size) {
        const bool filled = co_await fill();
        if (!filled)
            co_return false;
    }
    header = decode_header(consume(PacketHeader::size).first<PacketHeader::size>());
    co_return true;
}

std::span<const char> DeviceSession::consume(std::size_t at_most) {
    const std::size_t count = std::min(at_most, input_end_ - input_begin_);
    const std::span<const char> bytes(input_.get() + input_begin_, count);
    input_begin_ += count;
    return bytes;
}

void DeviceSession::heartbeat(std::uint16_t id) {
    figures_.last_heartbeat = std::chrono::system_clock::now();
    ++services_.metrics.heartbeats;
    if (output_.replies() > max_unread_replies)
        close("it sends heartbeats and does not read the replies");
    else
        reply(make_packet(PacketType::heartbeat, id, {}));
}

void DeviceSession::reply(std::string packet) {
    if (closed_)
        return;
    const std::size_t size = packet.size();
    output_.add_reply(std::move(packet));
    start_writing(size);
}

void DeviceSession::start_writing(std::size_t added) {
    figures_.bytes_out += added;
    services_.metrics.bytes_to_devices += added;
    if (!is_writing_)
        write_next();
}

void DeviceSession::write_next() {
    is_writing_ = true;
    writing_.set(write_patience);
    const auto bytes = output_.next().substr(0, write_bytes);
    stream_.async_write_some(asio::buffer(bytes), [this, self = shared_from_this()](
                                                      error_code error, std::size_t count) {
        is_writing_ = false;
        if (error)
            return close(error.message());
        if (const auto id = output_.written(count))
            is_sent(*id);
        if (closed_ || output_.is_empty())
            writing_.clear();
        else
            write_next();
    });
}

bool DeviceSession::submit(std::shared_ptr<Exchange> exchange) {
    if (closed_ || !exchange->is_open())
        return false;
    if (open_exchanges() >= services_.options.requests_open)
        std::erase_if(waiting_, [](const auto& each) { return !each->is_open(); });
    if (open_exchanges() >= services_.options.requests_open)
        return false;
    ++figures_.requests;
    if (may_go_out(*exchange)) // nothing that waits may, or it would have been sent
        send_out(std::move(exchange));
    else
        waiting_.push_back(std::move(exchange));
    return true;
}

std::deque<std::shared_ptr<Exchange>> DeviceSession::take_waiting() {
    return std::exchange(waiting_, {});
}

// One large body at a time: the next would hold up all that follows it, for as long as the device
// takes to receive both.
bool DeviceSession::may_go_out(const Exchange& exchange) const {
    const auto is_large = [](const auto& each) { return each.second.is_large; };
    return out_.size() < services_.options.requests_out &&
           !(exchange.is_large() && std::any_of(out_.begin(), out_.end(), is_large));
}

// Sends what waits, as far as the device may have more.
void DeviceSession::pump() {
    auto next = waiting_.begin();
    while (next != waiting_.end() && out_.size() < services_.options.requests_out) {
        if ((*next)->is_open() && !may_go_out(**next)) {
            ++next;
            continue;
        }
        auto exchange = std::move(*next);
        next = waiting_.erase(next);
        if (!exchange->is_open())
            continue;
        if (!exchange->user_is_there || exchange->user_is_there())
            send_out(std::move(exchange));
        else
            exchange->fail(Exchange::State::gone);
    }
}

void DeviceSession::send_out(std::shared_ptr<Exchange> exchange) {
    const auto id = free_id();
    auto deadline = std::make_unique<Deadline>(services_.deadlines, [this, id] { expire(id); });
    const bool is_large = exchange->is_large();
    auto [packet, held] = exchange->send_as(id);
    const std::size_t size = packet.size();
    out_.emplace(id, Slot{std::move(exchange), std::move(deadline), is_large});
    output_.add_request(std::move(packet), id, std::move(held));
    out_.at(id).deadline->set(services_.options.answer +
                              std::chrono::seconds(output_.bytes() / least_rate));
    start_writing(size);
}

// The time to answer begins when the device has the whole request. Counted from earlier, a slow
// line used it up: the user got 504, and the device went on to execute the request.
void DeviceSession::is_sent(std::uint16_t id) {
    const auto slot = out_.find(id);
    if (slot == out_.end())
        return;
    slot->second.is_sent = true;
    slot->second.deadline->set(services_.options.answer);
}

// 1 to 65535, in turn: what is given up is long forgotten when its turn comes again.
std::uint16_t DeviceSession::free_id() {
    do {
        ++last_id_;
    } while (last_id_ == 0 || out_.contains(last_id_));
    return last_id_;
}

void DeviceSession::expire(std::uint16_t id) {
    const auto slot = out_.find(id);
    if (!slot->second.is_sent) // the user's 504 must not be followed by the request itself
        return close("it takes requests too slowly");
    const auto exchange = std::move(slot->second.exchange);
    out_.erase(slot);
    note_error("a request was not answered in time");
    exchange->fail(Exchange::State::timed_out);
    pump();
}

// Takes no memory, which even an empty std::deque would: a session closes without any.
void DeviceSession::fail_all(Exchange::State state) {
    if (answering_)
        answering_->fail(state);
    for (auto& [id, slot] : std::exchange(out_, {}))
        slot.exchange->fail(state);
    while (!waiting_.empty()) {
        const auto exchange = std::move(waiting_.front());
        waiting_.pop_front();
        exchange->fail(state);
    }
}

} // namespace relay
