#include "base/log.h"

#include "base/text.h"

#include <unistd.h>

namespace relay::log {
namespace {

std::string_view name_of(Level level) {
    switch (level) {
    case Level::warning:
        return "warning";
    case Level::error:
        return "error";
    default:
        return "info";
    }
}

void append_printable(std::string& line, std::string_view text) {
    constexpr char digits[] = "0123456789abcdef";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7f) {
            line += c;
            continue;
        }
        line += "\\x";
        line += digits[byte >> 4];
        line += digits[byte & 15];
    }
}

} // namespace

void write(Level level, std::string_view text) {
    std::string line = iso_time(std::chrono::system_clock::now());
    line += ' ';
    line += name_of(level);
    line += ' ';
    append_printable(line, text);
    line += '\n';
    // A log that nobody takes must not stop the relay.
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
}

} // namespace relay::log
