// The relay's counters in Prometheus' text format.
#pragma once

#include "base/metrics.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace relay {

// What is not counted but looked up.
struct Gauges {
    std::size_t devices_connected;
    std::size_t handshakes_under_way;
    std::size_t exchanges_open;
    std::size_t memory_used_bytes;
    std::size_t memory_limit_bytes;
    std::uint64_t log_lines_lost;
    std::uint64_t access_log_lines_lost;
};

std::string to_prometheus(const Metrics& metrics, const Gauges& gauges);

} // namespace relay
