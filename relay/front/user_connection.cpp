#include "front/user_connection.h"

#include "base/log.h"
#include "front/answer_relay.h"
#include "front/forwarded.h"

namespace relay {
namespace {

// For a user to read the page before the connection is reset under what he still sends.
constexpr std::chrono::seconds farewell{2};
// What a body is taken to need while its length is not known.
constexpr std::size_t least_body_bytes = 16 << 10;

std::shared_ptr<MemoryAccount> memory_of(const Source& user) {
    return {user.client, &user.client->memory};
}

} // namespace

UserConnection::UserConnection(Front& front, const Front::Services& services, Crowd& crowd,
                               Source peer, Socket socket, TlsContext tls)
    : front_(front), services_(services), options_(services.config.front),
      stream_(std::move(socket), std::move(tls), services.deadlines),
      reader_(stream_, options_, front.is_draining()), peer_(std::move(peer)),
      guest_(
          crowd, peer_.client, [this] { return is_idle() && stream_.is_quiet(); },
          [this] { stream_.close(); }) {}

Awaitable<void> UserConnection::run() {
    const auto self = shared_from_this();
    stream_.deadline().set(options_.patience);
    bool goes_on = co_await learn_peer();
    if (goes_on)
        goes_on = co_await stream_.handshake(reader_.input());
    while (goes_on)
        goes_on = co_await serve_one();
    stream_.deadline().set(farewell);
    co_await stream_.end_output();
    if (unread_input_)
        co_await reader_.linger();
    stream_.close();
    front_.ended(*this);
}

// A trusted proxy may put in front where the connection comes from. False: the connection ends.
Awaitable<bool> UserConnection::learn_peer() {
    if (!peer_.client->is_trusted_proxy)
        co_return true;
    const auto header = co_await stream_.proxy_header(reader_.input());
    if (header.state == ProxyHeader::State::broken) {
        log::warning("a connection from ", peer_.address,
                     " is ended: its PROXY header is broken: ", header.mistake);
        co_return false;
    }
    if (header.client)
        peer_ = front_.source_at(header.client->address());
    co_return guest_.comes_from(peer_.client);
}

// False: the connection ends.
Awaitable<bool> UserConnection::serve_one() {
    Turn turn;
    const bool has_head = co_await reader_.read_head(turn);
    if (!has_head)
        co_return false; // the user is gone, or never said anything
    identify(turn);
    if (turn.page.status == 0)
        turn.page = route(turn).value_or(PageReason{});
    bool goes_on = true;
    if (turn.page.status == 0)
        goes_on = co_await reader_.read_body(turn);
    if (goes_on && turn.page.status == 0)
        goes_on = co_await relay(turn);
    if (goes_on && turn.page.status != 0)
        goes_on = co_await answer_page(turn);
    account(turn);
    unread_input_ = turn.unread_input;
    reader_.wait_for_next();
    guest_.comes_from(peer_.client);
    goes_on = goes_on && turn.keep_alive;
    co_return goes_on;
}

// Whose request it is. A trusted proxy passes on those of many, one after the other.
void UserConnection::identify(Turn& turn) {
    turn.user = peer_;
    turn.scheme = stream_.is_tls() ? "https" : "http";
    if (peer_.client->is_trusted_proxy) {
        const auto told = read_forwarded(turn.parser.get(), services_.config.trusted_proxies);
        if (told.user)
            turn.user = front_.source_at(*told.user);
        if (!told.scheme.empty())
            turn.scheme = told.scheme;
    }
    turn.body_memory.emplace(services_.budget, Holders{memory_of(turn.user), nullptr});
}

std::optional<PageReason> UserConnection::route(Turn& turn) {
    turn.route = route_of(turn.parser.get(), options_.base_domain);
    turn.keep_alive = turn.keep_alive && turn.parser.is_done();
    if (!turn.route) {
        turn.unread_input = true; // nothing that follows is looked at
        return PageReason{400, "The request's host or target is no valid one.", "bad_request"};
    }
    if (turn.route->device_id.empty())
        return PageReason{404,
                          "Devices are reached as <device id>." + options_.base_domain +
                              ": put the device's id before this name.",
                          "no_device_named"};
    if (!services_.devices.find(turn.route->device_id))
        return PageReason{404,
                          "The device \"" + turn.route->device_id +
                              "\" is not connected to this relay. Is it switched on and online?",
                          "unknown_device"};
    if (!guest_.comes_from(turn.user.client))
        return PageReason{503, "Too many requests come from your address. Try again soon.",
                          "crowded_out"};
    if (auto refusal = check_origin(turn.parser.get(), *turn.route))
        return refusal;
    if (!turn.body_memory->may_grow(turn.parser.content_length().value_or(least_body_bytes)))
        return no_memory();
    return std::nullopt;
}

std::shared_ptr<Exchange> UserConnection::submit(Turn& turn) {
    const auto session = services_.devices.find(turn.route->device_id);
    if (!session) {
        turn.page = {502, "The device is not connected any more.", "device_gone"};
        return nullptr;
    }
    const auto& request = turn.parser.get();
    const bool has_body = turn.parser.chunked() || turn.parser.content_length().has_value();
    const auto head =
        device_head(turn.head, *turn.route, {options_.device_host, turn.user.address, turn.scheme},
                    request.body().size(), has_body);
    auto packet = make_packet(PacketType::request, 0, head, request.body());
    auto exchange = std::make_shared<Exchange>(
        Exchange::Surroundings{services_.executor,
                               services_.deadlines,
                               services_.budget,
                               options_.answer_buffer_bytes,
                               {memory_of(turn.user), session->memory()}},
        std::move(packet), services_.config.devices.answer);
    turn.parser.get().body() = {};
    turn.body_memory->resize(0);
    exchange->user_is_there = [user = weak_from_this()] {
        const auto connection = user.lock();
        return connection && connection->stream_.is_there();
    };
    if (session->submit(exchange))
        return exchange;
    turn.page = {503, "The device has too many requests open. Try again soon.", "device_busy"};
    return nullptr;
}

Awaitable<bool> UserConnection::relay(Turn& turn) {
    stream_.deadline().clear(); // the exchange has its own
    const auto exchange = submit(turn);
    if (!exchange)
        co_return true;
    const auto state = co_await exchange->answered();
    bool goes_on = true;
    if (state == Exchange::State::timed_out)
        turn.page = {504,
                     "The device is slow: it has not answered in time. It may still carry out what "
                     "it was asked for.",
                     "time_out"};
    else if (state == Exchange::State::gone && !stream_.is_there())
        goes_on = false;
    else if (state == Exchange::State::gone)
        turn.page = {502, "The device was cut off before it had answered. Try again soon.",
                     "device_gone"};
    else
        goes_on = co_await relay_answer(turn, *exchange, stream_, options_);
    exchange->abandon();
    co_return goes_on;
}

Awaitable<bool> UserConnection::answer_page(Turn& turn) {
    turn.keep_alive = turn.keep_alive && !turn.unread_input;
    turn.status = turn.page.status;
    const auto page = make_page(turn.page, turn.keep_alive, !turn.to_head);
    co_return co_await write(turn, stream_, options_.patience, page);
}

void UserConnection::account(const Turn& turn) {
    const auto duration = Clock::now() - turn.began;
    Metrics& metrics = services_.metrics;
    const unsigned status = turn.sent_bytes > 0 ? turn.status : 0;
    ++metrics.requests_by_status[counted_status(status)];
    if (status != 0)
        metrics.latency.add(duration);
    const auto& request = turn.parser.get();
    metrics.bytes_from_users += turn.body_bytes;
    metrics.bytes_to_users += turn.sent_bytes;
    std::string_view target = request.target();
    if (!services_.config.access_log_query)
        target = target.substr(0, target.find('?'));
    services_.access_log.add({std::chrono::system_clock::now(), turn.user.address,
                              turn.route ? std::string_view(turn.route->device_id) : "",
                              std::string_view(request.method_string()), target, status,
                              turn.body_bytes, turn.sent_bytes, duration, turn.page.note});
}

} // namespace relay
