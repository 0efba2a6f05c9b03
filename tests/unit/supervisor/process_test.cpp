#include "supervisor/process.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sched.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "own_program.h"
#include "support/eventually.h"
#include "support/lacking.h"
#include "support/namespaces.h"

namespace {

const bool isPrivate = private_namespaces();

// Our own folder in /proc, found as any other's.
class Process : public testing::Test {
protected:
    ~Process() override { close(self); }

    int self = process_find(own_program().c_str());
};

TEST_F(Process, IsFoundByItsProgramsName) {
    ASSERT_NE(self, NO_PROCESS);
    char status[4096];
    ASSERT_TRUE(process_read(self, "status", status, sizeof status));
    EXPECT_NE(std::string(status).find("\nPid:\t" + std::to_string(getpid()) + "\n"),
              std::string::npos);
    EXPECT_TRUE(process_is_alive(self));
}

// Runs `action` in a child, and its exit status is the result.
template <typename Action>
int in_child(Action action) {
    pid_t child = fork();
    if (child == 0) {
        _exit(action());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Whether the process that is found is the calling one.
bool finds_itself() {
    int found = process_find(own_program().c_str());
    char own[32];
    snprintf(own, sizeof own, "\nPid:\t%d\n", getpid());
    char status[4096];
    return found != NO_PROCESS && process_read(found, "status", status, sizeof status) &&
           strstr(status, own) != nullptr;
}

TEST_F(Process, OneInAnotherNetworkIsPassedOver) {
    // Without that, the smaller number wins.
    EXPECT_EQ(in_child([] { return finds_itself() == (getpid() < getppid()); }), 1);
    EXPECT_EQ(in_child([] { return unshare(CLONE_NEWNET) == 0 && finds_itself(); }), 1);
}

TEST_F(Process, OneThatSeesTheSameFilesIsPreferred) {
    EXPECT_EQ(in_child([] { return unshare(CLONE_NEWNS) == 0 && finds_itself(); }), 1);
}

TEST_F(Process, OneThatSeesOtherFilesIsFoundWhenThereIsNoOther) {
    const std::string copy = "sleeper_" + std::to_string(getpid());
    std::filesystem::copy_file("/bin/sleep", "/tmp/" + copy);
    pid_t sleeper = fork();
    if (sleeper == 0) {
        execl(("/tmp/" + copy).c_str(), copy.c_str(), "60", nullptr);
        _exit(1);
    }
    const auto isFound = [&copy] { return process_find(copy.c_str()) != NO_PROCESS; };
    EXPECT_TRUE(eventually(isFound));
    EXPECT_EQ(in_child([&] { return unshare(CLONE_NEWNS) == 0 && isFound(); }), 1);
    kill(sleeper, SIGKILL);
    waitpid(sleeper, nullptr, 0);
    std::filesystem::remove("/tmp/" + copy);
}

TEST_F(Process, OneOfAnotherUserIsPassedOver) {
    constexpr uid_t SOMEBODY = 65534;
    int status = in_child([] {
        if (unshare(CLONE_NEWNET) != 0 || seteuid(SOMEBODY) != 0) {
            return 2; // where no other user is mapped
        }
        // The child's child is root again; its parent, whose number is smaller, is somebody else's.
        return in_child([] { return seteuid(0) == 0 && finds_itself(); });
    });
    if (status == 2) {
        SKIP_LACKING("another user");
    }
    EXPECT_EQ(status, 1);
}

TEST_F(Process, IsNotFoundByAPartOfTheName) {
    std::string name = own_program();
    EXPECT_EQ(process_find(name.substr(1).c_str()), NO_PROCESS);
    EXPECT_EQ(process_find(name.substr(0, name.size() - 1).c_str()), NO_PROCESS);
    EXPECT_EQ(process_find(""), NO_PROCESS);
}

TEST_F(Process, AFileThatDoesNotFitIsCut) {
    prctl(PR_SET_NAME, "supervised");
    char comm[5];
    ASSERT_TRUE(process_read(self, "comm", comm, sizeof comm));
    EXPECT_STREQ(comm, "supe");
    EXPECT_FALSE(process_read(self, "no_such_file", comm, sizeof comm));
}

TEST_F(Process, SocketsAreToldFromOtherDescriptors) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    int pipes[2];
    ASSERT_EQ(pipe(pipes), 0);
    EXPECT_NE(process_socket(self, pair[0]), 0U);
    EXPECT_NE(process_socket(self, pair[0]), process_socket(self, pair[1]));
    EXPECT_EQ(process_socket(self, pipes[0]), 0U);
    EXPECT_EQ(process_socket(self, 10000), 0U);
    for (int fd : {pair[0], pair[1], pipes[0], pipes[1]}) {
        close(fd);
    }
}

TEST_F(Process, NumbersOfAFolderAreVisitedUntilEnough) {
    std::vector<int> seen;
    auto visit = [](int number, void* context) {
        static_cast<std::vector<int>*>(context)->push_back(number);
        return number < 1;
    };
    process_each_number(self, "fd", visit, &seen);
    EXPECT_EQ(seen, (std::vector<int>{0, 1}));
    process_each_number(self, "no_such_folder", visit, &seen);
    EXPECT_EQ(seen.size(), 2U);
}

TEST_F(Process, TheFolderOfAnEndedProcessTellsNothing) {
    pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    int folder = open(("/proc/" + std::to_string(child)).c_str(), O_PATH | O_DIRECTORY);
    EXPECT_TRUE(process_is_alive(folder));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_FALSE(process_is_alive(folder));
    close(folder);
}

} // namespace
