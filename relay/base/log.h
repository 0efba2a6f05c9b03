// relay_server's log: one line an event on standard error, "time level text". Used on any thread.
// What comes from outside may stand in a line: what a terminal or a reader could be fooled by, and
// what is not UTF-8, is shown as \xNN.
#pragma once

#include <cstdint>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>

namespace relay::log {

enum class Level { info, warning, error };

void write(Level level, std::string_view text);

// While it lives, a thread of its own writes the lines, and nobody waits for who reads them; before
// and afterwards each is one write of the caller's. At its end it waits a little for the last ones.
class Background {
public:
    Background(); // throws std::system_error when no thread can be started
    ~Background();
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;
};

std::uint64_t lost_lines();

template <typename... Pieces>
std::string join(const Pieces&... pieces) {
    std::string text;
    const auto append = [&text](const auto& piece) {
        if constexpr (std::is_arithmetic_v<std::remove_cvref_t<decltype(piece)>>)
            text += std::to_string(piece);
        else
            text += piece;
    };
    (append(pieces), ...);
    return text;
}

// A line for which memory is short is lost; nothing is thrown, so that the caller goes on.
template <typename... Pieces>
void put(Level level, const Pieces&... pieces) noexcept {
    try {
        write(level, join(pieces...));
    } catch (const std::bad_alloc&) {
    }
}

template <typename... Pieces>
void info(const Pieces&... pieces) noexcept {
    put(Level::info, pieces...);
}

template <typename... Pieces>
void warning(const Pieces&... pieces) noexcept {
    put(Level::warning, pieces...);
}

template <typename... Pieces>
void error(const Pieces&... pieces) noexcept {
    put(Level::error, pieces...);
}

} // namespace relay::log
