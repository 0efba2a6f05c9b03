#include "front/user_connection.h"

#include "base/log.h"
#include "base/text.h"
#include "front/forwarded.h"
#include "front/pace.h"

namespace relay {
namespace {

constexpr std::size_t read_bytes = 16 << 10;
constexpr std::size_t write_bytes = 256 << 10;
// For a user to read the page before the connection is reset under what he still sends.
constexpr std::chrono::seconds farewell{2};
constexpr std::size_t farewell_bytes = 1 << 20;

constexpr std::string_view go_on = "HTTP/1.1 100 Continue\r\n\r\n";

Clock::duration time_for(std::size_t bytes) {
    return std::chrono::seconds(bytes / least_rate);
}

std::string_view view(const std::vector<char>& bytes) {
    return {bytes.data(), bytes.size()};
}

PageReason no_memory() {
    return {503, "The relay has no memory left for this request. Try again soon.", "memory"};
}

std::shared_ptr<MemoryAccount> memory_of(const Source& user) {
    return {user.client, &user.client->memory};
}

PageReason unusable(std::string text) {
    return {502, std::move(text), "unusable_answer"};
}

} // namespace

UserConnection::UserConnection(Front& front, const Front::Services& services, Crowd& crowd,
                               Source peer, Socket socket, TlsContext tls)
    : front_(front), services_(services), options_(services.config.front),
      stream_(std::move(socket), std::move(tls)),
      deadline_(services.deadlines, [this] { stream_.close(); }), peer_(std::move(peer)),
      guest_(
          crowd, peer_.client, [this] { return idle_ && stream_.is_quiet(); },
          [this] { stream_.close(); }) {}

Awaitable<void> UserConnection::run() {
    const auto self = shared_from_this();
    deadline_.set(options_.patience);
    bool goes_on = co_await learn_peer();
    if (goes_on)
        goes_on = co_await stream_.handshake(input_);
    while (goes_on)
        goes_on = co_await serve_one();
    deadline_.set(farewell);
    co_await stream_.end_output();
    if (unread_input_)
        co_await linger();
    stream_.close();
    front_.ended(*this);
}

// A trusted proxy may put in front where the connection comes from. False: the connection ends.
Awaitable<bool> UserConnection::learn_peer() {
    if (!peer_.client->is_trusted_proxy)
        co_return true;
    const auto header = co_await stream_.proxy_header(input_);
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
    turn.parser.header_limit(static_cast<std::uint32_t>(options_.max_header_bytes));
    turn.parser.body_limit(options_.max_body_bytes);
    const bool has_head = co_await read_head(turn);
    if (!has_head)
        co_return false; // the user is gone, or never said anything
    identify(turn);
    if (turn.page.status == 0)
        turn.page = route(turn).value_or(PageReason{});
    bool goes_on = true;
    if (turn.page.status == 0)
        goes_on = co_await read_body(turn);
    if (goes_on && turn.page.status == 0)
        goes_on = co_await relay(turn);
    if (goes_on && turn.page.status != 0)
        goes_on = co_await answer_page(turn);
    account(turn);
    guest_.comes_from(peer_.client);
    goes_on = goes_on && turn.keep_alive;
    co_return goes_on;
}

Awaitable<bool> UserConnection::read_more() {
    const std::size_t before = input_.size();
    input_.resize(before + read_bytes);
    const auto count = co_await stream_.read_some(asio::buffer(input_.data() + before, read_bytes));
    input_.resize(before + count);
    co_return count > 0;
}

// Reads and parses a head; a head that is refused leaves a page in `turn`.
Awaitable<bool> UserConnection::read_head(Turn& turn) {
    deadline_.set(is_first_ ? options_.patience : options_.idle);
    is_first_ = false;
    std::size_t checked = 0;
    while (true) {
        if (checked == 0)
            input_.erase(0, input_.find_first_not_of("\r\n")); // empty lines before a request
        if (!input_.empty() && idle_) {
            idle_ = false;
            turn.began = Clock::now();
            deadline_.set_at(turn.began + options_.patience);
        }
        const auto look = look_for_head(input_, checked, options_.max_header_bytes);
        turn.page = look.page;
        if (turn.page.status != 0) {
            unread_input_ = true;
            co_return true;
        }
        if (look.head_bytes > 0)
            co_return parse_head(turn, look.head_bytes);
        checked = input_.size();
        if (idle_ && front_.is_draining())
            co_return false;
        const bool read = co_await read_more();
        if (!read)
            co_return false;
    }
}

bool UserConnection::parse_head(Turn& turn, std::size_t head_bytes) {
    error_code error;
    turn.head = input_.substr(0, head_bytes);
    turn.page = relay::read_head(turn.parser, turn.head, error);
    input_.erase(0, head_bytes);
    turn.to_head = turn.parser.get().method() == http::verb::head;
    unread_input_ = turn.page.status != 0;
    // A head that is broken has no answer to this.
    turn.keep_alive = !error && turn.parser.keep_alive() && !front_.is_draining();
    return true;
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
    unread_input_ = !turn.parser.is_done();
    turn.keep_alive = turn.keep_alive && turn.parser.is_done();
    if (!turn.route) {
        unread_input_ = true; // nothing that follows is looked at
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
    if (!turn.body_memory->may_grow(turn.parser.content_length().value_or(read_bytes)))
        return no_memory();
    return std::nullopt;
}

// The whole body is read before the device hears of the request: the device handles one at a time,
// and a slow upload would hold up everybody else's.
Awaitable<bool> UserConnection::read_body(Turn& turn) {
    if (turn.parser.is_done())
        co_return true;
    const std::string_view expected = turn.parser.get()[http::field::expect];
    if (turn.parser.get().version() == 11 && input_.empty() &&
        equals_ignoring_case(expected, "100-continue")) {
        const bool written = co_await write(turn, go_on);
        if (!written)
            co_return false;
    }
    turn.parser.eager(true);
    Pace pace(options_.patience, Clock::now());
    while (true) {
        std::size_t taken = 0;
        const auto reason = take_body(turn.parser, input_, options_.max_header_bytes, taken);
        turn.body_bytes += taken;
        if (!hold_body(turn)) {
            turn.page = no_memory();
            co_return true;
        }
        if (turn.parser.is_done())
            break;
        if (reason) {
            turn.page = *reason;
            co_return true;
        }
        // What surrounds chunks does not count.
        deadline_.set_at(pace.due(turn.parser.get().body().size(), Clock::now()));
        const bool read = co_await read_more();
        if (!read)
            co_return false;
    }
    unread_input_ = false;
    turn.keep_alive = turn.parser.keep_alive() && !front_.is_draining();
    co_return true;
}

// False when the share of the user's address is used up.
bool UserConnection::hold_body(Turn& turn) {
    Reservation& held = *turn.body_memory;
    const std::size_t bytes = turn.parser.get().body().capacity();
    if (bytes > held.bytes() && !held.may_grow(bytes - held.bytes()))
        return false;
    held.resize(bytes);
    return true;
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
    deadline_.clear(); // the exchange has its own
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
        goes_on = co_await relay_answer(turn, *exchange);
    exchange->abandon();
    co_return goes_on;
}

// Reads the answer's head, past interim ones, and goes on with the body.
Awaitable<bool> UserConnection::relay_answer(Turn& turn, Exchange& exchange) {
    std::string text;
    std::vector<char> bytes;
    std::uint64_t left = exchange.answer_size(); // behind `text`
    std::optional<AnswerParser> parser;
    while (true) {
        const auto state = take_answer_head(text, turn.to_head, parser);
        if (state == HeadState::complete)
            break;
        if (state == HeadState::broken) {
            turn.page = unusable("The device's answer is no valid HTTP response.");
            co_return true;
        }
        if (state == HeadState::incomplete) {
            const bool more = co_await exchange.take(bytes);
            if (!more || text.size() > max_answer_head_bytes) {
                turn.page = unusable(text.empty() && exchange.answer_size() == 0
                                         ? "The device's web server closed without an answer."
                                         : "The device's answer has no complete header.");
                co_return true;
            }
            text += view(bytes);
            left -= bytes.size();
        }
    }
    const auto framing = framing_of(*parser, turn.to_head, text.size() + left);
    if (leads_to_own_https(parser->get(), turn.route->target, options_.device_host)) {
        turn.page = {502,
                     "The device sends every visitor on to its own HTTPS address, which is not "
                     "reached through the relay. Let the device serve plain HTTP to the relay.",
                     "https_redirect"};
        co_return true;
    }
    if (!framing) {
        turn.page = unusable("The device's answer is shorter than it says.");
        co_return true;
    }
    const bool may_chunk = turn.parser.get().version() == 11;
    turn.keep_alive = turn.keep_alive && (framing->kind != BodyKind::chunked || may_chunk);
    turn.status = parser->get().result_int();
    auto head = user_head(parser->get(), {*framing, turn.keep_alive, may_chunk},
                          {options_.device_host, turn.scheme, turn.route->host});
    AnswerBody body(*parser, *framing, may_chunk);
    co_return co_await relay_body(turn, exchange, body, std::move(head), text);
}

// Head and first bytes leave together, so a small answer is one write.
Awaitable<bool> UserConnection::relay_body(Turn& turn, Exchange& exchange, AnswerBody& body,
                                           std::string head, std::string_view rest) {
    std::vector<char> bytes;
    while (true) {
        const auto piece = rest.substr(0, write_bytes);
        rest.remove_prefix(piece.size());
        const bool is_sound = body.convert(piece);
        const bool is_short = !body.is_done() && rest.empty() && exchange.is_drained();
        if ((!is_sound || is_short) && !head.empty()) {
            turn.page = unusable("The device's answer breaks off.");
            co_return true;
        }
        if (!is_sound)
            co_return cut_off(turn, body);
        const bool written = co_await write(turn, head, body.output());
        if (!written || body.is_done())
            co_return written;
        head.clear();
        if (!rest.empty())
            continue;
        const bool more = co_await exchange.take(bytes);
        if (!more)
            co_return cut_off(turn, body);
        rest = view(bytes);
    }
}

// A body that breaks off ends the connection, so that the user does not take it for whole.
bool UserConnection::cut_off(Turn& turn, const AnswerBody& body) {
    turn.page.note = "cut_off";
    if (body.ends_with_connection())
        stream_.reset();
    return false;
}

Awaitable<bool> UserConnection::write(Turn& turn, std::string_view first, std::string_view second) {
    const std::size_t size = first.size() + second.size();
    if (size == 0)
        co_return true;
    deadline_.set(options_.patience + time_for(size));
    const bool written = co_await stream_.write(first, second);
    deadline_.clear();
    turn.sent_bytes += written ? size : 0;
    co_return written;
}

Awaitable<bool> UserConnection::answer_page(Turn& turn) {
    turn.keep_alive = turn.keep_alive && !unread_input_;
    turn.status = turn.page.status;
    const auto page = make_page(turn.page, turn.keep_alive, !turn.to_head);
    co_return co_await write(turn, page);
}

// Takes in what a refused user still sends, for a while, so that he can read the page.
Awaitable<void> UserConnection::linger() {
    std::size_t received = 0;
    bool read = true;
    while (read && received < farewell_bytes) {
        input_.clear();
        read = co_await read_more();
        received += input_.size();
    }
}

void UserConnection::account(const Turn& turn) {
    idle_ = true;
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
