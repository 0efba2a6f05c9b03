#include "session_watch.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "process.h"
#include "tcp_table.h"

namespace {

constexpr int64_t LOOK_INTERVAL_MS = 1000;
constexpr int CHEAP_LOOKS = 29;      // between two thorough ones: half a minute
constexpr int CALM_LOOKS_NEEDED = 2; // a handshake has a calm second, perhaps, but not two
constexpr int64_t CALM_LEAST = 3;    // wake-ups a second: a session's five, give or take
constexpr int64_t CALM_MOST = 15;    // a tenth of a second for the twenty milliseconds of a hello
constexpr int64_t MS_PER_SECOND = 1000;
constexpr size_t SOCKETS_MAX = 256; // of the daemon; its relay's is among the first
constexpr size_t NAME_SIZE = 32;
constexpr size_t ENTRY_SIZE = 64;
constexpr size_t STATUS_SIZE = 4096;
constexpr size_t ROW_SIZE = 512;

struct file_deleter {
    void operator()(FILE* file) const { fclose(file); }
};
using file_ptr = std::unique_ptr<FILE, file_deleter>;

// --- the worker ---

// The number in a worker's name, or -1 for a thread that is none.
int worker_number(int process, int thread) {
    char entry[ENTRY_SIZE];
    char name[NAME_SIZE];
    snprintf(entry, sizeof entry, "task/%d/comm", thread);
    int number = -1;
    bool isWorker = process_read(process, entry, name, sizeof name) &&
                    sscanf(name, "cycleHnd_%d", &number) == 1;
    return isWorker ? number : -1;
}

struct newest_worker {
    int process;
    int number;
    int thread;
};

bool visit_thread(int thread, void* context) {
    newest_worker* newest = static_cast<newest_worker*>(context);
    int number = worker_number(newest->process, thread);
    if (number > newest->number) {
        newest->number = number;
        newest->thread = thread;
    }
    return true;
}

// After a restart the worker that was let go of may still be there: the newer one counts.
int find_worker(int process) {
    newest_worker newest = {process, -1, 0};
    process_each_number(process, "task", visit_thread, &newest);
    return newest.thread;
}

// --- its pace ---

bool read_switches(int process, int thread, uint64_t* out) {
    char entry[ENTRY_SIZE];
    char status[STATUS_SIZE];
    snprintf(entry, sizeof entry, "task/%d/status", thread);
    if (!process_read(process, entry, status, sizeof status)) {
        return false;
    }
    const char* line = strstr(status, "\nvoluntary_ctxt_switches:");
    unsigned long long count = 0;
    if (line == nullptr || sscanf(line, " voluntary_ctxt_switches: %llu", &count) != 1) {
        return false;
    }
    *out = count;
    return true;
}

void forget_pace(session_watch* watch) {
    watch->switches_at = 0;
    watch->calm_looks = 0;
}

// Once calm, a worker's pace is not read again.
bool is_calm(session_watch* watch, int thread, int64_t now) {
    if (watch->calm_looks >= CALM_LOOKS_NEEDED) {
        return true;
    }
    uint64_t switches = 0;
    if (!read_switches(watch->process, thread, &switches)) {
        forget_pace(watch);
        return false;
    }
    if (watch->switches_at != 0 && now > watch->switches_at) {
        int64_t pace = static_cast<int64_t>(switches - watch->switches) * MS_PER_SECOND /
                       (now - watch->switches_at);
        bool calm = pace >= CALM_LEAST && pace <= CALM_MOST;
        watch->calm_looks = calm ? watch->calm_looks + 1 : 0;
    }
    watch->switches = switches;
    watch->switches_at = now;
    return watch->calm_looks >= CALM_LOOKS_NEEDED;
}

// --- its connection ---

struct socket_list {
    int process;
    size_t count;
    uint64_t inodes[SOCKETS_MAX];
    int descriptors[SOCKETS_MAX];
};

bool visit_descriptor(int number, void* context) {
    socket_list* sockets = static_cast<socket_list*>(context);
    uint64_t inode = process_socket(sockets->process, number);
    if (inode != 0) {
        sockets->inodes[sockets->count] = inode;
        sockets->descriptors[sockets->count] = number;
        sockets->count++;
    }
    return sockets->count < SOCKETS_MAX;
}

int descriptor_of(const socket_list& sockets, uint64_t inode) {
    const uint64_t* end = sockets.inodes + sockets.count;
    const uint64_t* found = std::find(sockets.inodes, end, inode);
    return found == end ? -1 : sockets.descriptors[found - sockets.inodes];
}

bool is_expected(const session_watch* watch, uint16_t port) {
    const uint16_t* end = watch->ports + watch->port_count;
    return std::find(watch->ports, end, port) != end;
}

// The table shows the whole network; `sockets` says what is the daemon's. With several candidates
// the one of the last look is kept.
void find_connection(session_watch* watch, const socket_list& sockets, sighting* seen) {
    int fd = openat(watch->process, "net/tcp", O_RDONLY | O_CLOEXEC);
    file_ptr table(fd < 0 ? nullptr : fdopen(fd, "r"));
    if (table == nullptr) {
        if (fd >= 0) {
            close(fd);
        }
        return;
    }
    char line[ROW_SIZE];
    while (fgets(line, sizeof line, table.get()) != nullptr) {
        tcp_row row = {};
        if (!tcp_row_parse(line, &row) || !row.established ||
            !is_expected(watch, row.remote_port)) {
            continue;
        }
        int descriptor = descriptor_of(sockets, row.inode);
        if (descriptor < 0 || (seen->established && row.inode != watch->last.inode)) {
            continue;
        }
        seen->established = true;
        seen->inode = row.inode;
        seen->address = row.remote_address;
        seen->port = row.remote_port;
        watch->descriptor = descriptor;
        watch->local = row.local_address;
    }
}

// Whether the address has left our interfaces: then nothing that is sent to it reaches us, and the
// kernel lets nobody bind to it.
bool is_gone(uint32_t address) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    sockaddr_in own = {};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = address;
    bool gone = bind(fd, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0 &&
                errno == EADDRNOTAVAIL;
    close(fd);
    return gone;
}

// --- looks ---

// Sees whether all is as it was; false asks for a thorough look. What cannot be read any more is
// how a process shows that it ended.
bool look_again(session_watch* watch) {
    const sighting& last = watch->last;
    if (!last.established || watch->cheap_looks >= CHEAP_LOOKS) {
        return false;
    }
    watch->cheap_looks++;
    return worker_number(watch->process, last.worker) >= 0 &&
           process_socket(watch->process, watch->descriptor) == last.inode;
}

void look_thoroughly(session_watch* watch, sighting* seen) {
    watch->cheap_looks = 0;
    seen->worker = find_worker(watch->process);
    if (seen->worker == 0) {
        return;
    }
    socket_list sockets;
    sockets.process = watch->process;
    sockets.count = 0;
    process_each_number(watch->process, "fd", visit_descriptor, &sockets);
    find_connection(watch, sockets, seen);
}

bool find_daemon(session_watch* watch) {
    if (watch->process != NO_PROCESS && process_is_alive(watch->process)) {
        return true;
    }
    if (watch->process != NO_PROCESS) {
        close(watch->process);
    }
    watch->process = process_find(watch->program);
    watch->last = {};
    return watch->process != NO_PROCESS;
}

sighting look(session_watch* watch, int64_t now) {
    sighting seen = {};
    if (look_again(watch)) {
        seen = watch->last;
    } else {
        seen.daemon = find_daemon(watch);
        if (seen.daemon) {
            look_thoroughly(watch, &seen);
        }
    }
    seen.at = now;
    if (seen.worker != watch->last.worker || seen.inode != watch->last.inode) {
        forget_pace(watch);
    }
    seen.calm = seen.worker != 0 && is_calm(watch, seen.worker, now);
    seen.cut_off = seen.established && is_gone(watch->local);
    return seen;
}

} // namespace

void session_watch_init(session_watch* watch, const char* program) {
    *watch = {};
    watch->program = program;
    watch->process = NO_PROCESS;
}

void session_watch_destroy(session_watch* watch) {
    if (watch->process != NO_PROCESS) {
        close(watch->process);
    }
    watch->process = NO_PROCESS;
}

void session_watch_expect(session_watch* watch, const server* servers, size_t count) {
    watch->port_count = std::min(count, SERVERS_MAX);
    for (size_t i = 0; i < watch->port_count; i++) {
        watch->ports[i] = servers[i].port;
    }
    watch->cheap_looks = CHEAP_LOOKS;
}

sighting session_watch_look(session_watch* watch, int64_t now) {
    if (watch->last.at == 0 || now - watch->last.at >= LOOK_INTERVAL_MS) {
        watch->last = look(watch, now);
    }
    return watch->last;
}
