#include "broker_process.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "deadline.h"

namespace {

bool is_serving(const std::string& path) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    const bool serving =
        connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    close(fd);
    return serving;
}

// What the kernel knows of a process: where it waits, and which signals are blocked or pending.
std::string state_of(pid_t pid) {
    std::ostringstream state;
    for (const char* const name : {"status", "wchan", "syscall", "stack"}) {
        std::ifstream file("/proc/" + std::to_string(pid) + "/" + name);
        state << name << ": " << std::string(std::istreambuf_iterator<char>(file), {}) << '\n';
    }
    return state.str();
}

} // namespace

BrokerProcess::BrokerProcess() {
    char folder[] = "/tmp/bus.XXXXXX";
    m_folder = mkdtemp(folder);
    chmod(folder, 0755);
    m_socket = m_folder + "/ubus.sock";
    start();
}

BrokerProcess::~BrokerProcess() {
    if (m_pid > 0) {
        stop();
    }
    unlink(m_socket.c_str());
    rmdir(m_folder.c_str());
}

void BrokerProcess::spawn(const std::function<void()>& prepare) {
    m_pid = fork();
    if (m_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // also when the test crashes
        prepare();
        execl(UBUSD_PROGRAM, "ubusd", "-s", m_socket.c_str(), nullptr);
        _exit(127);
    }
}

void BrokerProcess::start() {
    spawn([] {});
    EXPECT_TRUE(wait_until([this] { return is_serving(m_socket); }));
}

int BrokerProcess::end_with(int signal) {
    ::kill(m_pid, signal);
    int status = 0;
    if (!wait_until([&] { return waitpid(m_pid, &status, WNOHANG) == m_pid; })) {
        ADD_FAILURE() << "the broker does not end on signal " << signal << ":\n" << state_of(m_pid);
        ::kill(m_pid, SIGKILL);
        EXPECT_EQ(TEMP_FAILURE_RETRY(waitpid(m_pid, &status, 0)), m_pid);
    }
    m_pid = -1;
    return status;
}

void BrokerProcess::stop() {
    const int status = end_with(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status;
}

void BrokerProcess::kill() {
    const int status = end_with(SIGKILL);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
        << "the broker had ended before, wait status " << status;
}

bool BrokerProcess::ends_at_once_when_asked_before() {
    spawn([] {
        sigset_t end;
        sigemptyset(&end);
        sigaddset(&end, SIGTERM);
        sigprocmask(SIG_BLOCK, &end, nullptr);
        raise(SIGTERM);
    });
    int status = -1;
    if (!wait_until([&] { return waitpid(m_pid, &status, WNOHANG) == m_pid; })) {
        kill();
        return false;
    }
    m_pid = -1;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}
