#include "admin/prometheus.h"

#include <gmock/gmock.h>

#include <map>
#include <regex>
#include <sstream>

namespace relay {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr Gauges gauges{3, 2, 5, 1000, 268435456, 6, 7};

Metrics some() {
    Metrics metrics;
    metrics.device_connections = 12;
    metrics.sessions = 11;
    metrics.refuse(Refusal::not_admitted);
    metrics.requests_by_status = {{0, 1}, {4, 3}, {200, 7}, {504, 2}};
    metrics.latency.add(700us);
    metrics.latency.add(2s);
    metrics.latency.add(60s);
    metrics.bytes_from_devices = std::uint64_t{1} << 40;
    return metrics;
}

// Samples by name and labels, as a scraper reads them.
std::map<std::string, double> samples(const std::string& page) {
    std::map<std::string, double> found;
    std::istringstream lines(page);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with('#'))
            continue;
        const auto blank = line.rfind(' ');
        EXPECT_TRUE(found.emplace(line.substr(0, blank), std::stod(line.substr(blank + 1))).second)
            << "twice: " << line;
    }
    return found;
}

TEST(Prometheus, ShowsGaugesAndCounters) {
    auto found = samples(to_prometheus(some(), gauges));
    EXPECT_EQ(found["relay_devices_connected"], 3);
    EXPECT_EQ(found["relay_handshakes_under_way"], 2);
    EXPECT_EQ(found["relay_exchanges_open"], 5);
    EXPECT_EQ(found["relay_memory_used_bytes"], 1000);
    EXPECT_EQ(found["relay_memory_limit_bytes"], 268435456);
    EXPECT_EQ(found["relay_log_lines_lost_total{log=\"events\"}"], 6);
    EXPECT_EQ(found["relay_log_lines_lost_total{log=\"access\"}"], 7);
    EXPECT_EQ(found["relay_device_connections_total"], 12);
    EXPECT_EQ(found["relay_sessions_total"], 11);
    EXPECT_EQ(found["relay_handshakes_refused_total{cause=\"not_admitted\"}"], 1);
    EXPECT_EQ(found["relay_requests_total{status=\"200\"}"], 7);
    EXPECT_EQ(found["relay_requests_total{status=\"504\"}"], 2);
    EXPECT_EQ(found["relay_requests_total{status=\"0\"}"], 1);
    EXPECT_EQ(found["relay_requests_total{status=\"4xx\"}"], 3);
}

TEST(Prometheus, ShowsEveryCauseOfRefusalFromTheStart) {
    const auto found = samples(to_prometheus({}, gauges));
    for (const auto name : refusal_names)
        EXPECT_TRUE(
            found.contains("relay_handshakes_refused_total{cause=\"" + std::string(name) + "\"}"));
}

TEST(Prometheus, ShowsLargeCountersExactly) {
    Metrics metrics;
    metrics.bytes_to_users = 9007199254740991; // the largest that a double holds exactly
    EXPECT_THAT(to_prometheus(metrics, gauges),
                HasSubstr("relay_bytes_total{side=\"user\",direction=\"out\"} 9007199254740991\n"));
}

TEST(Prometheus, HistogramIsCumulative) {
    auto found = samples(to_prometheus(some(), gauges));
    const auto bucket = [&found](const std::string& bound) {
        return found["relay_request_duration_seconds_bucket{le=\"" + bound + "\"}"];
    };
    EXPECT_EQ(bucket("0.0005"), 0);
    EXPECT_EQ(bucket("0.001"), 1);
    EXPECT_EQ(bucket("1"), 1);
    EXPECT_EQ(bucket("2.5"), 2);
    EXPECT_EQ(bucket("10"), 2);
    EXPECT_EQ(bucket("+Inf"), 3);
    EXPECT_EQ(found["relay_request_duration_seconds_count"], 3);
    EXPECT_NEAR(found["relay_request_duration_seconds_sum"], 62.0007, 1e-6);
}

TEST(Prometheus, EveryLineIsOfTheTextFormat) {
    const std::regex comment(R"(# (HELP|TYPE) relay_[a-z_]+ \S.*)");
    const std::regex sample(R"(relay_[a-z_]+(\{[a-z]+="[^"]*"(,[a-z]+="[^"]*")*\})? [0-9.e+-]+)");
    const std::string page = to_prometheus(some(), gauges);
    EXPECT_TRUE(page.ends_with('\n'));
    std::istringstream lines(page);
    for (std::string line; std::getline(lines, line);)
        EXPECT_TRUE(std::regex_match(line, line.starts_with('#') ? comment : sample)) << line;
}

TEST(Prometheus, EveryNameHasHelpAndTypeBeforeItsSamples) {
    std::istringstream lines(to_prometheus(some(), gauges));
    std::string name;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("# HELP "))
            name = line.substr(7, line.find(' ', 7) - 7);
        else if (line.starts_with("# TYPE "))
            EXPECT_TRUE(line.starts_with("# TYPE " + name + " ")) << line;
        else
            EXPECT_TRUE(line.starts_with(name)) << line << " stands under " << name;
    }
}

} // namespace
} // namespace relay
