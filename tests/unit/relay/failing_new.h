// Forces an allocation of this program to fail, as when memory is short.
#pragma once

// Lets the `nth` allocation from now on throw std::bad_alloc, and the following ones pass again:
// those of operator new, and of aligned_alloc, from which Asio takes coroutines and operations.
// At most one at a time; other threads are spared.
class FailingNew {
public:
    explicit FailingNew(int nth);
    ~FailingNew();
    FailingNew(const FailingNew&) = delete;
    FailingNew& operator=(const FailingNew&) = delete;

    bool happened() const;
};
