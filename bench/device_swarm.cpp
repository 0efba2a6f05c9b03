// Many devices of one relay, for measuring it.
//
//   device_swarm PORT COUNT
//
// Connects COUNT devices, "device-0" and so on, to the relay at 127.0.0.1:PORT, a few at a time, as
// devices do after a power cut. Each says hello, sends a heartbeat at once and then every 100 s,
// and answers every request with a web page of 1 KiB. Prints a line when all are connected:
//
//   connected COUNT devices in SECONDS s
//
// and another one when standard input ends, which ends the program:
//
//   answered REQUESTS, lost DEVICES
//
// Status 0 when no device was refused or lost.

#include "base/asio.h"
#include "devices/packet.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/write.hpp>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

namespace {

using namespace relay;

constexpr int connecting_at_once = 64; // below the relay's limit of handshakes
constexpr std::chrono::seconds heartbeat_interval{100};
constexpr std::size_t page_bytes = 1024;

struct Swarm {
    asio::io_context context{1};
    asio::ssl::context tls{asio::ssl::context::tls_client};
    Tcp::endpoint relay;
    int count = 0;
    int next = 0; // to connect
    int connected = 0;
    int lost = 0;
    std::uint64_t answered = 0;
    Clock::time_point began = Clock::now();
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " +
                               std::to_string(page_bytes) + "\r\nConnection: close\r\n\r\n" +
                               std::string(page_bytes, 'x');

    void note_connected() {
        if (++connected == count) {
            const std::chrono::duration<double> time = Clock::now() - began;
            std::printf("connected %d devices in %.3f s\n", count, time.count());
            std::fflush(stdout);
        }
    }
};

// One device, from its connection to that one's end.
class Device {
public:
    Device(Swarm& swarm, int number)
        : swarm_(swarm), number_(number), stream_(swarm.context.get_executor(), swarm.tls),
          heartbeat_(swarm.context.get_executor()) {}

    // False when the relay did not take it.
    Awaitable<bool> connect() {
        error_code error;
        co_await stream_.next_layer().async_connect(swarm_.relay, into(error));
        if (!error) {
            stream_.next_layer().set_option(Tcp::no_delay(true), error);
            co_await stream_.async_handshake(asio::ssl::stream_base::client, into(error));
        }
        if (error)
            co_return fail(error.message());
        send(make_packet(PacketType::hello, 0,
                         "{\"deviceId\":\"device-" + std::to_string(number_) +
                             "\",\"deviceMac\":\"AABBCCDDEEFF\",\"firmwareId\":\"FW1\","
                             "\"token\":\"0123456789\"}"));
        const bool replied = co_await read_packet();
        if (!replied || body_ != "{\"err_code\":0}")
            co_return fail("the relay said " + body_);
        co_return true;
    }

    Awaitable<void> serve() {
        beat();
        bool goes_on = co_await read_packet();
        while (goes_on) {
            if (header_.type == static_cast<std::uint16_t>(PacketType::request)) {
                send(make_packet(PacketType::answer, header_.id, swarm_.answer));
                ++swarm_.answered;
            }
            goes_on = co_await read_packet();
        }
        heartbeat_.cancel();
        fail("its connection ended");
    }

private:
    bool fail(const std::string& why) {
        ++swarm_.lost;
        std::fprintf(stderr, "device-%d: %s\n", number_, why.c_str());
        return false;
    }

    Awaitable<bool> read_packet() {
        std::array<char, PacketHeader::size> bytes;
        error_code error;
        co_await asio::async_read(stream_, asio::buffer(bytes), into(error));
        if (error)
            co_return false;
        header_ = decode_header(bytes);
        body_.resize(header_.length);
        co_await asio::async_read(stream_, asio::buffer(body_), into(error));
        co_return !error;
    }

    void beat() {
        send(make_packet(PacketType::heartbeat, ++heartbeat_id_, {}));
        heartbeat_.expires_after(heartbeat_interval);
        heartbeat_.async_wait([this](error_code error) {
            if (!error)
                beat();
        });
    }

    void send(std::string packet) {
        output_.push_back(std::move(packet));
        if (output_.size() == 1)
            write();
    }

    void write() {
        asio::async_write(stream_, asio::buffer(output_.front()), [this](error_code error, auto) {
            output_.pop_front();
            if (!error && !output_.empty())
                write();
        });
    }

    Swarm& swarm_;
    const int number_;
    asio::ssl::stream<Socket> stream_;
    Timer heartbeat_;
    std::uint16_t heartbeat_id_ = 0;
    PacketHeader header_;
    std::string body_;
    std::deque<std::string> output_; // the first one is being written
};

// Connects one device after the other; several run side by side. Devices stay to the end.
Awaitable<void> connect_some(Swarm& swarm, std::vector<std::unique_ptr<Device>>& devices) {
    while (swarm.next < swarm.count) {
        auto& device = *devices.emplace_back(std::make_unique<Device>(swarm, swarm.next++));
        const bool connected = co_await device.connect();
        if (!connected)
            continue;
        swarm.note_connected();
        asio::co_spawn(swarm.context.get_executor(), device.serve(), asio::detached);
    }
}

// Until whoever started us closes its end.
Awaitable<void> wait_for_end(Swarm& swarm) {
    asio::posix::basic_stream_descriptor<Executor> input(swarm.context.get_executor(),
                                                         dup(STDIN_FILENO));
    std::array<char, 256> bytes;
    error_code error;
    while (!error)
        co_await input.async_read_some(asio::buffer(bytes), into(error));
    std::printf("answered %llu, lost %d\n", static_cast<unsigned long long>(swarm.answered),
                swarm.lost);
    swarm.context.stop();
}

template <typename Integer>
bool parse(const char* text, Integer& number) {
    const auto [end, error] = std::from_chars(text, text + std::strlen(text), number);
    return error == std::errc{} && *end == '\0' && number > 0;
}

void raise_descriptor_limit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace

int main(int count, char** arguments) {
    Swarm swarm;
    std::uint16_t port = 0;
    if (count != 3 || !parse(arguments[1], port) || !parse(arguments[2], swarm.count)) {
        std::fputs("usage: device_swarm PORT COUNT\n", stderr);
        return 2;
    }
    raise_descriptor_limit();
    swarm.relay = {asio::ip::address_v4::loopback(), port};
    std::vector<std::unique_ptr<Device>> devices;
    const auto executor = swarm.context.get_executor();
    asio::co_spawn(executor, wait_for_end(swarm), asio::detached);
    for (int i = 0; i < connecting_at_once; ++i)
        asio::co_spawn(executor, connect_some(swarm, devices), asio::detached);
    swarm.context.run();
    return swarm.lost == 0 && swarm.connected == swarm.count ? 0 : 1;
}
