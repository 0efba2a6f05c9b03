#include "support/high_descriptors.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

void allow_high_descriptors() {
    constexpr rlim_t ENOUGH = FD_SETSIZE + 1024;
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur >= ENOUGH) {
        return;
    }
    limit.rlim_cur = ENOUGH;
    if (limit.rlim_max < ENOUGH) {
        limit.rlim_max = ENOUGH;
    }
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        perror("RLIMIT_NOFILE");
        abort();
    }
}

} // namespace

high_descriptor::high_descriptor(int original, int wanted) : number(wanted) {
    allow_high_descriptors();
    if (dup2(original, number) != number) {
        perror("dup2");
        abort();
    }
}

high_descriptor::~high_descriptor() {
    close(number);
}

occupied_descriptors::occupied_descriptors() {
    allow_high_descriptors();
    int last = 0;
    while (last < FD_SETSIZE - 1) {
        last = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (last < 0) {
            perror("/dev/null");
            abort();
        }
        fillers.push_back(last);
    }
}

occupied_descriptors::~occupied_descriptors() {
    for (int filler : fillers) {
        close(filler);
    }
}
