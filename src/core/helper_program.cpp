#include "core/helper_program.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/clock.h"
#include "core/log.h"
#include "core/wanted.h"

namespace {

// A program ends right after it closed its output; one that lingers is looked at less often.
constexpr useconds_t FIRST_LOOK_US = 500;
constexpr useconds_t LAST_LOOK_US = 50 * 1000;
constexpr int KILL_LOOKS = 10; // half a second

struct helper_t {
    pid_t process; // leads its process group
    int output;    // the reading end of its standard output; -1 when closed
    int64_t deadline;
};

// In a process group of its own, with the pipe's end as standard output, and with no signal
// blocked, unlike a worker that starts it. Returns 0 or an errno.
int _spawn_shell(const char* command, int output, pid_t* process) {
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;
    if (int error = posix_spawn_file_actions_init(&files); error != 0) {
        return error;
    }
    if (int error = posix_spawnattr_init(&attributes); error != 0) {
        posix_spawn_file_actions_destroy(&files);
        return error;
    }
    char shell[] = "sh";
    char option[] = "-c";
    char* arguments[] = {shell, option, const_cast<char*>(command), nullptr};
    int error = posix_spawn_file_actions_adddup2(&files, output, STDOUT_FILENO);
    if (error == 0) {
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
        posix_spawnattr_setpgroup(&attributes, 0);
        posix_spawnattr_setsigmask(&attributes, &none);
        error = posix_spawn(process, "/bin/sh", &files, &attributes, arguments, environ);
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    return error;
}

bool _start(const char* command, int64_t limit, helper_t* helper) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    int error = _spawn_shell(command, ends[1], &helper->process);
    close(ends[1]);
    if (error != 0) {
        close(ends[0]);
        errno = error;
        return false;
    }
    helper->output = ends[0];
    helper->deadline = cloud_now_ms() + limit;
    return true;
}

// Milliseconds until the helper must have ended, or until the caller's wish is to be looked at
// again; 0 when it is over.
int _patience(const helper_t& helper) {
    int64_t left = is_let_go() ? 0 : helper.deadline - cloud_now_ms();
    return static_cast<int>(std::clamp<int64_t>(left, 0, LOOK_MS));
}

// Reads until `size` bytes are there or the output is closed. False when the time is up first, or
// when it cannot be read.
bool _read_output(const helper_t& helper, char* buffer, size_t size, size_t* length) {
    while (*length < size) {
        int patience = _patience(helper);
        pollfd output = {helper.output, POLLIN, 0};
        ssize_t count = poll(&output, 1, patience); // 0: nothing to read yet
        if (count > 0) {
            count = read(helper.output, buffer + *length, size - *length);
            if (count == 0) {
                return true;
            }
        }
        if (count < 0 && errno != EINTR) {
            LOG_ERROR("Read the helper's output failed: %s", strerror(errno));
            return false;
        }
        *length += static_cast<size_t>(std::max<ssize_t>(count, 0));
        if (patience == 0) {
            return false;
        }
    }
    return true;
}

// Whoever else waits for children may have been faster: then there is nothing left to wait for.
bool _has_ended(const helper_t& helper) {
    return waitpid(helper.process, nullptr, WNOHANG) != 0;
}

bool _wait_for_end(const helper_t& helper) {
    useconds_t pause = FIRST_LOOK_US;
    while (!_has_ended(helper)) {
        if (_patience(helper) == 0) {
            return false;
        }
        usleep(pause);
        pause = std::min(pause * 2, LAST_LOOK_US);
    }
    return true;
}

// One that even a kill does not end at once, stuck in the kernel, is left to the event loop.
void _kill_group(const helper_t& helper) {
    kill(-helper.process, SIGKILL);
    for (int look = 0; look < KILL_LOOKS && !_has_ended(helper); look++) {
        usleep(LAST_LOOK_US);
    }
}

} // namespace

ssize_t helper_program_read(const char* command, char* buffer, size_t size, int64_t limit) {
    helper_t helper = {};
    if (!_start(command, limit, &helper)) {
        return -1;
    }
    size_t length = 0;
    bool isRead = _read_output(helper, buffer, size, &length);
    close(helper.output); // a program that prints on gets SIGPIPE
    if (isRead && _wait_for_end(helper)) {
        return static_cast<ssize_t>(length);
    }
    _kill_group(helper);
    memset(buffer, 0, length);
    return 0;
}
