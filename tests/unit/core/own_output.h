#pragma once

#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

#include "core/log.h"

// Puts a descriptor in the place of standard output for the time of its scope. Afterwards the log
// is as at the program's start: nothing known of its output, and no line lost.
class own_output {
public:
    explicit own_output(int fd) : former(dup(STDOUT_FILENO)) { put(fd); }
    ~own_output() {
        int ends[2] = {-1, -1};
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
        put(ends[1]);
        cloud_output_changed(STDOUT_FILENO); // sockets are left as they are
        cloud_print("\n", 1);
        close(ends[0]);
        close(ends[1]);
        put(former);
        close(former);
    }
    own_output(const own_output&) = delete;
    own_output& operator=(const own_output&) = delete;

private:
    static void put(int fd) {
        fflush(stdout);
        dup2(fd, STDOUT_FILENO);
    }

    int former;
};
