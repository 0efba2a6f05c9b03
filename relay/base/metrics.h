// What the relay counts. Plain numbers: one thread writes and reads them.
#pragma once

#include <boost/beast/http/status.hpp>

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <string_view>

namespace relay {

// Why a device's connection never became a session.
enum class Refusal { tls, time_out, crowded_out, malformed, not_admitted, draining };
constexpr std::array<std::string_view, 6> refusal_names = {
    "tls", "time_out", "crowded_out", "malformed", "not_admitted", "draining"};

// The number under which a status is counted: itself, or its class (1 to 5) when it is not one that
// is known. Devices choose their statuses, and each number is a series for whoever collects them.
inline unsigned counted_status(unsigned status) {
    using boost::beast::http::int_to_status;
    const bool is_known = int_to_status(status) != boost::beast::http::status::unknown;
    return status == 0 || is_known ? status : status / 100;
}

// Times of answered requests, by upper bounds in seconds.
struct LatencyHistogram {
    static constexpr std::array<double, 14> bounds = {
        0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10};
    std::array<std::uint64_t, bounds.size() + 1> counts{}; // the last one: above all bounds
    double sum_s = 0;

    void add(std::chrono::duration<double> time) {
        std::size_t bucket = 0;
        while (bucket < bounds.size() && time.count() > bounds[bucket])
            ++bucket;
        ++counts[bucket];
        sum_s += time.count();
    }
};

struct Metrics {
    std::uint64_t device_connections = 0; // accepted, since the start
    std::uint64_t sessions = 0;           // admitted, since the start
    std::uint64_t sessions_replaced = 0;
    std::array<std::uint64_t, refusal_names.size()> refusals{};
    std::uint64_t heartbeats = 0;
    std::uint64_t user_connections = 0;
    std::uint64_t user_connections_open = 0;
    std::uint64_t user_connections_turned_away = 0; // for want of a place
    std::uint64_t admin_connections = 0;
    std::uint64_t admin_connections_turned_away = 0;
    std::uint64_t admin_logins_failed = 0;
    std::map<unsigned, std::uint64_t> requests_by_status; // by counted_status()
    LatencyHistogram latency;
    std::uint64_t bytes_from_devices = 0;
    std::uint64_t bytes_to_devices = 0;
    std::uint64_t bytes_from_users = 0; // bodies
    std::uint64_t bytes_to_users = 0;   // heads and bodies
    std::uint64_t late_answers = 0;     // to requests that had been given up

    void refuse(Refusal cause) { ++refusals[static_cast<std::size_t>(cause)]; }
};

} // namespace relay
