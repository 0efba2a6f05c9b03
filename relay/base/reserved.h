// Memory for an asynchronous wait that has to start however short memory is: for the next signal,
// for the next sweep of time limits.
#pragma once

#include <boost/asio/bind_allocator.hpp>

#include <array>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>

namespace relay {

// Holds one operation at a time. Asio gives an operation's memory back before it calls the handler,
// which may so start the next one.
class ReservedMemory {
public:
    void* take(std::size_t bytes) {
        if (taken_ || bytes > bytes_.size())
            throw std::bad_alloc();
        taken_ = true;
        return bytes_.data();
    }
    void give_back() { taken_ = false; }

private:
    alignas(std::max_align_t) std::array<std::byte, 256> bytes_;
    bool taken_ = false;
};

// Shares its memory with the operation: Asio may keep that until its context goes.
template <typename T>
class ReservedAllocator {
public:
    using value_type = T;

    explicit ReservedAllocator(std::shared_ptr<ReservedMemory> memory)
        : memory_(std::move(memory)) {}
    template <typename Other>
    explicit ReservedAllocator(const ReservedAllocator<Other>& other) : memory_(other.memory_) {}

    T* allocate(std::size_t count) { return static_cast<T*>(memory_->take(count * sizeof(T))); }
    void deallocate(T* /*operation*/, std::size_t /*count*/) { memory_->give_back(); }

    template <typename Other>
    bool operator==(const ReservedAllocator<Other>& other) const {
        return memory_ == other.memory_;
    }

private:
    template <typename Other>
    friend class ReservedAllocator;
    std::shared_ptr<ReservedMemory> memory_;
};

// What starts an operation in `memory`, as its handler.
template <typename Handler>
auto reserved(const std::shared_ptr<ReservedMemory>& memory, Handler&& handler) {
    return boost::asio::bind_allocator(ReservedAllocator<void>(memory),
                                       std::forward<Handler>(handler));
}

} // namespace relay
