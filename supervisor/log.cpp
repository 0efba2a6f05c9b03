#include "log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <unistd.h>

// Callers are checked through the attribute on the functions of the header.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

namespace {

constexpr size_t LINE_SIZE = 512;

void print_line(int stream, const char* format, va_list arguments) {
    char line[LINE_SIZE];
    int formatted = vsnprintf(line, sizeof line, format, arguments);
    if (formatted < 0) {
        return;
    }
    size_t length = std::min(static_cast<size_t>(formatted), sizeof line - 1);
    for (size_t i = 0; i < length; i++) {
        bool control = static_cast<unsigned char>(line[i]) < ' ' || line[i] == '\x7f';
        line[i] = control ? '?' : line[i];
    }
    line[length] = '\n';
    ssize_t written = write(stream, line, length + 1);
    static_cast<void>(written);
}

} // namespace

void log_info(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    print_line(STDOUT_FILENO, format, arguments);
    va_end(arguments);
}

void log_error(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    print_line(STDERR_FILENO, format, arguments);
    va_end(arguments);
}
