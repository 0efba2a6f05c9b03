// The commands of the tool.
#pragma once

#include "libubus.h"
#include "tool/options.h"

namespace bus {

struct command {
    const char* name;
    const char* usage; // its arguments
    int arguments_min;
    int arguments_max;
    // Returns the exit status, having told of a failure on standard error. The arguments end with a
    // null.
    int (*run)(ubus_context* ctx, const tool_options& options, char** arguments);
};

constexpr int command_count = 5;
extern const command commands[command_count];

// The command of that name if it takes so many arguments, else null.
[[nodiscard]] const command* command_find(const char* name, int arguments);

} // namespace bus
