#include "process.h"

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace {

constexpr size_t ENTRY_SIZE = 64; // "fd/2147483647" and the like
constexpr size_t STATUS_SIZE = 4096;

struct dir_deleter {
    void operator()(DIR* folder) const { closedir(folder); }
};
using dir_ptr = std::unique_ptr<DIR, dir_deleter>;

// The folder at `path` below `at`, to be listed; null when it is gone.
dir_ptr open_folder(int at, const char* path) {
    int fd = openat(at, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* folder = fd < 0 ? nullptr : fdopendir(fd);
    if (folder == nullptr && fd >= 0) {
        close(fd);
    }
    return dir_ptr(folder);
}

// The next entry's number, or -1 at the end.
int next_number(DIR* folder) {
    for (const dirent* entry = readdir(folder); entry != nullptr; entry = readdir(folder)) {
        if (isdigit(static_cast<unsigned char>(entry->d_name[0])) != 0) {
            return static_cast<int>(strtol(entry->d_name, nullptr, 10));
        }
    }
    return -1;
}

bool read_link(int at, const char* path, char* out, size_t size) {
    ssize_t length = readlinkat(at, path, out, size - 1);
    if (length < 0) {
        return false;
    }
    out[length] = '\0';
    return true;
}

bool runs(int process, const char* name) {
    char path[PATH_MAX];
    if (!read_link(process, "exe", path, sizeof path)) {
        return false;
    }
    // The kernel marks a file that an upgrade has replaced under the running program.
    constexpr char REPLACED[] = " (deleted)";
    constexpr size_t REPLACED_LENGTH = sizeof REPLACED - 1;
    size_t length = strlen(path);
    if (length > REPLACED_LENGTH && strcmp(path + length - REPLACED_LENGTH, REPLACED) == 0) {
        path[length - REPLACED_LENGTH] = '\0';
    }
    const char* slash = strrchr(path, '/');
    return strcmp(slash == nullptr ? path : slash + 1, name) == 0;
}

// `space`: "ns/net" for the network, "ns/mnt" for the files it sees.
bool shares(int process, const char* space) {
    char entry[ENTRY_SIZE];
    char theirs[ENTRY_SIZE];
    char ours[ENTRY_SIZE];
    snprintf(entry, sizeof entry, "/proc/self/%s", space);
    return read_link(process, space, theirs, sizeof theirs) &&
           read_link(AT_FDCWD, entry, ours, sizeof ours) && strcmp(theirs, ours) == 0;
}

// The owner of the folder does not tell: the kernel gives it to root when a process hides its
// memory, which anybody's may.
bool is_trusted(int process) {
    char status[STATUS_SIZE];
    unsigned user = 0;
    if (!process_read(process, "status", status, sizeof status)) {
        return false;
    }
    const char* line = strstr(status, "\nUid:");
    bool known = line != nullptr && sscanf(line, " Uid: %*u %u", &user) == 1;
    return known && (user == 0 || user == geteuid());
}

} // namespace

int process_find(const char* name) {
    dir_ptr all = open_folder(AT_FDCWD, "/proc");
    if (all == nullptr) {
        return NO_PROCESS;
    }
    int best = NO_PROCESS;
    for (int pid = next_number(all.get()); pid >= 0; pid = next_number(all.get())) {
        char entry[ENTRY_SIZE];
        snprintf(entry, sizeof entry, "%d", pid);
        int process = openat(dirfd(all.get()), entry, O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (process < 0) {
            continue; // it ended meanwhile
        }
        bool isOne = runs(process, name) && is_trusted(process) && shares(process, "ns/net");
        bool seesOurFiles = isOne && shares(process, "ns/mnt");
        if (!isOne || (best != NO_PROCESS && !seesOurFiles)) {
            close(process);
            continue;
        }
        if (best != NO_PROCESS) {
            close(best);
        }
        best = process;
        if (seesOurFiles) {
            break;
        }
    }
    return best;
}

bool process_is_alive(int process) {
    char state[ENTRY_SIZE];
    return process_read(process, "comm", state, sizeof state);
}

bool process_read(int process, const char* file, char* out, size_t size) {
    int fd = openat(process, file, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    size_t used = 0;
    ssize_t count = 0;
    while (used < size - 1 && (count = read(fd, out + used, size - 1 - used)) > 0) {
        used += static_cast<size_t>(count);
    }
    close(fd);
    out[used] = '\0';
    return count >= 0 && used > 0;
}

void process_each_number(int process, const char* folder, bool (*visit)(int number, void* context),
                         void* context) {
    dir_ptr entries = open_folder(process, folder);
    if (entries == nullptr) {
        return;
    }
    for (int number = next_number(entries.get()); number >= 0 && visit(number, context);
         number = next_number(entries.get())) {
    }
}

uint64_t process_socket(int process, int number) {
    char entry[ENTRY_SIZE];
    char target[ENTRY_SIZE];
    snprintf(entry, sizeof entry, "fd/%d", number);
    unsigned long long inode = 0;
    bool isSocket = read_link(process, entry, target, sizeof target) &&
                    sscanf(target, "socket:[%llu]", &inode) == 1;
    return isSocket ? inode : 0;
}
