// Starts a coroutine that nobody waits for.
#pragma once

#include "base/asio.h"
#include "base/guarded.h"

#include <boost/asio/co_spawn.hpp>

#include <exception>
#include <memory>

namespace relay {

// Cleans up after a coroutine that did not come to its end: it threw, could not be started, or was
// dropped by Asio, as happens when an operation that it waits for cannot be allocated.
template <typename OnFailure>
struct Spawned {
    Spawned(const std::shared_ptr<const void>& its_owner, const OnFailure& its_clean_up)
        : owner(its_owner), clean_up(its_clean_up) {}
    ~Spawned() {
        if (!has_ended && !owner.expired())
            guarded("a connection failed", clean_up);
    }
    Spawned(const Spawned&) = delete;
    Spawned& operator=(const Spawned&) = delete;

    const std::weak_ptr<const void> owner;
    const OnFailure clean_up;
    bool has_ended = false;
};

// A lack of memory must end one connection and not the relay. `make` gives the coroutine;
// `on_failure` is called, once, when that does not come to its end while `owner` is there: the
// context outlives its users, and drops what still runs.
template <typename Make, typename OnFailure>
void spawn(const Executor& executor, const std::shared_ptr<const void>& owner, Make&& make,
           const OnFailure& on_failure) {
    static constexpr std::string_view what = "a connection failed";
    std::shared_ptr<Spawned<OnFailure>> spawned;
    if (!guarded(what,
                 [&] { spawned = std::make_shared<Spawned<OnFailure>>(owner, on_failure); })) {
        guarded(what, on_failure);
        return;
    }
    guarded(what, [&] {
        asio::co_spawn(executor, make(), [spawned](const std::exception_ptr& failure) {
            spawned->has_ended = !failure;
            if (failure)
                guarded(what, [&failure] { std::rethrow_exception(failure); });
        });
    });
}

} // namespace relay
