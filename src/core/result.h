#pragma once

// Result codes shared by every module. Functions that can fail return one of these as an int;
// the task controller adds its own (task/task_controller.h), and all of them may reach a ubus
// caller as the status of `reload` or `stop`.

constexpr int CLOUD_OK = 0;
constexpr int CLOUD_ERROR = -1;         // general failure
constexpr int CLOUD_RECV_ERROR = 4;     // receive error or time-out
constexpr int CLOUD_UNREACHABLE = 9;    // peer closed, or server unreachable
constexpr int CLOUD_BAD_MAGIC = 10;     // a packet that does not start with the magic number
constexpr int CLOUD_BAD_ARGUMENT = 100; // a failed argument check
constexpr int CLOUD_NO_MEMORY = 101;
