#include "support/resident_memory.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

size_t field(const std::string& name) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(name)) {
            return std::stoul(line.substr(name.size()));
        }
    }
    return 0;
}

} // namespace

bool resident_memory_is_our_own() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return false;
#else
    const char* preloaded = getenv("LD_PRELOAD");
    return preloaded == nullptr || strstr(preloaded, "valgrind") == nullptr;
#endif
}

size_t resident_kib() {
    return field("VmRSS:");
}

size_t resident_peak_kib() {
    return field("VmHWM:");
}

void reset_resident_peak() {
    std::ofstream("/proc/self/clear_refs") << "5";
}
