// How many bytes of requests and answers the relay holds for its users, all together.
#pragma once

#include <cstddef>
#include <utility>

namespace relay {

struct MemoryBudget {
    std::size_t limit; // bytes
    std::size_t used = 0;

    bool is_spent() const { return used >= limit; }
};

// A part of the budget, given back when it is destroyed.
class Reservation {
public:
    explicit Reservation(MemoryBudget& budget) : budget_(budget) {}
    ~Reservation() { resize(0); }
    Reservation(const Reservation&) = delete;
    Reservation& operator=(const Reservation&) = delete;

    void resize(std::size_t bytes) { budget_.used += bytes - std::exchange(bytes_, bytes); }
    std::size_t bytes() const { return bytes_; }

private:
    MemoryBudget& budget_;
    std::size_t bytes_ = 0;
};

} // namespace relay
