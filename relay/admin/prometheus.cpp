#include "admin/prometheus.h"

#include <charconv>
#include <string_view>

namespace relay {
namespace {

// All its digits: a counter that is rounded stands still and jumps.
std::string number(double value) {
    char text[64];
    return {text, std::to_chars(text, text + sizeof text, value, std::chars_format::fixed).ptr};
}

class Page {
public:
    void begin(std::string_view name, std::string_view type, std::string_view help) {
        name_ = "relay_";
        name_ += name;
        text_ += "# HELP " + name_ + " ";
        text_ += help;
        text_ += "\n# TYPE " + name_ + " ";
        text_ += type;
        text_ += "\n";
    }

    // `labels` as they stand between the braces, `suffix` behind the name.
    void sample(double value, std::string_view labels = {}, std::string_view suffix = {}) {
        text_ += name_;
        text_ += suffix;
        if (!labels.empty()) {
            text_ += "{";
            text_ += labels;
            text_ += "}";
        }
        text_ += " " + number(value) + "\n";
    }

    void single(std::string_view name, std::string_view type, std::string_view help, double value) {
        begin(name, type, help);
        sample(value);
    }

    std::string take() { return std::move(text_); }

private:
    std::string name_;
    std::string text_;
};

void add_latency(Page& page, const LatencyHistogram& histogram) {
    page.begin("request_duration_seconds", "histogram",
               "Time from a request's first byte to the last byte of its answer.");
    std::uint64_t count = 0;
    for (std::size_t i = 0; i < histogram.bounds.size(); ++i) {
        count += histogram.counts[i];
        page.sample(static_cast<double>(count), "le=\"" + number(histogram.bounds[i]) + "\"",
                    "_bucket");
    }
    count += histogram.counts.back();
    page.sample(static_cast<double>(count), "le=\"+Inf\"", "_bucket");
    page.sample(histogram.sum_s, {}, "_sum");
    page.sample(static_cast<double>(count), {}, "_count");
}

} // namespace

std::string to_prometheus(const Metrics& metrics, const Gauges& gauges) {
    constexpr std::string_view counter = "counter";
    constexpr std::string_view gauge = "gauge";
    const auto d = [](auto value) { return static_cast<double>(value); };
    Page page;
    page.single("devices_connected", gauge, "Devices with a session.", d(gauges.devices_connected));
    page.single("handshakes_under_way", gauge, "Device connections before their hello.",
                d(gauges.handshakes_under_way));
    page.single("exchanges_open", gauge, "Requests that wait for a device or for its answer.",
                d(gauges.exchanges_open));
    page.single("memory_used_bytes", gauge, "Requests and answers held for users.",
                d(gauges.memory_used_bytes));
    page.single("memory_limit_bytes", gauge,
                "memory_bytes of the configuration: the most that may be held.",
                d(gauges.memory_limit_bytes));
    page.single("user_connections_open", gauge, "Connections of users.",
                d(metrics.user_connections_open));
    page.single("device_connections_total", counter, "Connections of devices accepted.",
                d(metrics.device_connections));
    page.single("sessions_total", counter, "Devices admitted.", d(metrics.sessions));
    page.single("sessions_replaced_total", counter,
                "Sessions that a newer one of the device ended.", d(metrics.sessions_replaced));
    page.begin("handshakes_refused_total", counter, "Device connections that became no session.");
    for (std::size_t i = 0; i < refusal_names.size(); ++i)
        page.sample(d(metrics.refusals[i]), "cause=\"" + std::string(refusal_names[i]) + "\"");
    page.single("heartbeats_total", counter, "Heartbeats of devices.", d(metrics.heartbeats));
    page.single("late_answers_total", counter, "Answers to requests that had been given up.",
                d(metrics.late_answers));
    page.single("user_connections_total", counter, "Connections of users accepted.",
                d(metrics.user_connections));
    page.single("user_connections_turned_away_total", counter,
                "Connections of users that were refused, or closed while idle, for others.",
                d(metrics.user_connections_turned_away));
    page.single("admin_connections_total", counter, "Connections of operators accepted.",
                d(metrics.admin_connections));
    page.single("admin_connections_turned_away_total", counter,
                "Connections of operators that were refused, or closed while idle, for others.",
                d(metrics.admin_connections_turned_away));
    page.single("admin_logins_failed_total", counter,
                "Requests to the admin listener without the token that they need.",
                d(metrics.admin_logins_failed));
    page.begin("log_lines_lost_total", counter,
               "Lines that a disk or a reader was too slow, too full or not there for.");
    page.sample(d(gauges.log_lines_lost), "log=\"events\"");
    page.sample(d(gauges.access_log_lines_lost), "log=\"access\"");
    page.begin("requests_total", counter,
               "Requests by status; 0: the user left first, 2xx: an unknown status of that class.");
    for (const auto& [status, count] : metrics.requests_by_status) {
        const std::string name = std::to_string(status);
        page.sample(d(count),
                    "status=\"" + (status == 0 || status > 5 ? name : name + "xx") + "\"");
    }
    add_latency(page, metrics.latency);
    page.begin("bytes_total", counter, "Bytes carried.");
    page.sample(d(metrics.bytes_from_devices), "side=\"device\",direction=\"in\"");
    page.sample(d(metrics.bytes_to_devices), "side=\"device\",direction=\"out\"");
    page.sample(d(metrics.bytes_from_users), "side=\"user\",direction=\"in\"");
    page.sample(d(metrics.bytes_to_users), "side=\"user\",direction=\"out\"");
    return page.take();
}

} // namespace relay
