#include "support/log_capture.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

#include "support/eventually.h"

// A sanitizer's report must not end up in a capture that dies with the process.
extern "C" void __sanitizer_set_report_fd(void* fd) __attribute__((weak));

namespace {

constexpr char ERROR_COLOR[] = "\033[31;49m";
constexpr char INFO_COLOR[] = "\033[33;49m";
constexpr char RESET[] = "\033[0m\r\n";

// Cuts `text` behind the next `end`; gives what came before it, and whether there was one.
bool take_until(std::string_view* text, std::string_view end, std::string* taken) {
    size_t at = text->find(end);
    if (at == std::string_view::npos) {
        return false;
    }
    *taken = text->substr(0, at);
    text->remove_prefix(at + end.size());
    return true;
}

log_line parse_line(const std::string& text) {
    std::string_view rest = text;
    log_line line;
    std::string color;
    std::string number;
    if (!take_until(&rest, "[<cloud_relay_client/", &color) ||
        !take_until(&rest, ">:<cloud_relay_client/", &line.thread) ||
        !take_until(&rest, "()/", &line.function) || !take_until(&rest, ">] ", &number) ||
        number.find_first_not_of("0123456789") != std::string::npos ||
        (color != ERROR_COLOR && color != INFO_COLOR)) {
        return {line_kind::plain, "", "", 0, text};
    }
    line.kind = color == ERROR_COLOR ? line_kind::error : line_kind::info;
    line.number = atoi(number.c_str());
    line.message = rest;
    return line;
}

void report_to_real_stderr(int descriptor) {
    if (__sanitizer_set_report_fd != nullptr) {
        __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<intptr_t>(descriptor)));
    }
}

} // namespace

std::ostream& operator<<(std::ostream& out, line_kind kind) {
    constexpr const char* NAMES[] = {"error", "information", "plain line"};
    return out << NAMES[static_cast<int>(kind)];
}

std::ostream& operator<<(std::ostream& out, const log_line& line) {
    return out << line.kind << " from " << line.function << "() " << line.message;
}

std::vector<log_line> parse_log(const std::string& text) {
    std::vector<log_line> lines;
    for (size_t at = 0; at < text.size();) {
        bool is_log_line = text[at] == '\033';
        std::string end_mark = is_log_line ? RESET : "\n";
        size_t end = text.find(end_mark, at);
        size_t length = end == std::string::npos ? std::string::npos : end - at;
        lines.push_back(parse_line(text.substr(at, length)));
        at = end == std::string::npos ? text.size() : end + end_mark.size();
    }
    return lines;
}

log_capture::log_capture() : output(divert(STDOUT_FILENO)), error(divert(STDERR_FILENO)) {
    report_to_real_stderr(error.original);
}

log_capture::~log_capture() {
    std::string printed = text();
    std::string complained = errors();
    restore(output);
    restore(error);
    report_to_real_stderr(STDERR_FILENO);
    if (testing::Test::HasFailure()) {
        fwrite(printed.data(), 1, printed.size(), stdout);
        fwrite(complained.data(), 1, complained.size(), stderr);
        fflush(stdout);
    }
}

log_capture::diversion log_capture::divert(int descriptor) {
    fflush(stdout);
    fflush(stderr);
    diversion diverted = {descriptor, dup(descriptor), memfd_create("log", 0)};
    fcntl(diverted.file, F_SETFL, O_APPEND); // else writes of two threads could overlap
    dup2(diverted.file, descriptor);
    return diverted;
}

void log_capture::restore(const diversion& diverted) {
    fflush(stdout);
    fflush(stderr);
    dup2(diverted.original, diverted.descriptor);
    close(diverted.original);
    close(diverted.file);
}

// pread: the file's offset is the writers'.
std::string log_capture::content(const diversion& diverted) {
    fflush(stdout);
    fflush(stderr);
    std::string text;
    char piece[4096];
    ssize_t count = 0;
    while ((count = pread(diverted.file, piece, sizeof piece, static_cast<off_t>(text.size()))) >
           0) {
        text.append(piece, static_cast<size_t>(count));
    }
    return text;
}

std::string log_capture::text() const {
    return content(output);
}

std::string log_capture::errors() const {
    return content(error);
}

std::vector<log_line> log_capture::lines() const {
    return parse_log(text());
}

std::vector<std::string> log_capture::messages(const std::string& function) const {
    std::vector<std::string> messages;
    for (const log_line& line : lines()) {
        if (function.empty() || line.function == function) {
            messages.push_back(line.message);
        }
    }
    return messages;
}

bool log_capture::has(const testing::Matcher<log_line>& line) const {
    return count(line) > 0;
}

size_t log_capture::count(const testing::Matcher<log_line>& line) const {
    size_t matching = 0;
    for (const log_line& printed : lines()) {
        matching += line.Matches(printed);
    }
    return matching;
}

bool log_capture::gets(const testing::Matcher<log_line>& line, size_t times) const {
    return eventually([&] { return count(line) >= times; });
}

void log_capture::clear() {
    for (const diversion& diverted : {output, error}) {
        fflush(stdout);
        fflush(stderr);
        if (ftruncate(diverted.file, 0) == 0) {
            lseek(diverted.file, 0, SEEK_SET);
        }
    }
}

static testing::Matcher<log_line> line_of(line_kind kind,
                                          const testing::Matcher<std::string>& function,
                                          const testing::Matcher<std::string>& message) {
    return testing::AllOf(testing::Field("kind", &log_line::kind, kind),
                          testing::Field("function", &log_line::function, function),
                          testing::Field("message", &log_line::message, message));
}

testing::Matcher<log_line> error_line(const testing::Matcher<std::string>& function,
                                      const testing::Matcher<std::string>& message) {
    return line_of(line_kind::error, function, message);
}

testing::Matcher<log_line> info_line(const testing::Matcher<std::string>& function,
                                     const testing::Matcher<std::string>& message) {
    return line_of(line_kind::info, function, message);
}

testing::Matcher<log_line> plain_line(const testing::Matcher<std::string>& text) {
    return line_of(line_kind::plain, testing::_, text);
}
