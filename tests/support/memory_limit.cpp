#include "support/memory_limit.h"

#include <fstream>
#include <unistd.h>

memory_limit::memory_limit() : former() {
    constexpr rlim_t HEADROOM = 256UL * 1024 * 1024;
    getrlimit(RLIMIT_AS, &former);
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit limit = former;
    limit.rlim_cur = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + HEADROOM;
    if (works()) {
        setrlimit(RLIMIT_AS, &limit);
    }
}

memory_limit::~memory_limit() {
    setrlimit(RLIMIT_AS, &former);
}

bool memory_limit::works() const {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return false;
#else
    return true;
#endif
}

bool calloc_costs_nothing() {
#if defined(__SANITIZE_THREAD__)
    return false;
#else
    return true;
#endif
}
