#pragma once

#include <sys/select.h>
#include <vector>

// Descriptors at or above what an fd_set holds, as a process with many open files gets them.

// A duplicate of a descriptor at `wanted`, closed at the end of its scope.
class high_descriptor {
public:
    explicit high_descriptor(int original, int wanted = FD_SETSIZE + 200);
    ~high_descriptor();
    high_descriptor(const high_descriptor&) = delete;
    high_descriptor& operator=(const high_descriptor&) = delete;

    int fd() const { return number; }

private:
    int number;
};

// Occupies all numbers below FD_SETSIZE, so that every descriptor opened meanwhile is above.
class occupied_descriptors {
public:
    occupied_descriptors();
    ~occupied_descriptors();
    occupied_descriptors(const occupied_descriptors&) = delete;
    occupied_descriptors& operator=(const occupied_descriptors&) = delete;

private:
    std::vector<int> fillers;
};
