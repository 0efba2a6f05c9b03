#include "base/log.h"

#include "base/background_writer.h"
#include "base/line_file.h"
#include "base/text.h"

#include <algorithm>
#include <memory>
#include <mutex>

#include <unistd.h>

namespace relay::log {
namespace {

constexpr std::chrono::seconds patience{2};

const LostLines lost = std::make_shared<std::atomic<std::uint64_t>>();
std::mutex background_mutex;
std::unique_ptr<BackgroundWriter> background;

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

// The length in bytes of the character at the beginning of `text`; 0 when those bytes are not
// UTF-8, or stand for a control character: of a terminal (ASCII's and C1), of lines, or of
// direction, which lets a line be read in another order than it was written.
std::size_t printable_length(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80)
        return first >= 0x20 && first != 0x7f;
    const std::size_t length = first < 0xc2 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    if (length == 0 || first > 0xf4 || text.size() < length)
        return 0;
    char32_t character = first & (0x7f >> length);
    for (const char c : text.substr(1, length - 1)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80 || byte > 0xbf)
            return 0;
        character = character << 6 | (byte & 0x3f);
    }
    const bool is_control = character < 0xa0 || character == 0x61c || character == 0x200e ||
                            character == 0x200f || (character >= 0x2028 && character <= 0x202e) ||
                            (character >= 0x2066 && character <= 0x2069);
    return is_control ? 0 : length;
}

void append_printable(std::string& line, std::string_view text) {
    constexpr char digits[] = "0123456789abcdef";
    while (!text.empty()) {
        const std::size_t length = printable_length(text);
        if (length > 0) {
            line += text.substr(0, length);
        } else {
            const auto byte = static_cast<unsigned char>(text[0]);
            line += "\\x";
            line += digits[byte >> 4];
            line += digits[byte & 15];
        }
        text.remove_prefix(std::max<std::size_t>(length, 1));
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
    const std::lock_guard lock(background_mutex);
    const bool is_lost =
        background ? !background->add(line) : ::write(STDERR_FILENO, line.data(), line.size()) < 0;
    *lost += is_lost;
}

Background::Background() {
    const auto lines = std::make_shared<LineFile>(STDERR_FILENO, "log", lost);
    auto writer =
        std::make_unique<BackgroundWriter>([lines](std::string_view text) { lines->write(text); });
    const std::lock_guard lock(background_mutex);
    background = std::move(writer);
}

Background::~Background() {
    std::unique_lock lock(background_mutex);
    const auto writer = std::move(background);
    lock.unlock();
    writer->finish(patience);
}

std::uint64_t lost_lines() {
    return *lost;
}

} // namespace relay::log
