#include "identification.h"

#include <csignal>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {
#include <libubox/uloop.h>
}

namespace {

constexpr unsigned CHILD_LIFE_S = 20; // a resolver with two servers and two tries each is done then

// The child's exit status: an index, or one of these.
constexpr int EXIT_NONE = 100;
constexpr int EXIT_UNKNOWN = 101;
static_assert(SERVERS_MAX <= EXIT_NONE);

void (*answer)(int found) = nullptr;
uloop_process child = {};

enum class resolved { same, other, failed };

resolved resolve(const server& asked, uint32_t address) {
    addrinfo hints = {};
    hints.ai_family = AF_INET; // all that the daemon uses
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (getaddrinfo(asked.host, nullptr, &hints, &list) != 0) {
        return resolved::failed;
    }
    resolved result = resolved::other;
    for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
        const sockaddr_in* found = reinterpret_cast<const sockaddr_in*>(entry->ai_addr);
        if (found->sin_addr.s_addr == address) {
            result = resolved::same;
        }
    }
    freeaddrinfo(list);
    return result;
}

int compare(const server* servers, size_t count, uint32_t address, uint16_t port) {
    int result = EXIT_NONE;
    for (size_t i = 0; i < count; i++) {
        if (servers[i].port != port) {
            continue;
        }
        resolved found = resolve(servers[i], address);
        if (found == resolved::same) {
            return static_cast<int>(i);
        }
        if (found == resolved::failed) {
            result = EXIT_UNKNOWN;
        }
    }
    return result;
}

// What the child does. It holds copies of our descriptors: the bus would take us for alive if it
// outlived us.
[[noreturn]] void run_child(const server* servers, size_t count, uint32_t address, uint16_t port) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGTERM, SIG_DFL);
    signal(SIGINT, SIG_DFL);
    signal(SIGALRM, SIG_DFL);
    alarm(CHILD_LIFE_S);
    _exit(compare(servers, count, address, port));
}

void on_child_ended(uloop_process* /*process*/, int status) {
    int found = SERVER_UNKNOWN;
    if (WIFEXITED(status) && WEXITSTATUS(status) < static_cast<int>(SERVERS_MAX)) {
        found = WEXITSTATUS(status);
    } else if (WIFEXITED(status) && WEXITSTATUS(status) == EXIT_NONE) {
        found = SERVER_NONE;
    }
    void (*done)(int) = answer;
    answer = nullptr;
    done(found);
}

} // namespace

int identify_by_address(const server* servers, size_t count, uint32_t address, uint16_t port) {
    int result = SERVER_NONE;
    for (size_t i = 0; i < count; i++) {
        uint32_t own = 0;
        if (servers[i].port != port) {
            continue;
        }
        if (!server_address(servers[i], &own)) {
            result = SERVER_UNKNOWN;
        } else if (own == address) {
            return static_cast<int>(i);
        }
    }
    return result;
}

bool identify_start(const server* servers, size_t count, uint32_t address, uint16_t port,
                    void (*done)(int found)) {
    if (answer != nullptr) {
        return false;
    }
    pid_t pid = fork();
    if (pid < 0) {
        return false;
    }
    if (pid == 0) {
        run_child(servers, count, address, port);
    }
    answer = done;
    child.pid = pid;
    child.cb = on_child_ended;
    uloop_process_add(&child);
    return true;
}

void identify_cancel() {
    if (answer == nullptr) {
        return;
    }
    answer = nullptr;
    uloop_process_delete(&child);
    kill(child.pid, SIGKILL);
    waitpid(child.pid, nullptr, 0);
}
