// What the interposer and the runner share: a file that both map. The runner (control.py) writes
// the order and reads the rest; both sides know the layout, so a change here is one there.

#pragma once

#include <stdatomic.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

enum {
    FRAMES = 14,           // of a call's stack, innermost first
    BLOCK_SLOTS = 1 << 16, // of the table of live blocks; a power of two
    CALL_RECORDS = 1 << 15,
    MAPS_SIZE = 64 * 1024,
    NAME_SIZE = 24,
};

// Which calls fail while `armed`.
enum order_mode { COUNT_ONLY, FAIL_ONCE, FAIL_FROM, FAIL_SITE };

// A call that was counted, or a block that is live: where it came from.
typedef struct {
    char name[NAME_SIZE];
    uint64_t site;  // a hash of the name and the frames
    uint64_t count; // of frames
    uint64_t frames[FRAMES];
} call_place;

typedef struct {
    uint64_t address; // 0: a free slot
    uint64_t size;
    uint64_t number; // of allocations, this one included, since the program began
    call_place place;
} live_block;

typedef struct {
    // The runner's.
    _Atomic uint64_t armed;
    _Atomic uint64_t onMain;   // whether calls of the main thread count
    _Atomic uint64_t onOthers; // whether calls of other threads count
    _Atomic uint64_t mode;
    _Atomic uint64_t wanted; // FAIL_ONCE, FAIL_FROM: the call's number, from 1. FAIL_SITE: its site
    _Atomic uint64_t occurrence; // FAIL_SITE: which call of that site, from 1
    _Atomic uint64_t error;      // errno of a failing call; 0: each call's own
    _Atomic uint64_t records;    // whether every counted call, and every block, keeps its stack
    // The program's.
    _Atomic uint64_t process;  // 0: no program has loaded the interposer yet
    _Atomic uint64_t calls;    // counted since the runner set it to 0
    _Atomic uint64_t failures; // among them
    _Atomic uint64_t seen;     // calls of the wanted site
    _Atomic uint64_t blocks;
    _Atomic uint64_t bytes;
    _Atomic uint64_t allocations;
    _Atomic uint64_t overflows; // blocks that found no slot
    call_place hit;             // the first call that failed
    char maps[MAPS_SIZE];       // /proc/self/maps of the program
    call_place record[CALL_RECORDS];
    live_block block[BLOCK_SLOTS];
} shared_state;

// What a call is about, other than a descriptor. Of the second kind are sleeps, the clock and
// whatever is repeated until it succeeds: were they to fail for good, no limit of time could hold.
enum { NOT_ABOUT_A_DESCRIPTOR = -1, NEVER_FOR_GOOD = -2 };

// Counts the call `name` and tells whether it is to fail; errno is `error` then. `fd`: the
// descriptor that it is about.
bool call_fails(const char* name, int error, int fd);

// Between the two, calls are neither counted nor failed: those that a wrapped function makes.
void enter_call(void);
void leave_call(void);

// Another thread than the main one runs the program's own code from now on.
void thread_begins(void);

void block_appears(const char* name, void* address, size_t size);
void block_goes(void* address);
// Before the allocator moves a block: another thread may get its address the moment it is free.
live_block block_taken(void* address);
void block_put_back(live_block block);

const char* __asan_default_options(void);

// The next definition of a function behind ours; ends the program when there is none.
void* next_definition(const char* name);
