#pragma once

#include <climits>
#include <fcntl.h>
#include <string>
#include <unistd.h>

// The name of the running test program, as others see it under /proc: an emulator's, where one runs
// it.
inline std::string own_program() {
    int folder = open(("/proc/" + std::to_string(getpid())).c_str(), O_PATH | O_DIRECTORY);
    char path[PATH_MAX] = {};
    readlinkat(folder, "exe", path, sizeof path - 1);
    close(folder);
    return std::string(path).substr(std::string(path).rfind('/') + 1);
}
