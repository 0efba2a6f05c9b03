// The calls that can fail, each in front of the next definition: the sanitizer's, or the library's.
//
// Left out: what no program can act on (close, free, shutdown), and what the C library calls within
// itself, which does not come by here.

#define _GNU_SOURCE
#include "interpose.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#undef open
#undef fopen
#undef fcntl

int ioctl(int fd, unsigned long request, void* argument); // as no header declares it

// A function that fails with `error` in errno and `value` as its result. `fd`: what it is about.
#define FALLIBLE(type, name, parameters, arguments, fd, error, value)                             \
    type name parameters {                                                                        \
        static type(*next) parameters;                                                            \
        if (next == NULL) {                                                                       \
            *(void**)&next = next_definition(#name);                                              \
        }                                                                                         \
        if (call_fails(#name, error, fd)) {                                                       \
            return value;                                                                         \
        }                                                                                         \
        return next arguments;                                                                    \
    }

// The same, for functions that make calls of the list themselves, which count for nothing then:
// their failure is the function's own.
#define FALLIBLE_AS_A_WHOLE(type, name, parameters, arguments, fd, error, value)                  \
    type name parameters {                                                                        \
        static type(*next) parameters;                                                            \
        if (next == NULL) {                                                                       \
            *(void**)&next = next_definition(#name);                                              \
        }                                                                                         \
        if (call_fails(#name, error, fd)) {                                                       \
            return value;                                                                         \
        }                                                                                         \
        enter_call();                                                                             \
        type result = next arguments;                                                             \
        leave_call();                                                                             \
        return result;                                                                            \
    }

// Functions that return their error instead of setting errno.
#define FALLIBLE_BY_RESULT(name, parameters, arguments, fd, error)                                \
    FALLIBLE(int, name, parameters, arguments, fd, error, errno)

// --- files ------------------------------------------------------------------------------------

static int open_at(const char* name, int folder, const char* path, int flags, mode_t mode) {
    static int (*next)(int, const char*, int, ...);
    if (next == NULL) {
        *(void**)&next = next_definition("openat");
    }
    return call_fails(name, EMFILE, NOT_ABOUT_A_DESCRIPTOR) ? -1 : next(folder, path, flags, mode);
}

static mode_t mode_of(int flags, va_list arguments) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

#define OPENS(name, ...)                                                                          \
    va_list arguments;                                                                            \
    va_start(arguments, flags);                                                                   \
    mode_t mode = mode_of(flags, arguments);                                                      \
    va_end(arguments);                                                                            \
    return open_at(name, __VA_ARGS__, path, flags, mode)

int open(const char* path, int flags, ...) {
    OPENS("open", AT_FDCWD);
}
int open64(const char* path, int flags, ...) {
    OPENS("open", AT_FDCWD);
}
int openat(int folder, const char* path, int flags, ...) {
    OPENS("openat", folder);
}
int openat64(int folder, const char* path, int flags, ...) {
    OPENS("openat", folder);
}

int fcntl(int fd, int command, ...) {
    static int (*next)(int, int, ...);
    if (next == NULL) {
        *(void**)&next = next_definition("fcntl");
    }
    va_list arguments;
    va_start(arguments, command);
    void* argument = va_arg(arguments, void*); // whatever it is, it fits
    va_end(arguments);
    return call_fails("fcntl", EBADF, fd) ? -1 : next(fd, command, argument);
}
int fcntl64(int fd, int command, ...) __attribute__((alias("fcntl")));

FALLIBLE_AS_A_WHOLE(FILE*, fopen, (const char* path, const char* mode), (path, mode),
                    NOT_ABOUT_A_DESCRIPTOR, EMFILE, NULL)
FILE* fopen64(const char* path, const char* mode) __attribute__((alias("fopen")));
FALLIBLE_AS_A_WHOLE(FILE*, fdopen, (int fd, const char* mode), (fd, mode), fd, ENOMEM, NULL)
FALLIBLE_AS_A_WHOLE(DIR*, opendir, (const char* path), (path), NOT_ABOUT_A_DESCRIPTOR, EMFILE, NULL)
FALLIBLE_AS_A_WHOLE(DIR*, fdopendir, (int fd), (fd), fd, ENOMEM, NULL)
FALLIBLE_AS_A_WHOLE(struct dirent*, readdir, (DIR * folder), (folder), NOT_ABOUT_A_DESCRIPTOR,
                    EBADF, NULL)
// Not for good: libuci reads on until the end of the file, which one that cannot be read never has.
FALLIBLE_AS_A_WHOLE(char*, fgets, (char* text, int size, FILE* file), (text, size, file),
                    NEVER_FOR_GOOD, EIO, NULL)
FALLIBLE_AS_A_WHOLE(size_t, fread, (void* data, size_t size, size_t count, FILE* file),
                    (data, size, count, file), NOT_ABOUT_A_DESCRIPTOR, EIO, 0)
FALLIBLE(ssize_t, read, (int fd, void* data, size_t size), (fd, data, size), fd, EIO, -1)
FALLIBLE(ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size), fd, EIO, -1)
FALLIBLE(ssize_t, readv, (int fd, const struct iovec* parts, int count), (fd, parts, count), fd,
         EIO, -1)
FALLIBLE(ssize_t, writev, (int fd, const struct iovec* parts, int count), (fd, parts, count), fd,
         EIO, -1)
FALLIBLE(int, stat, (const char* path, struct stat* file), (path, file), NOT_ABOUT_A_DESCRIPTOR,
         EACCES, -1)
FALLIBLE(int, lstat, (const char* path, struct stat* file), (path, file), NOT_ABOUT_A_DESCRIPTOR,
         EACCES, -1)
FALLIBLE(int, fstat, (int fd, struct stat* file), (fd, file), fd, EIO, -1)
FALLIBLE(ssize_t, readlinkat, (int folder, const char* path, char* text, size_t size),
         (folder, path, text, size), NOT_ABOUT_A_DESCRIPTOR, EACCES, -1)
FALLIBLE(int, ioctl, (int fd, unsigned long request, void* argument), (fd, request, argument), fd,
         EIO, -1)
FALLIBLE(int, dup2, (int from, int to), (from, to), to, EBUSY, -1)
FALLIBLE(int, pipe, (int ends[2]), (ends), NOT_ABOUT_A_DESCRIPTOR, EMFILE, -1)
FALLIBLE(int, pipe2, (int ends[2], int flags), (ends, flags), NOT_ABOUT_A_DESCRIPTOR, EMFILE, -1)

// --- sockets ----------------------------------------------------------------------------------

FALLIBLE(int, socket, (int domain, int type, int protocol), (domain, type, protocol),
         NOT_ABOUT_A_DESCRIPTOR, EMFILE, -1)
FALLIBLE(int, socketpair, (int domain, int type, int protocol, int ends[2]),
         (domain, type, protocol, ends), NOT_ABOUT_A_DESCRIPTOR, EMFILE, -1)
FALLIBLE(int, connect, (int fd, const struct sockaddr* to, socklen_t size), (fd, to, size), fd,
         ENETUNREACH, -1)
FALLIBLE(int, bind, (int fd, const struct sockaddr* to, socklen_t size), (fd, to, size), fd,
         EADDRINUSE, -1)
FALLIBLE(int, listen, (int fd, int backlog), (fd, backlog), fd, EADDRINUSE, -1)
FALLIBLE(int, accept, (int fd, struct sockaddr* from, socklen_t* size), (fd, from, size), fd,
         EMFILE, -1)
FALLIBLE(int, accept4, (int fd, struct sockaddr* from, socklen_t* size, int flags),
         (fd, from, size, flags), fd, EMFILE, -1)
FALLIBLE(int, setsockopt, (int fd, int level, int name, const void* value, socklen_t size),
         (fd, level, name, value, size), fd, ENOBUFS, -1)
FALLIBLE(int, getsockopt, (int fd, int level, int name, void* value, socklen_t* size),
         (fd, level, name, value, size), fd, ENOBUFS, -1)
FALLIBLE(int, getsockname, (int fd, struct sockaddr* own, socklen_t* size), (fd, own, size), fd,
         ENOBUFS, -1)
FALLIBLE(int, getpeername, (int fd, struct sockaddr* other, socklen_t* size), (fd, other, size), fd,
         ENOTCONN, -1)
FALLIBLE(ssize_t, send, (int fd, const void* data, size_t size, int flags), (fd, data, size, flags),
         fd, EPIPE, -1)
FALLIBLE(ssize_t, recv, (int fd, void* data, size_t size, int flags), (fd, data, size, flags), fd,
         ECONNRESET, -1)
FALLIBLE(ssize_t, sendto,
         (int fd, const void* data, size_t size, int flags, const struct sockaddr* to,
          socklen_t length),
         (fd, data, size, flags, to, length), fd, EPIPE, -1)
FALLIBLE(ssize_t, recvfrom,
         (int fd, void* data, size_t size, int flags, struct sockaddr* from, socklen_t* length),
         (fd, data, size, flags, from, length), fd, ECONNRESET, -1)
FALLIBLE(ssize_t, sendmsg, (int fd, const struct msghdr* message, int flags), (fd, message, flags),
         fd, EPIPE, -1)
FALLIBLE(ssize_t, recvmsg, (int fd, struct msghdr* message, int flags), (fd, message, flags), fd,
         ECONNRESET, -1)
FALLIBLE(int, getaddrinfo,
         (const char* name, const char* service, const struct addrinfo* hints,
          struct addrinfo** found),
         (name, service, hints, found), NOT_ABOUT_A_DESCRIPTOR, ENOMEM, EAI_MEMORY)
FALLIBLE(int, gethostbyname_r,
         (const char* name, struct hostent* entry, char* buffer, size_t size,
          struct hostent** found, int* error),
         (name, entry, buffer, size, found, error), NOT_ABOUT_A_DESCRIPTOR, EAGAIN, EAGAIN)

// --- waiting ----------------------------------------------------------------------------------

FALLIBLE(int, poll, (struct pollfd * polled, nfds_t count, int limit), (polled, count, limit),
         count == 0 ? NOT_ABOUT_A_DESCRIPTOR : polled->fd, ENOMEM, -1)
FALLIBLE(int, select, (int count, fd_set* in, fd_set* out, fd_set* other, struct timeval* limit),
         (count, in, out, other, limit), NOT_ABOUT_A_DESCRIPTOR, ENOMEM, -1)
FALLIBLE(int, epoll_create, (int size), (size), NOT_ABOUT_A_DESCRIPTOR, EMFILE, -1)
FALLIBLE(int, epoll_create1, (int flags), (flags), NOT_ABOUT_A_DESCRIPTOR, EMFILE, -1)
// To take a descriptor out always succeeds.
int epoll_ctl(int fd, int what, int other, struct epoll_event* event) {
    static int (*next)(int, int, int, struct epoll_event*);
    if (next == NULL) {
        *(void**)&next = next_definition("epoll_ctl");
    }
    if (what != EPOLL_CTL_DEL && call_fails("epoll_ctl", ENOSPC, NOT_ABOUT_A_DESCRIPTOR)) {
        return -1;
    }
    return next(fd, what, other, event);
}

FALLIBLE(int, epoll_wait, (int fd, struct epoll_event* events, int most, int limit),
         (fd, events, most, limit), NOT_ABOUT_A_DESCRIPTOR, EINTR, -1)
FALLIBLE(int, eventfd, (unsigned value, int flags), (value, flags), NOT_ABOUT_A_DESCRIPTOR, EMFILE,
         -1)
FALLIBLE(int, timerfd_create, (int clock, int flags), (clock, flags), NOT_ABOUT_A_DESCRIPTOR,
         EMFILE, -1)
FALLIBLE(int, timerfd_settime,
         (int fd, int flags, const struct itimerspec* time, struct itimerspec* old),
         (fd, flags, time, old), fd, EINVAL, -1)
FALLIBLE(int, usleep, (useconds_t pause), (pause), NEVER_FOR_GOOD, EINTR, -1)
FALLIBLE_BY_RESULT(clock_nanosleep,
                   (clockid_t clock, int flags, const struct timespec* until,
                    struct timespec* rest),
                   (clock, flags, until, rest), NEVER_FOR_GOOD, EINTR)

// --- users, processes, threads, time, chance --------------------------------------------------

// As a whole: glibc does not bear a failing allocation while it reads who looks users up.
FALLIBLE_AS_A_WHOLE(struct passwd*, getpwuid, (uid_t user), (user), NOT_ABOUT_A_DESCRIPTOR, ENOMEM,
                    NULL)
FALLIBLE_AS_A_WHOLE(struct group*, getgrgid, (gid_t group), (group), NOT_ABOUT_A_DESCRIPTOR, ENOMEM,
                    NULL)
FALLIBLE(pid_t, fork, (void), (), NOT_ABOUT_A_DESCRIPTOR, EAGAIN, -1)

// Fails only in taking an ended child, as when somebody else was faster; the child is gone then.
pid_t waitpid(pid_t child, int* status, int flags) {
    static pid_t (*next)(pid_t, int*, int);
    if (next == NULL) {
        *(void**)&next = next_definition("waitpid");
    }
    pid_t taken = next(child, status, flags);
    if (taken > 0 && call_fails("waitpid", ECHILD, NOT_ABOUT_A_DESCRIPTOR)) {
        return -1;
    }
    return taken;
}

FALLIBLE_BY_RESULT(posix_spawn,
                   (pid_t * child, const char* path, const posix_spawn_file_actions_t* files,
                    const posix_spawnattr_t* attributes, char* const* arguments,
                    char* const* environment),
                   (child, path, files, attributes, arguments, environment),
                   NOT_ABOUT_A_DESCRIPTOR, EAGAIN)
FALLIBLE_BY_RESULT(posix_spawn_file_actions_adddup2,
                   (posix_spawn_file_actions_t * files, int from, int to), (files, from, to),
                   NOT_ABOUT_A_DESCRIPTOR, ENOMEM)

typedef struct {
    void* (*run)(void*);
    void* argument;
} thread_start;

// What the sanitizer does on a new thread before the program's function is not the program's.
static void* run_thread(void* given) {
    thread_start start = *(thread_start*)given;
    free(given);
    thread_begins();
    return start.run(start.argument);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                   void* argument) {
    static int (*next)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    if (next == NULL) {
        *(void**)&next = next_definition("pthread_create");
    }
    if (call_fails("pthread_create", EAGAIN, NOT_ABOUT_A_DESCRIPTOR)) {
        return EAGAIN;
    }
    enter_call();
    thread_start* start = malloc(sizeof *start);
    leave_call();
    if (start == NULL) {
        return EAGAIN;
    }
    *start = (thread_start){run, argument};
    return next(thread, attributes, run_thread, start);
}

FALLIBLE_BY_RESULT(pthread_mutex_init,
                   (pthread_mutex_t * mutex, const pthread_mutexattr_t* attributes),
                   (mutex, attributes), NOT_ABOUT_A_DESCRIPTOR, ENOMEM)
// Not for good: wolfSSL frees nothing whose lock it does not get.
FALLIBLE_BY_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex), NEVER_FOR_GOOD, EAGAIN)
FALLIBLE_BY_RESULT(pthread_mutex_trylock, (pthread_mutex_t * mutex), (mutex),
                   NOT_ABOUT_A_DESCRIPTOR, EBUSY)
FALLIBLE_BY_RESULT(pthread_mutex_timedlock,
                   (pthread_mutex_t * mutex, const struct timespec* until), (mutex, until),
                   NOT_ABOUT_A_DESCRIPTOR, ETIMEDOUT)
FALLIBLE_BY_RESULT(pthread_cond_init,
                   (pthread_cond_t * condition, const pthread_condattr_t* attributes),
                   (condition, attributes), NOT_ABOUT_A_DESCRIPTOR, ENOMEM)
// Every kernel can read the monotonic clock.
int clock_gettime(clockid_t clock, struct timespec* now) {
    static int (*next)(clockid_t, struct timespec*);
    if (next == NULL) {
        *(void**)&next = next_definition("clock_gettime");
    }
    if (clock != CLOCK_MONOTONIC && call_fails("clock_gettime", EINVAL, NEVER_FOR_GOOD)) {
        return -1;
    }
    return next(clock, now);
}

FALLIBLE(struct tm*, localtime_r, (const time_t* time, struct tm* local), (time, local),
         NOT_ABOUT_A_DESCRIPTOR, EOVERFLOW, NULL)
FALLIBLE(struct tm*, gmtime_r, (const time_t* time, struct tm* universal), (time, universal),
         NOT_ABOUT_A_DESCRIPTOR, EOVERFLOW, NULL)
FALLIBLE(ssize_t, getrandom, (void* data, size_t size, unsigned flags), (data, size, flags),
         NOT_ABOUT_A_DESCRIPTOR, ENOSYS, -1)
FALLIBLE(int, getentropy, (void* data, size_t size), (data, size), NOT_ABOUT_A_DESCRIPTOR, EIO, -1)
