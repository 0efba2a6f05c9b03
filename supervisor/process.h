#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

// Another process, seen through its folder in /proc. Main thread.
//
// The folder is held open: when the process ends, everything that is asked through it fails, even
// if the kernel has given its number to another process meanwhile.

constexpr int NO_PROCESS = -1;

// Opens the folder of the process that runs the program `name` (the last part of the path of its
// executable file), belongs to root or to our user, and uses our network: what another container
// runs is none of ours. Of several, one that sees the same files as we do wins: on a machine with
// two buses it is the one on ours. Else it is the smallest process id, for a daemon in a jail sees
// other files. Returns a descriptor, which the caller closes, or NO_PROCESS.
int process_find(const char* name);

bool process_is_alive(int process);

// Reads a small file of the process, such as "task/12/comm", whole or up to `size` - 1 bytes, and
// terminates it. False when it cannot be read.
bool process_read(int process, const char* file, char* out, size_t size);

// Calls `visit` for each entry of a folder of the process whose name is a number, in the kernel's
// order, until it returns false.
void process_each_number(int process, const char* folder, bool (*visit)(int number, void* context),
                         void* context);

// The inode of the socket that is the process's descriptor `number`; 0 when it is none.
uint64_t process_socket(int process, int number);
