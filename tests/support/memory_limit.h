#pragma once

#include <sys/resource.h>

// Limits the process's address space, for its scope, to what it has and a quarter of a gigabyte.
// Sanitizers map far more than that by themselves; under them nothing is limited.
class memory_limit {
public:
    memory_limit();
    ~memory_limit();
    memory_limit(const memory_limit&) = delete;
    memory_limit& operator=(const memory_limit&) = delete;

    bool works() const;

private:
    rlimit former;
};

// Whether calloc leaves a large block untouched, so that it costs nothing: a sanitizer may write
// it.
bool calloc_costs_nothing();
