#include "base/tally.h"

namespace relay {
namespace {

constexpr std::chrono::seconds log_interval{60};

} // namespace

Tally::Tally(Deadlines& deadlines, std::uint64_t& total, std::function<void(std::uint64_t)> log)
    : total_(total), log_(std::move(log)), log_again_(deadlines, [this] { log_new_ones(); }) {}

void Tally::add() {
    ++total_;
    if (log_again_.time() == Clock::time_point::max())
        log_new_ones();
}

void Tally::log_new_ones() {
    if (total_ == logged_)
        return;
    log_(total_ - logged_);
    logged_ = total_;
    log_again_.set(log_interval);
}

} // namespace relay
