// A process of its own that offers objects, for callers that block.
#pragma once

#include <functional>

#include "libubus.h"

class ServiceProcess {
public:
    // Connects in the child, calls `offer` there, returns here when that is done, and serves until
    // this object goes.
    ServiceProcess(const char* socket, const std::function<void(ubus_context*)>& offer);
    ~ServiceProcess() { kill(); }
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

    void kill();

private:
    pid_t m_pid;
};

// An object `svc` with the methods
//   echo              replies its arguments
//   status {value}    ends with that status
//   late {value}      the same as echo and status, from a timer, after the handler returned
//   silent            never answers
//   hang_up           ends the connection in mid-call, as the process's end would
//   interrupt         sends SIGTERM to the process of the test, and never answers
void offer_svc(ubus_context* ctx);
