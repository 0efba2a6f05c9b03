#pragma once

#include <csignal>
#include <cstdlib>
#include <functional>
#include <gmock/gmock.h>
#include <libubus.h>
#include <optional>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "support/eventually.h"

// A bus for the control object: the broker program, processes that offer objects, and this process
// as the one who calls.

constexpr char BUS_SOCKET[] = "/var/run/ubus.sock";
constexpr char NEXT_SOCKET[] = "/var/run/next.sock"; // of a broker that takes over later
constexpr char OBJECT[] = "cloud_relayc";
constexpr int CALL_TIMEOUT_MS = PATIENCE_MS;

inline bool has_ended(pid_t process, int* status) {
    return waitpid(process, status, WNOHANG) == process;
}

// A process that runs `body` and exits with its result; killed at its end, and with this process.
// Either exit_code() is asked for, or it must still run when it is killed.
class forked {
public:
    explicit forked(const std::function<int()>& body) {
        fflush(stdout);
        process = fork();
        if (process == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            setvbuf(stdout, nullptr, _IONBF, 0);
            int result = body();
            fflush(stdout);
            _exit(result);
        }
    }
    ~forked() {
        if (process > 0) {
            ::kill(process, SIGKILL);
            int status = 0;
            EXPECT_EQ(TEMP_FAILURE_RETRY(waitpid(process, &status, 0)), process);
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
                << "it had ended before, wait status " << status;
        }
    }
    forked(const forked&) = delete;
    forked& operator=(const forked&) = delete;

    void signal(int number) { ::kill(process, number); }

    // Its exit code, or nothing when it goes on or died of a signal.
    std::optional<int> exit_code() {
        int status = 0;
        if (!eventually([&] { return has_ended(process, &status); })) {
            return std::nullopt;
        }
        process = 0;
        return WIFEXITED(status) ? std::optional(WEXITSTATUS(status)) : std::nullopt;
    }

private:
    pid_t process = 0;
};

// The broker program, listening at `path` once it is made.
class broker_process {
public:
    explicit broker_process(const std::string& path = BUS_SOCKET)
        : process(std::in_place, [&path] {
              execl(UBUSD, "ubusd", "-s", path.c_str(), nullptr);
              return EXIT_FAILURE;
          }) {
        EXPECT_TRUE(eventually([&] { return is_listening(path); })) << "no broker at " << path;
    }

    // As in a crash: the socket stays in the file system, and nobody behind it.
    void kill() { process.reset(); }

private:
    static bool is_listening(const std::string& path) {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        int result = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        close(fd);
        return result == 0;
    }

    std::optional<forked> process;
};

// Arguments of a method call, put together.
class arguments {
public:
    arguments() { blob_buf_init(&buffer, 0); }
    ~arguments() { blob_buf_free(&buffer); }
    arguments(const arguments&) = delete;
    arguments& operator=(const arguments&) = delete;

    arguments& text(const char* name, const char* value) {
        blobmsg_add_string(&buffer, name, value);
        return *this;
    }
    arguments& number(const char* name, uint32_t value) {
        blobmsg_add_u32(&buffer, name, value);
        return *this;
    }
    arguments& long_number(const char* name, uint64_t value) {
        blobmsg_add_u64(&buffer, name, value);
        return *this;
    }
    blob_attr* head() { return buffer.head; }

private:
    blob_buf buffer = {};
};

using policy_list = std::vector<std::pair<std::string, uint32_t>>;
using method_list = std::vector<std::pair<std::string, policy_list>>;

inline policy_list read_policy(blob_attr* table) {
    policy_list policy;
    blob_attr* entry;
    size_t rest;
    blobmsg_for_each_attr(entry, table, rest) {
        policy.emplace_back(blobmsg_name(entry), blobmsg_get_u32(entry));
    }
    return policy;
}

inline method_list read_signature(blob_attr* signature) {
    method_list methods;
    blob_attr* entry;
    size_t rest;
    blob_for_each_attr(entry, signature, rest) {
        methods.emplace_back(blobmsg_name(entry), read_policy(entry));
    }
    return methods;
}

inline void note_signature(ubus_context*, ubus_object_data* object, void* methods) {
    *static_cast<method_list*>(methods) = read_signature(object->signature);
}

inline void note_reply(ubus_request* request, int, blob_attr*) {
    ++*static_cast<int*>(request->priv);
}

// This process on the bus. A daemon process is forked before this exists: uloop's state is the
// process's.
class bus_client {
public:
    explicit bus_client(const char* path = BUS_SOCKET) : context(ubus_connect(path)) {
        EXPECT_NE(context, nullptr) << "no broker at " << path;
    }
    ~bus_client() {
        ubus_free(context);
        uloop_done();
    }
    bus_client(const bus_client&) = delete;
    bus_client& operator=(const bus_client&) = delete;

    bool sees_object() { return ubus_lookup_id(context, OBJECT, &object) == UBUS_STATUS_OK; }

    method_list methods() {
        method_list listed;
        ubus_lookup(context, OBJECT, note_signature, &listed);
        return listed;
    }

    // The call's status; what it replied is counted in `replies`.
    int call(const char* method, arguments& with) {
        return ubus_invoke(context, object, method, with.head(), note_reply, &replies,
                           CALL_TIMEOUT_MS);
    }
    int call(const char* method) {
        arguments none;
        return call(method, none);
    }
    int reload(const char* address, uint32_t port) {
        arguments with;
        return call("reload", with.text("address", address).number("port", port));
    }
    // Does not wait for the answer.
    void send_reload(const char* address, uint32_t port) {
        arguments with;
        with.text("address", address).number("port", port);
        ubus_request request = {};
        EXPECT_EQ(ubus_invoke_async(context, object, "reload", with.head(), &request), 0);
    }

    int replies = 0;

private:
    ubus_context* context;
    uint32_t object = 0;
};
