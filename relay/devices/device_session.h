// One device's connection, from accepted to closed.
//
// TLS, hello, then packets in both directions until either side goes. Requests of users are handed
// in with submit(); a few are out at once, since the device answers one at a time, and the rest
// wait in order, except that one large body is out at a time and smaller requests pass the next
// one. Lives as long as its coroutine runs or its owner, the listener's set, keeps it.
#pragma once

#include "base/crowd.h"
#include "base/deadlines.h"
#include "base/tls.h"
#include "devices/device_services.h"
#include "devices/exchange.h"
#include "devices/hello.h"
#include "devices/outgoing.h"

#include <deque>
#include <functional>
#include <memory>
#include <unordered_map>

namespace relay {

// What the dashboard shows of a device.
struct DeviceFigures {
    std::chrono::system_clock::time_point since{};
    std::chrono::system_clock::time_point last_heartbeat{}; // 0: none yet
    std::uint64_t requests = 0;
    std::uint64_t bytes_in = 0; // from the device
    std::uint64_t bytes_out = 0;
    std::string last_error;
};

class DeviceSession : public std::enable_shared_from_this<DeviceSession> {
public:
    DeviceSession(DeviceServices& services, Crowd& newcomers, std::shared_ptr<Client> client,
                  Socket socket, TlsContext tls);

    // Runs the connection to its end. Tells services.directory when it is admitted and when it
    // has ended.
    Awaitable<void> run();

    // Ends the connection: open exchanges are gone, `why` goes to the log.
    void close(std::string_view why);
    // The same for one that never became a session; counts it.
    void refuse(Refusal cause, std::string_view why);
    bool is_closed() const { return closed_; }
    // What the relay holds for this device's users.
    std::shared_ptr<MemoryAccount> memory() const { return memory_; }

    // Hands in a request. False when the device has too many open.
    bool submit(std::shared_ptr<Exchange> exchange);
    // What waits and has not been sent, for the session that takes this one's place.
    std::deque<std::shared_ptr<Exchange>> take_waiting();

    const Hello& hello() const { return hello_; } // once admitted
    const std::string& address() const { return address_; }
    const DeviceFigures& figures() const { return figures_; }
    std::size_t open_exchanges() const { return out_.size() + waiting_.size(); }
    void note_error(std::string_view what) { figures_.last_error = what; }

private:
    // A request that was sent, or is being sent. Its deadline is when it must have been sent, and
    // from then on when it must be answered.
    struct Slot {
        std::shared_ptr<Exchange> exchange;
        std::unique_ptr<Deadline> deadline;
        bool is_large;
        bool is_sent = false;
    };

    Awaitable<bool> establish();
    Awaitable<bool> receive_address(std::string& early);
    Awaitable<bool> say_hello();
    Awaitable<void> serve();
    Awaitable<bool> handle(const PacketHeader& header);
    bool begin_answer(const PacketHeader& header);
    Awaitable<bool> receive_answer(const PacketHeader& header);
    void break_off_answer();
    Awaitable<bool> give(Exchange& exchange, std::span<const char> bytes, Clock::duration& hold);
    Awaitable<bool> fill();
    Awaitable<bool> fill_if_empty();
    Awaitable<bool> read_header(PacketHeader& header);
    Awaitable<bool> turn_away(Refusal cause, int code, std::string why);

    std::span<const char> consume(std::size_t at_most);
    void heartbeat(std::uint16_t id);
    void reply(std::string packet);
    void start_writing(std::size_t added);
    void write_next();
    bool may_go_out(const Exchange& exchange) const;
    void pump();
    void send_out(std::shared_ptr<Exchange> exchange);
    void is_sent(std::uint16_t id);
    std::uint16_t free_id();
    void expire(std::uint16_t id);
    void fail_all(Exchange::State state);
    void end();

    DeviceServices& services_;
    Socket socket_;
    TlsContext tls_; // kept: a reload replaces the listener's
    TlsStream stream_;
    std::string address_;
    Hello hello_;
    DeviceFigures figures_;
    std::optional<Guest> guest_; // until admitted
    bool admitted_ = false;
    Refusal refusal_ = Refusal::time_out; // until admitted: what it is, should its time pass
    std::string refused_why_ = "it said no hello in time";
    bool closed_ = false;

    std::unique_ptr<char[]> input_;
    std::size_t input_begin_ = 0;
    std::size_t input_end_ = 0;

    const std::shared_ptr<MemoryAccount> memory_ = std::make_shared<MemoryAccount>();
    Outgoing output_;
    bool is_writing_ = false;
    std::deque<std::shared_ptr<Exchange>> waiting_;
    std::unordered_map<std::uint16_t, Slot> out_;
    std::uint16_t last_id_ = 0;
    std::shared_ptr<Exchange> answering_; // its answer is being received

    Deadline reading_; // hello, then silence
    Deadline writing_;
    Deadline answer_pause_; // of answering_
};

} // namespace relay
