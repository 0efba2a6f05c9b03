#include "core/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <sys/prctl.h>
#include <unistd.h>

// The format is put together at run time here and nowhere else; callers are checked through the
// attribute on cloud_log.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

namespace {

constexpr char MODULE_NAME[] = "cloud_relay_client";
constexpr char ERROR_PREFIX[] = "\033[31;49m[<%s/%s>:<%s/%s()/%d>]";
constexpr char INFO_PREFIX[] = "\033[33;49m[<%s/%s>:<%s/%s()/%d>]";
constexpr char SUFFIX[] = "\033[0m\r\n";
constexpr size_t FORMAT_SIZE = 256;
constexpr size_t THREAD_NAME_SIZE = 32;
constexpr size_t LINE_SIZE = 512; // on the stack; longer lines take the heap

struct message_place {
    const char* prefix;
    const char* function;
    int line;
};

// Formats the whole line as snprintf does: returns its length, writes at most `size` bytes.
size_t _format_line(char* out, size_t size, const message_place& place, const char* format,
                    va_list arguments) {
    char thread[THREAD_NAME_SIZE] = {};
    prctl(PR_GET_NAME, thread);
    int head = snprintf(out, size, place.prefix, MODULE_NAME, thread, MODULE_NAME, place.function,
                        place.line);
    size_t used = head < 0 ? 0 : static_cast<size_t>(head);
    size_t room = used < size ? size - used : 0;
    int tail = vsnprintf(room > 0 ? out + used : nullptr, room, format, arguments);
    return used + (tail < 0 ? 0 : static_cast<size_t>(tail));
}

} // namespace

void cloud_print(const char* text, size_t length) {
    int error = errno; // callers print it after their message
    fflush(stdout);    // what was printed plainly before stays before
    ssize_t written = write(STDOUT_FILENO, text, length);
    static_cast<void>(written);
    errno = error;
}

void cloud_log(log_level level, const char* function, int line, const char* message, ...) {
    message_place place = {level == log_level::error ? ERROR_PREFIX : INFO_PREFIX, function, line};
    char format[FORMAT_SIZE] = {};
    int prefix = snprintf(format, sizeof format, "%s", place.prefix);
    snprintf(format + prefix, sizeof format - static_cast<size_t>(prefix), " %s%s", message,
             SUFFIX);

    char text[LINE_SIZE];
    va_list arguments;
    va_start(arguments, message);
    size_t length = _format_line(text, sizeof text, place, format + prefix, arguments);
    va_end(arguments);
    if (length < sizeof text) {
        cloud_print(text, length);
        return;
    }

    char* whole = static_cast<char*>(malloc(length + 1));
    if (whole == nullptr) {
        cloud_print(text, sizeof text - 1);
        return;
    }
    va_start(arguments, message);
    length = _format_line(whole, length + 1, place, format + prefix, arguments);
    va_end(arguments);
    cloud_print(whole, length);
    free(whole);
}
