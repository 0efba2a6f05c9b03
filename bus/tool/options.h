// The command line of the tool, before the command's own arguments.
#pragma once

namespace bus {

struct tool_options {
    const char* socket; // null: the library's default
    int timeout_ms;     // 0: none
    bool timeout_given;
    bool simple;  // -S: output on one line
    bool verbose; // -v: list methods as well
    bool help;
};

// Reads the options, moving them before all other arguments of argv; *first is then the index of
// the command. On failure prints one line to standard error and returns false.
[[nodiscard]] bool options_read(int argc, char** argv, tool_options& options, int* first);

} // namespace bus
