// Coroutines in a test: they start at once, and settle() runs what is ready to run.
#pragma once

#include "base/asio.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <gtest/gtest.h>

#include <functional>

class Coroutines {
public:
    relay::Executor executor() { return context_.get_executor(); }

    // `body` makes the coroutine; it and what it captures by value stay until the end.
    void start(std::function<relay::Awaitable<void>()> body) {
        relay::asio::co_spawn(executor(), std::move(body), relay::asio::detached);
        settle();
    }

    void settle() {
        context_.restart();
        context_.poll();
    }

    // Runs until `condition` holds; fails the test when it does not come to hold.
    void run_until(const std::function<bool()>& condition) {
        const auto deadline = relay::Clock::now() + std::chrono::seconds(10);
        while (!condition() && relay::Clock::now() < deadline) {
            context_.restart();
            context_.run_one_for(std::chrono::milliseconds(20));
        }
        EXPECT_TRUE(condition()) << "it did not come to hold within 10 s";
    }

private:
    relay::asio::io_context context_{1};
};
