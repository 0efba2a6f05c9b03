// How many bytes of requests and answers the relay holds, in all and for each holder: a user's
// address, a device.
//
// Nobody gets more than a quarter of what is then left: a holder who is alone has a fifth of the
// memory at most, and whoever comes after others that want all still finds some. A little, enough
// for a page, is given beyond the budget, which may be overdrawn by a quarter for that.
#pragma once

#include <cstddef>
#include <memory>
#include <utility>

namespace relay {

struct MemoryBudget {
    std::size_t limit; // bytes
    std::size_t used = 0;

    std::size_t left() const { return used < limit ? limit - used : 0; }
};

// What is held for one holder, in bytes.
struct MemoryAccount {
    std::size_t used = 0;
};

// Those for whom something is held; either may be nobody.
struct Holders {
    std::shared_ptr<MemoryAccount> user;
    std::shared_ptr<MemoryAccount> device;
};

// A part of the budget, given back when it is destroyed.
class Reservation {
public:
    explicit Reservation(MemoryBudget& budget, Holders holders = {})
        : budget_(&budget), holders_(std::move(holders)) {}
    ~Reservation() { resize(0); }
    Reservation(Reservation&& other) noexcept
        : budget_(other.budget_), holders_(std::move(other.holders_)),
          bytes_(std::exchange(other.bytes_, 0)) {}
    Reservation& operator=(Reservation&&) = delete;

    std::size_t bytes() const { return bytes_; }

    // Whether it may become larger by so many bytes.
    bool may_grow(std::size_t bytes) const {
        return has_share(holders_.user.get(), bytes) && has_share(holders_.device.get(), bytes);
    }

    // Also beyond what may_grow() allows: what is there already has to be counted.
    void resize(std::size_t bytes) {
        const std::size_t added = bytes - std::exchange(bytes_, bytes);
        budget_->used += added;
        for (const auto& account : {holders_.user.get(), holders_.device.get()})
            if (account)
                account->used += added;
    }

private:
    static constexpr std::size_t least_share = 64 << 10;

    bool has_share(const MemoryAccount* account, std::size_t bytes) const {
        const std::size_t used = (account ? account->used : 0) + bytes;
        const std::size_t left = budget_->left();
        return (bytes <= left && used <= (left - bytes) / 4) ||
               (used <= least_share && budget_->used + bytes <= budget_->limit / 4 * 5);
    }

    MemoryBudget* budget_;
    Holders holders_;
    std::size_t bytes_ = 0;
};

} // namespace relay
