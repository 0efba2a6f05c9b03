#include "front/turn.h"

#include "front/pace.h"

namespace relay {

Awaitable<bool> write(Turn& turn, UserStream& stream, std::chrono::seconds patience,
                      std::string_view first, std::string_view second) {
    const std::size_t size = first.size() + second.size();
    if (size == 0)
        co_return true;
    stream.deadline().set(patience + std::chrono::seconds(size / least_rate));
    const bool written = co_await stream.write(first, second);
    stream.deadline().clear();
    turn.sent_bytes += written ? size : 0;
    co_return written;
}

} // namespace relay
