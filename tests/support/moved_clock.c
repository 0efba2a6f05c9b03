// Preloaded into a program under test: its monotonic clock runs ahead of the machine's by the
// number of seconds, 64 bits of the machine's byte order, in the file that MOVED_CLOCK names. The
// test writes that number while the program runs; pauses until a point of time stay as long as
// they are only while it does not.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

static int (*machines_clock)(clockid_t, struct timespec *);
static const volatile int64_t *seconds_ahead;

__attribute__((constructor)) static void find_clocks(void) {
    machines_clock = (int (*)(clockid_t, struct timespec *))dlsym(RTLD_NEXT, "clock_gettime");
    const char *name = getenv("MOVED_CLOCK");
    const int file = name ? open(name, O_RDONLY | O_CLOEXEC) : -1;
    if (file < 0) {
        return;
    }
    void *page = mmap(NULL, sizeof *seconds_ahead, PROT_READ, MAP_SHARED, file, 0);
    if (page != MAP_FAILED) {
        seconds_ahead = page;
    }
    close(file);
}

int clock_gettime(clockid_t clock, struct timespec *now) {
    if (!machines_clock) { // a library's constructor that runs before ours
        find_clocks();
    }
    const int result = machines_clock(clock, now);
    if (result == 0 && clock == CLOCK_MONOTONIC && seconds_ahead) {
        now->tv_sec += *seconds_ahead;
    }
    return result;
}
