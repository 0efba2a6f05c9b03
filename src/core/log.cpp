#include "core/log.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <iterator>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/clock.h"
#include "core/mutex_guard.h"

// The format is put together at run time here and nowhere else; callers are checked through the
// attribute on cloud_log.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

namespace {

constexpr char MODULE_NAME[] = "cloud_relay_client";
constexpr char ERROR_COLOR[] = "\033[31;49m";
constexpr char INFO_COLOR[] = "\033[33;49m";
// What the prefix takes of the 255 characters that bound a line's template.
constexpr size_t PREFIX_SIZE = sizeof "\033[31;49m[<%s/%s>:<%s/%s()/%d>] " - 1;
constexpr char SUFFIX[] = "\033[0m\r\n";
constexpr size_t FORMAT_SIZE = 256;
constexpr size_t THREAD_NAME_SIZE = 16; // the kernel's own limit, terminator included
constexpr size_t LINE_NUMBER_SIZE = 12;
constexpr size_t LINE_SIZE = 512; // on the stack; longer lines take the heap
constexpr int OUTPUT_PATIENCE_MS = 1000;
// What a blocking output takes without blocking once it is reported writable: a pipe has a page
// free then, a terminal perhaps only room for one character.
constexpr size_t PIPE_PIECE = 512;
constexpr size_t TERMINAL_PIECE = 1;

thread_local char threadName[THREAD_NAME_SIZE]; // empty until the thread's first line

pthread_mutex_t outputMutex = PTHREAD_MUTEX_INITIALIZER;
// Guarded by outputMutex:
bool isStuck = false; // a line was lost, and nothing taken since: the next ones do not wait
bool isCut = false;   // the last line was lost after its beginning had been written

std::atomic<bool> isOutputBlocking = true; // set by the main thread, read by every line

const char* _thread_name() {
    if (threadName[0] == '\0') {
        prctl(PR_GET_NAME, threadName);
    }
    return threadName;
}

// One attempt that does not block. Returns what write returns.
ssize_t _write_some(const char* text, size_t length) {
    if (!isOutputBlocking) {
        return write(STDOUT_FILENO, text, length);
    }
    ssize_t sent = send(STDOUT_FILENO, text, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0 || errno != ENOTSOCK) {
        return sent;
    }
    pollfd output = {STDOUT_FILENO, POLLOUT, 0};
    if (poll(&output, 1, 0) == 0) {
        errno = EAGAIN;
        return -1;
    }
    size_t piece = isatty(STDOUT_FILENO) == 1 ? TERMINAL_PIECE : PIPE_PIECE;
    return write(STDOUT_FILENO, text, std::min(length, piece));
}

// Waits until the output may take more. False when it is to be given up.
bool _wait_for_output(int64_t deadline) {
    int64_t left = isStuck ? 0 : std::max<int64_t>(deadline - cloud_now_ms(), 0);
    pollfd output = {STDOUT_FILENO, POLLOUT, 0};
    int ready = poll(&output, 1, static_cast<int>(left));
    return ready > 0 || (ready < 0 && errno == EINTR && left > 0);
}

// Writes all of the text, or as much as the output takes. Returns how much that was.
size_t _write_all(const char* text, size_t length) {
    int64_t deadline = 0; // of the present wait, 0 for none
    size_t done = 0;
    while (done < length) {
        ssize_t written = _write_some(text + done, length - done);
        if (written > 0) {
            done += static_cast<size_t>(written);
            isStuck = false;
            deadline = 0;
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            deadline = deadline != 0 ? deadline : cloud_now_ms() + OUTPUT_PATIENCE_MS;
            if (!_wait_for_output(deadline)) {
                break;
            }
        } else if (errno != EINTR) {
            break;
        }
    }
    return done;
}

struct message_place {
    const char* color;
    const char* function;
    int line;
};

size_t _append(char* out, size_t size, size_t used, const char* text) {
    size_t length = strlen(text);
    if (used < size) {
        memcpy(out + used, text, std::min(length, size - used));
    }
    return used + length;
}

// Formats the whole line as snprintf does: returns its length, writes at most `size` bytes.
size_t _format_line(char* out, size_t size, const message_place& place, const char* format,
                    va_list arguments) {
    char number[LINE_NUMBER_SIZE] = {};
    std::to_chars(number, std::end(number) - 1, place.line);
    size_t used = 0;
    for (const char* piece : std::initializer_list<const char*>{
             place.color, "[<", MODULE_NAME, "/", _thread_name(), ">:<", MODULE_NAME, "/",
             place.function, "()/", number, ">] "}) {
        used = _append(out, size, used, piece);
    }
    size_t room = used < size ? size - used : 0;
    int tail = vsnprintf(room > 0 ? out + used : nullptr, room, format, arguments);
    return used + (tail < 0 ? 0 : static_cast<size_t>(tail));
}

// A line that was cut at the end of its buffer still ends as a line.
void _end_cut_line(char (&text)[LINE_SIZE]) {
    memcpy(text + LINE_SIZE - sizeof SUFFIX, SUFFIX, sizeof SUFFIX);
}

} // namespace

void cloud_name_thread(const char* name) {
    prctl(PR_SET_NAME, name);
    prctl(PR_GET_NAME, threadName); // as the kernel cut it
}

void cloud_output_changed(int fd) {
    struct stat file = {};
    bool isNonBlocking = fstat(fd, &file) == 0 && S_ISREG(file.st_mode);
    if (S_ISFIFO(file.st_mode) || S_ISCHR(file.st_mode)) {
        char path[32];
        snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
        int own = open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        isNonBlocking = own >= 0 && dup2(own, fd) == fd;
        if (own >= 0) {
            close(own);
        }
    }
    if (fd == STDOUT_FILENO) {
        isOutputBlocking = !isNonBlocking;
    }
}

void cloud_print(const char* text, size_t length) {
    int error = errno; // callers print it after their message
    mutex_guard guard(&outputMutex);
    fflush(stdout); // what was printed plainly before stays before
    if (isCut) {    // the rest of the lost line
        isCut = _write_all(SUFFIX, sizeof SUFFIX - 1) < sizeof SUFFIX - 1;
    }
    size_t written = isCut ? 0 : _write_all(text, length);
    isStuck = written < length;
    isCut = isCut || (written > 0 && written < length);
    errno = error;
}

void cloud_log(log_level level, const char* function, int line, const char* message, ...) {
    int error = errno;
    message_place place = {level == log_level::error ? ERROR_COLOR : INFO_COLOR, function, line};
    char format[FORMAT_SIZE - PREFIX_SIZE];
    size_t formatted = _append(format, sizeof format, 0, message);
    formatted = _append(format, sizeof format, formatted, SUFFIX);
    format[std::min(formatted, sizeof format - 1)] = '\0';

    char text[LINE_SIZE];
    va_list arguments;
    va_start(arguments, message);
    size_t length = _format_line(text, sizeof text, place, format, arguments);
    va_end(arguments);
    char* whole = length < sizeof text ? nullptr : static_cast<char*>(malloc(length + 1));
    if (whole != nullptr) {
        va_start(arguments, message);
        length = _format_line(whole, length + 1, place, format, arguments);
        va_end(arguments);
        cloud_print(whole, length);
        free(whole);
    } else if (length < sizeof text) {
        cloud_print(text, length);
    } else {
        _end_cut_line(text);
        cloud_print(text, sizeof text - 1);
    }
    errno = error;
}
