// A device's session against a device of the test: real TLS over loopback, all in one event loop.

#include "devices/device_session.h"

#include "certificate_files.h"
#include "coroutines.h"

#include <boost/asio/write.hpp>
#include <gmock/gmock.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace relay {
namespace {

using namespace std::chrono_literals;
using State = Exchange::State;

constexpr std::string_view good_hello =
    R"({"deviceId":"router-1","deviceMac":"AABBCCDDEEFF","firmwareId":"FW1","token":"t"})";

// A packet as the device reads it.
struct Packet {
    PacketType type;
    std::uint16_t id;
    std::string body;
};

// The device's end of the connection.
class DevicePeer {
public:
    explicit DevicePeer(Coroutines& coroutines) : coroutines_(coroutines) {}

    void connect(const Tcp::endpoint& endpoint) {
        stream_.next_layer().connect(endpoint);
        coroutines_.start([this]() -> Awaitable<void> { return read_all(); });
    }

    void send(std::string_view bytes) {
        unsent_ += bytes;
        if (writing_.empty())
            write_next();
    }
    void send(PacketType type, std::uint16_t id, std::string_view body = {}) {
        send(make_packet(type, id, body));
    }

    // Takes the first packet that has come and was not taken yet.
    std::optional<Packet> packet() {
        if (input_.size() < PacketHeader::size)
            return std::nullopt;
        const auto header = decode_header(
            std::span<const char>(input_.data(), PacketHeader::size).first<PacketHeader::size>());
        if (input_.size() < PacketHeader::size + header.length)
            return std::nullopt;
        Packet packet{static_cast<PacketType>(header.type), header.id,
                      input_.substr(PacketHeader::size, header.length)};
        input_.erase(0, PacketHeader::size + header.length);
        return packet;
    }
    Packet expect_packet() {
        std::optional<Packet> found;
        coroutines_.run_until([&] { return found || (found = packet()); });
        return found.value_or(Packet{});
    }

    bool is_connected() const { return is_connected_; }
    bool has_ended() const { return has_ended_; }
    void close() {
        error_code ignored;
        stream_.next_layer().close(ignored);
    }

private:
    void write_next() {
        writing_ = std::exchange(unsent_, {});
        if (writing_.empty())
            return;
        asio::async_write(stream_, asio::buffer(writing_), [this](error_code error, std::size_t) {
            if (!error) // else the session has ended, which reading shows
                write_next();
        });
    }

    Awaitable<void> read_all() {
        error_code error;
        co_await stream_.async_handshake(asio::ssl::stream_base::client, into(error));
        is_connected_ = !error;
        while (!error) {
            char bytes[4096];
            const auto count = co_await stream_.async_read_some(asio::buffer(bytes), into(error));
            input_.append(bytes, count);
        }
        has_ended_ = true;
    }

    Coroutines& coroutines_;
    asio::ssl::context context_{asio::ssl::context::tls_client};
    asio::ssl::stream<Socket> stream_{Socket(coroutines_.executor()), context_};
    std::string unsent_;
    std::string writing_;
    std::string input_;
    bool is_connected_ = false;
    bool has_ended_ = false;
};

class Session : public testing::Test, public DeviceDirectory {
protected:
    // --- the listener's side ---
    std::string objection(const Hello&) const override { return objection_; }
    bool is_draining() const override { return is_draining_; }
    void admitted(DeviceSession&) override { ++admitted_; }
    void ended(DeviceSession&) override { ++ended_; }

    void SetUp() override {
        write_certificate(folder_, "relay");
        tls_ = make_tls_context({folder_.file("relay.pem"), folder_.file("relay.key")}, error_);
        ASSERT_TRUE(tls_) << error_;
        deadlines_.start([] {});
        testing::internal::CaptureStderr(); // the log
    }
    void TearDown() override {
        device_.close();
        if (session_)
            session_->close("the test ends");
        coroutines_.run_until([this] { return !session_ || ended_ == 1; });
        deadlines_.stop();
        coroutines_.settle();
        testing::internal::GetCapturedStderr();
    }

    void connect() {
        asio::basic_socket_acceptor<Tcp, Executor> acceptor(
            coroutines_.executor(), Tcp::endpoint(asio::ip::address_v4::loopback(), 0));
        device_.connect(acceptor.local_endpoint());
        Socket socket(coroutines_.executor());
        acceptor.accept(socket);
        auto client = clients_.at(socket.remote_endpoint().address());
        session_ = std::make_shared<DeviceSession>(services_, crowd_, std::move(client),
                                                   std::move(socket), tls_);
        coroutines_.start([session = session_] { return session->run(); });
        coroutines_.run_until([this] { return device_.is_connected(); });
    }

    std::string say_hello(std::string_view json = good_hello) {
        device_.send(PacketType::hello, 0, json);
        const auto reply = device_.expect_packet();
        EXPECT_EQ(reply.type, PacketType::hello);
        return reply.body;
    }

    void join() {
        connect();
        EXPECT_EQ(say_hello(), R"({"err_code":0})");
        ASSERT_EQ(admitted_, 1);
    }

    std::shared_ptr<Exchange> exchange(std::string_view body,
                                       PacketType type = PacketType::request) {
        return std::make_shared<Exchange>(
            Exchange::Surroundings{coroutines_.executor(), deadlines_, budget_, 1 << 20, {}},
            make_packet(type, 0, body), 1h);
    }
    std::shared_ptr<Exchange> submitted(std::string_view body,
                                        PacketType type = PacketType::request) {
        auto one = exchange(body, type);
        EXPECT_TRUE(session_->submit(one));
        return one;
    }

    void run_until_ended() {
        coroutines_.run_until([this] { return ended_ == 1 && device_.has_ended(); });
        EXPECT_TRUE(session_->is_closed());
    }

    std::uint64_t refusals(Refusal cause) const {
        return metrics_.refusals[static_cast<std::size_t>(cause)];
    }

    ScratchFolder folder_;
    std::string error_;
    TlsContext tls_;
    DeviceOptions options_;
    MemoryBudget budget_{16 << 20};
    Clients clients_;
    Coroutines coroutines_;
    Deadlines deadlines_{coroutines_.executor()};
    Metrics metrics_;
    std::uint64_t turned_away_ = 0;
    Crowd crowd_{deadlines_, {8, 8}, "connections", newcomers_count, turned_away_, [] {}};
    DeviceServices services_{options_, deadlines_, budget_, clients_, metrics_, *this, 60s};
    std::string objection_;
    bool is_draining_ = false;
    int admitted_ = 0;
    int ended_ = 0;
    DevicePeer device_{coroutines_};
    std::shared_ptr<DeviceSession> session_;
};

// --- hello ---

TEST_F(Session, AdmitsADeviceThatSaysWhoItIs) {
    join();
    EXPECT_EQ(session_->hello().device_id, "router-1");
    EXPECT_EQ(session_->hello().firmware_id, "FW1");
    EXPECT_EQ(metrics_.sessions, 1U);
    EXPECT_EQ(crowd_.size(), 0U) << "it is a newcomer no more";
    EXPECT_FALSE(session_->is_closed());
}

TEST_F(Session, TellsADeviceWhyItStaysOutside) {
    objection_ = "it is not on the list";
    connect();
    EXPECT_EQ(say_hello(), R"({"err_code":2})");
    device_.close();
    coroutines_.run_until([this] { return ended_ == 1; });
    EXPECT_EQ(admitted_, 0);
    EXPECT_EQ(refusals(Refusal::not_admitted), 1U);
}

TEST_F(Session, TellsADeviceThatTheRelayIsAboutToEnd) {
    is_draining_ = true;
    connect();
    EXPECT_EQ(say_hello(), R"({"err_code":3})");
    device_.close();
    coroutines_.run_until([this] { return ended_ == 1; });
    EXPECT_EQ(refusals(Refusal::draining), 1U);
}

TEST_F(Session, TellsADeviceThatItsHelloIsMalformed) {
    connect();
    EXPECT_EQ(say_hello("{}"), R"({"err_code":1})");
    device_.close();
    coroutines_.run_until([this] { return ended_ == 1; });
    EXPECT_EQ(refusals(Refusal::malformed), 1U);
}

TEST_F(Session, RepliesNothingToWhatIsNoHello) {
    connect();
    device_.send(PacketType::heartbeat, 1);
    run_until_ended();
    EXPECT_FALSE(device_.packet());
    EXPECT_EQ(refusals(Refusal::malformed), 1U);
}

TEST_F(Session, EndsAConnectionThatSaysNoHelloInTime) {
    options_.hello = 0s;
    connect();
    run_until_ended();
    EXPECT_EQ(refusals(Refusal::time_out), 1U);
}

// --- packets ---

TEST_F(Session, RepliesToAHeartbeatUnderItsId) {
    join();
    device_.send(PacketType::heartbeat, 41);
    const auto reply = device_.expect_packet();
    EXPECT_EQ(reply.type, PacketType::heartbeat);
    EXPECT_EQ(reply.id, 41);
    EXPECT_EQ(reply.body, "");
    EXPECT_EQ(metrics_.heartbeats, 1U);
}

TEST_F(Session, BringsARequestToTheDeviceAndItsAnswerBack) {
    join();
    const auto one = submitted("GET /");
    const auto request = device_.expect_packet();
    EXPECT_EQ(request.type, PacketType::request);
    EXPECT_EQ(request.body, "GET /");
    device_.send(PacketType::answer, request.id, "HTTP/1.1 200 OK");
    coroutines_.run_until([&] { return one->state() == State::complete; });
    EXPECT_EQ(one->answer_size(), 15U);
    std::vector<char> bytes;
    coroutines_.start([&]() -> Awaitable<void> { co_await one->take(bytes); });
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "HTTP/1.1 200 OK");
    EXPECT_EQ(session_->open_exchanges(), 0U);
    EXPECT_EQ(session_->figures().requests, 1U);
}

TEST_F(Session, HasNoMoreRequestsOutThanTheDeviceMayHave) {
    options_.requests_out = 2;
    join();
    std::vector<std::shared_ptr<Exchange>> all;
    for (const char* const body : {"1", "2", "3"})
        all.push_back(submitted(body));
    const auto first = device_.expect_packet();
    EXPECT_EQ(device_.expect_packet().body, "2");
    coroutines_.settle();
    EXPECT_EQ(all[2]->state(), State::waiting);
    device_.send(PacketType::answer, first.id, "x");
    EXPECT_EQ(device_.expect_packet().body, "3");
}

TEST_F(Session, TakesNoMoreRequestsThanMayBeOpen) {
    options_.requests_out = 1;
    options_.requests_open = 2;
    join();
    const auto first = submitted("1");
    const auto second = submitted("2");
    EXPECT_FALSE(session_->submit(exchange("3")));
    second->abandon();
    EXPECT_TRUE(session_->submit(exchange("3"))) << "what was given up makes room";
}

TEST_F(Session, HasOneLargeBodyOutAndLetsSmallRequestsPass) {
    join();
    const std::string large(Exchange::large_bytes + 1, 'x');
    const auto first = submitted(large);
    const auto second = submitted(large);
    const auto small = submitted("small");
    const auto request = device_.expect_packet();
    EXPECT_EQ(request.body.size(), large.size());
    EXPECT_EQ(device_.expect_packet().body, "small");
    EXPECT_EQ(second->state(), State::waiting);
    device_.send(PacketType::answer, request.id, "x");
    EXPECT_EQ(device_.expect_packet().body.size(), large.size());
}

TEST_F(Session, CountsAnAnswerThatNobodyWaitsForAndGoesOn) {
    join();
    device_.send(PacketType::answer, 77, "late");
    device_.send(PacketType::heartbeat, 1);
    EXPECT_EQ(device_.expect_packet().type, PacketType::heartbeat);
    EXPECT_EQ(metrics_.late_answers, 1U);
}

TEST_F(Session, EndsOnAnAnswerOfAnotherTypeThanWasAskedFor) {
    join();
    const auto one = submitted("{}", PacketType::web_token);
    device_.send(PacketType::answer, device_.expect_packet().id, "x");
    run_until_ended();
    EXPECT_EQ(one->state(), State::gone);
}

TEST_F(Session, EndsOnWhatNoDeviceSends) {
    join();
    device_.send(PacketType::request, 1, "GET /");
    run_until_ended();
}

TEST_F(Session, EndsOnABadMagicNumber) {
    join();
    device_.send(std::string(PacketHeader::size, '\0'));
    run_until_ended();
}

TEST_F(Session, EndsOnAnAnswerAboveTheLimit) {
    options_.max_answer_bytes = 10;
    join();
    const auto one = submitted("GET /");
    device_.send(PacketType::answer, device_.expect_packet().id, std::string(11, 'x'));
    run_until_ended();
    EXPECT_EQ(one->state(), State::gone);
}

// --- ends ---

TEST_F(Session, GivesUpARequestThatIsNotAnsweredInTimeAndGoesOn) {
    join();
    options_.answer = 0s;
    const auto one = submitted("GET /");
    device_.expect_packet();
    coroutines_.run_until([&] { return one->state() == State::timed_out; });
    EXPECT_EQ(session_->open_exchanges(), 0U);
    EXPECT_EQ(session_->figures().last_error, "a request was not answered in time");
    device_.send(PacketType::heartbeat, 1);
    EXPECT_EQ(device_.expect_packet().type, PacketType::heartbeat);
}

TEST_F(Session, EndsWhenTheDeviceIsSilent) {
    options_.silence = 0s;
    join();
    run_until_ended();
}

TEST_F(Session, LeavesNoRequestOpenWhenTheDeviceGoes) {
    options_.requests_out = 1;
    join();
    const auto out = submitted("1");
    const auto waiting = submitted("2");
    device_.expect_packet();
    device_.close();
    coroutines_.run_until([this] { return ended_ == 1; });
    EXPECT_EQ(out->state(), State::gone);
    EXPECT_EQ(waiting->state(), State::gone);
}

TEST_F(Session, HandsOverWhatWasNotSent) {
    options_.requests_out = 1;
    join();
    const auto out = submitted("1");
    const auto waiting = submitted("2");
    const auto taken = session_->take_waiting();
    ASSERT_EQ(taken.size(), 1U);
    EXPECT_EQ(taken.front(), waiting);
    session_->close("another takes its place");
    EXPECT_EQ(out->state(), State::gone);
    EXPECT_EQ(waiting->state(), State::waiting);
    EXPECT_FALSE(session_->submit(exchange("3")));
}

} // namespace
} // namespace relay
