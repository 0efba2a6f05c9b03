#include "core/footprint.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

namespace {

#ifdef __GLIBC__
constexpr int MAPPED_BLOCK_SIZE = 128 * 1024; // the library's own default, held where it is
#endif

constexpr char MEMORY_INFO_PATH[] = "/proc/meminfo";
constexpr char AVAILABLE[] = "MemAvailable:";
constexpr size_t TEXT_SIZE = 512; // the line is among the first three
constexpr size_t BYTES_PER_KIB = 1024;

} // namespace

void set_up_memory() {
#ifdef __GLIBC__
    mallopt(M_MMAP_THRESHOLD, MAPPED_BLOCK_SIZE);
    mallopt(M_ARENA_MAX, 1); // two threads that allocate little need no arena each
#endif
}

void release_idle_memory() {
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

size_t available_memory() {
    int file = open(MEMORY_INFO_PATH, O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return SIZE_MAX;
    }
    char text[TEXT_SIZE] = {};
    ssize_t length = read(file, text, sizeof text - 1);
    close(file);
    const char* line = length <= 0 ? nullptr : strstr(text, AVAILABLE);
    if (line == nullptr) {
        return SIZE_MAX;
    }
    uint64_t kibibytes = strtoull(line + sizeof AVAILABLE - 1, nullptr, 10);
    return kibibytes > SIZE_MAX / BYTES_PER_KIB ? SIZE_MAX
                                                : static_cast<size_t>(kibibytes) * BYTES_PER_KIB;
}
