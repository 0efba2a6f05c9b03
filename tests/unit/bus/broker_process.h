// The built broker, running on a socket of its own.
#pragma once

#include <functional>
#include <string>

#include <sys/types.h>

class BrokerProcess {
public:
    BrokerProcess();
    ~BrokerProcess(); // stops it and expects that it ends in order
    BrokerProcess(const BrokerProcess&) = delete;
    BrokerProcess& operator=(const BrokerProcess&) = delete;

    void start(); // on the same socket as before; returns when it serves
    void stop();  // SIGTERM; expects status 0
    void kill();  // as a crash would

    // Starts it again with a SIGTERM under way that was sent before. Whether it ended in order.
    bool ends_at_once_when_asked_before();

    const char* socket() const { return m_socket.c_str(); }

private:
    void spawn(const std::function<void()>& prepare);
    int end_with(int signal);

    std::string m_folder;
    std::string m_socket;
    pid_t m_pid = -1;
};
