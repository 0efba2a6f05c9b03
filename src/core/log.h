#pragma once

#include <cstddef>

// The program's log: one line a message, on standard output.
//
//   ESC[31;49m[<cloud_relay_client/THREAD>:<cloud_relay_client/FUNCTION()/LINE>] MESSAGE ESC[0m CR
//   LF
//
// Errors are red (31), information yellow (33). THREAD is the calling thread's name. The message's
// template is part of the log's vocabulary: operators search for it, so texts never change. Texts
// from outside (addresses, JSON) are always arguments, never part of a template.
//
// Threads: any. One mutex serialises the lines; it is taken last, below every other lock. A line
// leaves in one write where the output takes it at once. An output that takes nothing for 1 s loses
// the line: a full console must not hold the daemon. errno is left as it was.

enum class log_level { error, info };

// Prints one message. `function` and `line` name its place in the source. Prefix, message template
// and suffix together are cut at 255 characters, the printed line is not; when memory is short a
// line of more than 511 bytes is cut, too, and ends like any other.
void cloud_log(log_level level, const char* function, int line, const char* message, ...)
    __attribute__((format(printf, 4, 5)));

// Prints `length` bytes of text as they are, like one line: for the few messages without prefix.
void cloud_print(const char* text, size_t length);

// Names the calling thread, for the system and for its lines; 15 characters are kept. A thread that
// is never named this way has the name that it started with.
void cloud_name_thread(const char* name);

// Makes sure that writes to `fd`, standard output or standard error, do not block where the system
// allows it: pipes and terminals are opened anew, since the given open file may be shared with
// other programs that rely on blocking. To be called whenever the descriptor gets another file.
// Threads: the main thread.
void cloud_output_changed(int fd);

#define LOG_ERROR(...) cloud_log(log_level::error, __func__, __LINE__, __VA_ARGS__)
#define LOG_INFO(...) cloud_log(log_level::info, __func__, __LINE__, __VA_ARGS__)

// For a private step of a named operation: the line carries the operation's name, which is what
// an operator knows, not the step's.
#define LOG_ERROR_AS(function, ...) cloud_log(log_level::error, function, __LINE__, __VA_ARGS__)
#define LOG_INFO_AS(function, ...) cloud_log(log_level::info, function, __LINE__, __VA_ARGS__)

// The two fixed message forms. Their "%s" is source text: mind the formatter.
#define ENSURE_FAILED "Ensure %s failed."
#define CALL_FAILED "E - %d call %s failed."

// Checks an argument and leaves the function with `result` (may be empty) when it does not hold.
// The condition is printed as it is written, so it is written with NULL.
#define ENSURE(condition, result)                                                                  \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            LOG_ERROR(ENSURE_FAILED, #condition);                                                  \
            return result;                                                                         \
        }                                                                                          \
    } while (0)
