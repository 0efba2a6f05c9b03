// The allocators, each in front of the next one, and texts that are allocated.

#define _GNU_SOURCE
#include "interpose.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

// What no header declares.
int __vasprintf_chk(char** text, int flag, const char* format, va_list arguments);
int __asprintf_chk(char** text, int flag, const char* format, ...);
void* _Znwm(size_t size);
void _ZdlPv(void* block);
void _ZdlPvm(void* block, size_t size);

// What is asked for while dlsym looks for the allocator. Never given back.
static char early[64 * 1024];
static size_t earlyUsed;

static void* allocate_early(size_t size) {
    size_t at = (earlyUsed + 15) & ~(size_t)15;
    if (size > sizeof early - at) {
        return NULL;
    }
    earlyUsed = at + size;
    return early + at;
}

static bool is_early(const void* block) {
    return (const char*)block >= early && (const char*)block < early + sizeof early;
}

static void* (*nextMalloc)(size_t);
static void* (*nextCalloc)(size_t, size_t);
static void* (*nextRealloc)(void*, size_t);
static void (*nextFree)(void*);
static int isLooking;

// False while the allocator is being looked for.
static bool has_allocator(void) {
    if (nextFree == NULL && !isLooking) {
        isLooking = 1;
        *(void**)&nextMalloc = next_definition("malloc");
        *(void**)&nextCalloc = next_definition("calloc");
        *(void**)&nextRealloc = next_definition("realloc");
        *(void**)&nextFree = next_definition("free");
    }
    return nextFree != NULL;
}

void* malloc(size_t size) {
    if (!has_allocator()) {
        return allocate_early(size);
    }
    if (call_fails("malloc", ENOMEM, NOT_ABOUT_A_DESCRIPTOR)) {
        return NULL;
    }
    void* block = nextMalloc(size);
    block_appears("malloc", block, size);
    return block;
}

void* calloc(size_t count, size_t size) {
    if (!has_allocator()) {
        return allocate_early(count * size);
    }
    if (call_fails("calloc", ENOMEM, NOT_ABOUT_A_DESCRIPTOR)) {
        return NULL;
    }
    void* block = nextCalloc(count, size);
    block_appears("calloc", block, count * size);
    return block;
}

void* realloc(void* old, size_t size) {
    if (!has_allocator()) {
        return allocate_early(size);
    }
    if (is_early(old)) {
        void* block = malloc(size);
        if (block != NULL) {
            memcpy(block, old, size);
        }
        return block;
    }
    if (call_fails("realloc", ENOMEM, NOT_ABOUT_A_DESCRIPTOR)) {
        return NULL;
    }
    live_block taken = block_taken(old);
    void* block = nextRealloc(old, size);
    if (block != NULL) {
        block_appears("realloc", block, size);
    } else if (size != 0) {
        block_put_back(taken);
    }
    return block;
}

void free(void* block) {
    if (block == NULL || is_early(block) || !has_allocator()) {
        return;
    }
    block_goes(block);
    nextFree(block);
}

int posix_memalign(void** block, size_t alignment, size_t size) {
    static int (*next)(void**, size_t, size_t);
    if (next == NULL) {
        *(void**)&next = next_definition("posix_memalign");
    }
    if (call_fails("posix_memalign", ENOMEM, NOT_ABOUT_A_DESCRIPTOR)) {
        return ENOMEM;
    }
    int result = next(block, alignment, size);
    if (result == 0) {
        block_appears("posix_memalign", *block, size);
    }
    return result;
}

void* aligned_alloc(size_t alignment, size_t size) {
    static void* (*next)(size_t, size_t);
    if (next == NULL) {
        *(void**)&next = next_definition("aligned_alloc");
    }
    if (call_fails("aligned_alloc", ENOMEM, NOT_ABOUT_A_DESCRIPTOR)) {
        return NULL;
    }
    void* block = next(alignment, size);
    block_appears("aligned_alloc", block, size);
    return block;
}

// Texts: what they allocate counts with them. The sanitizer's copies come past malloc.

static char* copied(const char* name, char* copy) {
    leave_call();
    if (copy != NULL) {
        block_appears(name, copy, strlen(copy) + 1);
    }
    return copy;
}

char* strdup(const char* text) {
    static char* (*next)(const char*);
    if (next == NULL) {
        *(void**)&next = next_definition("strdup");
    }
    if (call_fails("strdup", ENOMEM, NOT_ABOUT_A_DESCRIPTOR)) {
        return NULL;
    }
    enter_call();
    return copied("strdup", next(text));
}

char* strndup(const char* text, size_t most) {
    static char* (*next)(const char*, size_t);
    if (next == NULL) {
        *(void**)&next = next_definition("strndup");
    }
    if (call_fails("strndup", ENOMEM, NOT_ABOUT_A_DESCRIPTOR)) {
        return NULL;
    }
    enter_call();
    return copied("strndup", next(text, most));
}

static int print_whole(const char* name, char** text, const char* format, va_list arguments) {
    static int (*next)(char**, const char*, va_list);
    if (next == NULL) {
        *(void**)&next = next_definition("vasprintf");
    }
    if (call_fails(name, ENOMEM, NOT_ABOUT_A_DESCRIPTOR)) {
        *text = NULL;
        return -1;
    }
    enter_call();
    int length = next(text, format, arguments);
    copied(name, length >= 0 ? *text : NULL);
    return length;
}

int vasprintf(char** text, const char* format, va_list arguments) {
    return print_whole("vasprintf", text, format, arguments);
}

int asprintf(char** text, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    int length = print_whole("asprintf", text, format, arguments);
    va_end(arguments);
    return length;
}

int __vasprintf_chk(char** text, int flag, const char* format, va_list arguments) {
    (void)flag;
    return print_whole("vasprintf", text, format, arguments);
}

int __asprintf_chk(char** text, int flag, const char* format, ...) {
    (void)flag;
    va_list arguments;
    va_start(arguments, format);
    int length = print_whole("asprintf", text, format, arguments);
    va_end(arguments);
    return length;
}

// --- C++

static void* allocate_object(const char* name, size_t size) {
    static void* (*next)(size_t);
    static void (*throwBadAlloc)(void);
    if (next == NULL) {
        *(void**)&throwBadAlloc = next_definition("_ZSt17__throw_bad_allocv");
        *(void**)&next = next_definition("_Znwm");
    }
    if (call_fails(name, ENOMEM, NOT_ABOUT_A_DESCRIPTOR)) {
        throwBadAlloc();
    }
    enter_call();
    void* block = next(size);
    leave_call();
    block_appears(name, block, size);
    return block;
}

static void free_object(void* block) {
    static void (*next)(void*);
    if (next == NULL) {
        *(void**)&next = next_definition("_ZdlPv");
    }
    block_goes(block);
    enter_call();
    next(block);
    leave_call();
}

void* _Znwm(size_t size) {
    return allocate_object("operator new", size);
}
void _ZdlPv(void* block) {
    free_object(block);
}
void _ZdlPvm(void* block, size_t size) {
    (void)size;
    free_object(block);
}
