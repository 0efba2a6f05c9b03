// Counts and fails calls of the program whose name TORTURE_PROGRAM gives, on the order of the file
// that TORTURE_CONTROL names. Programs of another name, its helpers, only pass through.

#define _GNU_SOURCE
#include "interpose.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

static shared_state* shared; // null: not the program that is meant
static atomic_flag blockLock = ATOMIC_FLAG_INIT;
static __thread int depth;    // within wrapped calls
static __thread bool isOther; // whether the thread is one that the program has begun

// --- set-up -----------------------------------------------------------------------------------

static void report_and_end(const char* what) {
    dprintf(STDERR_FILENO, "torture: %s\n", what);
    _exit(99);
}

void* next_definition(const char* name) {
    depth++; // dlsym may allocate
    void* found = dlsym(RTLD_NEXT, name);
    depth--;
    if (found == NULL) {
        report_and_end(name);
    }
    return found;
}

static bool is_meant(void) {
    char path[4096];
    ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    const char* wanted = getenv("TORTURE_PROGRAM");
    if (length < 0 || wanted == NULL) {
        return false;
    }
    path[length] = '\0';
    return strcmp(strrchr(path, '/') + 1, wanted) == 0;
}

// By system calls: the functions are wrapped.
static void copy_maps(shared_state* state) {
    int fd = (int)syscall(SYS_openat, AT_FDCWD, "/proc/self/maps", O_RDONLY | O_CLOEXEC, 0);
    size_t used = 0;
    long count = 0;
    while (used < MAPS_SIZE - 1 &&
           (count = syscall(SYS_read, fd, state->maps + used, MAPS_SIZE - 1 - used)) > 0) {
        used += (size_t)count;
    }
    state->maps[used] = '\0';
    syscall(SYS_close, fd);
}

// The address sanitizer's options, where it is linked in: it wants to be the first library, and the
// runner counts blocks itself.
const char* __asan_default_options(void) {
    return "verify_asan_link_order=0:detect_leaks=0";
}

static void become_inert(void) {
    shared = NULL;
}

__attribute__((constructor)) static void set_up(void) {
    const char* path = getenv("TORTURE_CONTROL");
    if (path == NULL || !is_meant()) {
        return;
    }
    int fd = (int)syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC, 0);
    if (fd < 0) {
        report_and_end("no control file");
    }
    shared_state* state =
        mmap(NULL, sizeof *state, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    syscall(SYS_close, fd);
    if (state == MAP_FAILED) {
        report_and_end("the control file cannot be mapped");
    }
    pthread_atfork(NULL, NULL, become_inert);
    unsetenv("LD_PRELOAD"); // helpers of the program run without
    copy_maps(state);
    state->process = (uint64_t)getpid();
    shared = state;
}

// --- counting and failing ---------------------------------------------------------------------

void thread_begins(void) {
    isOther = true;
}

static bool is_main_thread(void) {
    return syscall(SYS_gettid) == getpid();
}

typedef struct {
    call_place* place;
    int skipped;
} stack_walk;

static void hash_in(call_place* place, uint64_t value) { // FNV-1a
    place->site = (place->site ^ value) * 1099511628211u;
}

static _Unwind_Reason_Code add_frame(struct _Unwind_Context* context, void* argument) {
    enum { OWN = 3 }; // place_of, what called it, and the wrapper
    stack_walk* walk = argument;
    if (walk->skipped++ < OWN) {
        return _URC_NO_REASON;
    }
    uint64_t frame = _Unwind_GetIP(context);
    walk->place->frames[walk->place->count++] = frame;
    hash_in(walk->place, frame);
    return walk->place->count < FRAMES ? _URC_NO_REASON : _URC_END_OF_STACK;
}

// The stack above the wrapper. By the unwinder itself: the sanitizer puts a frame into backtrace().
__attribute__((noinline)) static call_place place_of(const char* name) {
    call_place place = {{0}, 1469598103934665603u, 0, {0}};
    strncpy(place.name, name, sizeof place.name - 1);
    for (const char* letter = name; *letter != '\0'; letter++) {
        hash_in(&place, (unsigned char)*letter);
    }
    stack_walk walk = {&place, 0};
    _Unwind_Backtrace(add_frame, &walk);
    return place;
}

// From the call `wanted` on: the log's own calls go through, or no failure could be logged.
static bool is_ordered(uint64_t number, const call_place* place, int fd) {
    switch (shared->mode) {
    case FAIL_ONCE:
        return number == shared->wanted;
    case FAIL_FROM:
        return number >= shared->wanted && (fd == NOT_ABOUT_A_DESCRIPTOR || fd > STDERR_FILENO);
    case FAIL_SITE:
        return place->site == shared->wanted && ++shared->seen == shared->occurrence;
    default:
        return false;
    }
}

static bool is_counted(void) {
    return shared != NULL && depth == 0 && shared->armed &&
           (isOther ? shared->onOthers : shared->onMain && is_main_thread());
}

__attribute__((noinline)) bool call_fails(const char* name, int error, int fd) {
    if (!is_counted()) {
        return false;
    }
    int before = errno;
    depth++;
    uint64_t number = ++shared->calls;
    bool records = shared->records && number <= CALL_RECORDS;
    call_place place = {0};
    if (records || shared->mode == FAIL_SITE) {
        place = place_of(name);
    }
    if (records) {
        shared->record[number - 1] = place;
    }
    bool fails = is_ordered(number, &place, fd);
    if (fails && shared->failures++ == 0) {
        shared->hit = place.count != 0 ? place : place_of(name);
    }
    depth--;
    errno = !fails ? before : shared->error != 0 ? (int)shared->error : error;
    return fails;
}

void enter_call(void) {
    depth++;
}

void leave_call(void) {
    depth--;
}

// --- live blocks: a hash table without tombstones ---------------------------------------------

static size_t home_of(uint64_t address) {
    return (size_t)(address >> 4) * 2654435761u & (BLOCK_SLOTS - 1);
}

static void lock_blocks(void) {
    while (atomic_flag_test_and_set_explicit(&blockLock, memory_order_acquire)) {
    }
}

static void unlock_blocks(void) {
    atomic_flag_clear_explicit(&blockLock, memory_order_release);
}

static live_block* find_slot(uint64_t address) {
    for (size_t i = 0; i < BLOCK_SLOTS; i++) {
        live_block* slot = &shared->block[(home_of(address) + i) & (BLOCK_SLOTS - 1)];
        if (slot->address == address || slot->address == 0) {
            return slot;
        }
    }
    return NULL;
}

void block_put_back(live_block block) {
    if (shared == NULL || block.address == 0) {
        return;
    }
    lock_blocks();
    live_block* slot = find_slot(block.address);
    if (slot == NULL) {
        shared->overflows++;
    } else {
        shared->blocks += slot->address == 0;
        shared->bytes += block.size - (slot->address == 0 ? 0 : slot->size);
        *slot = block;
    }
    unlock_blocks();
}

__attribute__((noinline)) void block_appears(const char* name, void* address, size_t size) {
    if (shared == NULL || address == NULL) {
        return;
    }
    int before = errno;
    live_block block = {0};
    block.address = (uint64_t)(uintptr_t)address;
    block.size = size;
    block.number = ++shared->allocations;
    if (shared->records) {
        depth++;
        block.place = place_of(name);
        depth--;
    }
    block_put_back(block);
    errno = before;
}

// Fills the gap with the next slot of the same probe's way, and so on.
static void empty_slot(size_t gap) {
    enum { MASK = BLOCK_SLOTS - 1 };
    size_t next = gap;
    while (shared->block[next = (next + 1) & MASK].address != 0) {
        size_t home = home_of(shared->block[next].address);
        if (((next - home) & MASK) >= ((next - gap) & MASK)) {
            shared->block[gap] = shared->block[next];
            gap = next;
        }
    }
    shared->block[gap].address = 0;
}

live_block block_taken(void* address) {
    live_block taken = {0};
    if (shared == NULL || address == NULL) {
        return taken;
    }
    lock_blocks();
    live_block* slot = find_slot((uint64_t)(uintptr_t)address);
    if (slot != NULL && slot->address != 0) {
        taken = *slot;
        shared->blocks--;
        shared->bytes -= taken.size;
        empty_slot((size_t)(slot - shared->block));
    }
    unlock_blocks();
    return taken;
}

void block_goes(void* address) {
    block_taken(address);
}
