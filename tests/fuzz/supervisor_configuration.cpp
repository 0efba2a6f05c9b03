// The supervisor's configuration file.
//
// Input: the file of the package "cloud_relay".

#include "supervisor/configuration.h"
#include "supervisor/log.h"
#include "uci_input.h"

#include <cstdarg>
#include <cstring>

// In the place of the supervisor's log: the line is made, and forgotten.
__attribute__((format(printf, 1, 0))) static void make_line(const char* format, va_list arguments) {
    char line[512];
    vsnprintf(line, sizeof line, format, arguments);
}

void log_info(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    make_line(format, arguments);
    va_end(arguments);
}

void log_error(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    make_line(format, arguments);
    va_end(arguments);
}

namespace {

bool read_configuration(const std::string& file, configuration* out) {
    const uci_input input("cloud_relay", file);
    if (input.package() == nullptr) {
        return false;
    }
    *out = configuration_of(input.package());
    return true;
}

std::string seconds(int64_t milliseconds) {
    char text[32];
    snprintf(text, sizeof text, "%lld.%03lld", static_cast<long long>(milliseconds / 1000),
             static_cast<long long>(milliseconds % 1000));
    return text;
}

std::string option(const char* name, const std::string& value) {
    return std::string("\toption ") + name + " '" + value + "'\n";
}

// The file that means this configuration.
std::string file_of(const configuration& config) {
    std::string file = "config supervisor\n" + option("enabled", config.enabled ? "1" : "0") +
                       option("boot_delay", seconds(config.boot_delay_ms)) +
                       option("pause_min", seconds(config.pause_min_ms)) +
                       option("pause_max", seconds(config.pause_max_ms)) +
                       option("success_after", seconds(config.success_after_ms)) +
                       option("connect_interval", seconds(config.connect_interval_ms)) +
                       option("object_timeout", seconds(config.object_timeout_ms)) +
                       option("failures_per_server", std::to_string(config.failures_per_server));
    for (size_t i = 0; i < config.server_count; i++) {
        file += std::string("\tlist server '") + server_show(config.servers[i]).text + "'\n";
    }
    return file;
}

void check_limits(const configuration& config) {
    REQUIRE(config.server_count <= SERVERS_MAX);
    REQUIRE(config.pause_min_ms >= 10 && config.pause_min_ms <= config.pause_max_ms);
    REQUIRE(config.success_after_ms >= 1000 && config.object_timeout_ms >= 1000);
    REQUIRE(config.boot_delay_ms >= 0 && config.connect_interval_ms >= 0);
    REQUIRE(config.failures_per_server >= 1 && config.failures_per_server <= 1000);
    for (size_t i = 0; i < config.server_count; i++) {
        REQUIRE(strnlen(config.servers[i].host, HOST_SIZE) < HOST_SIZE);
        REQUIRE(config.servers[i].port > 0);
        REQUIRE(configuration_find(config, config.servers[i]) == i); // none is listed twice
    }
}

bool is_equal(const configuration& one, const configuration& other) {
    for (size_t i = 0; i < one.server_count && i < other.server_count; i++) {
        if (!server_equal(one.servers[i], other.servers[i])) {
            return false;
        }
    }
    return file_of(one) == file_of(other);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    configuration config = {};
    if (!read_configuration(std::string(reinterpret_cast<const char*>(data), size), &config)) {
        return 0;
    }
    check_limits(config);
    configuration again = {};
    REQUIRE(read_configuration(file_of(config), &again));
    REQUIRE(is_equal(config, again));
    return 0;
}
