// Calls per second over the bundled bus, and how long one call takes, for one caller and for many
// at once. Starts a broker, an owner and the callers as processes of its own on a private socket.
//
//     bus_bench [--json] [--seconds N]

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <getopt.h>
#include <libubus.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int caller_counts[] = {1, 50};
constexpr int default_seconds = 3;
constexpr int connect_attempts = 500; // 10 ms apart
constexpr int call_timeout_ms = 10000;

struct Result {
    int callers;
    double calls_per_second;
    double p50_us;
    double p99_us;
};

[[noreturn]] void fail(const char* what) {
    fprintf(stderr, "bus_bench: %s\n", what);
    exit(EXIT_FAILURE);
}

// A child that ends with this program, at the latest when this object goes.
class Process {
public:
    template <typename Run>
    explicit Process(Run run) : m_pid(fork()) {
        if (m_pid < 0) {
            fail("fork failed");
        }
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGTERM); // also when the parent fails
            run();
            _exit(EXIT_SUCCESS);
        }
    }
    ~Process() {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            waitpid(m_pid, nullptr, 0);
        }
    }
    Process(Process&& other) noexcept : m_pid(other.m_pid) { other.m_pid = -1; }
    Process& operator=(Process&&) = delete;

private:
    pid_t m_pid;
};

// The broker stands beside this program.
std::string broker_program() {
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof(self));
    if (length <= 0) {
        fail("cannot tell where this program stands");
    }
    const std::string path(self, static_cast<size_t>(length));
    return path.substr(0, path.rfind('/')) + "/ubusd";
}

ubus_context* connect_when_ready(const std::string& socket) {
    for (int i = 0; i < connect_attempts; i++) {
        if (ubus_context* ctx = ubus_connect(socket.c_str())) {
            return ctx;
        }
        usleep(10000);
    }
    fail("the broker does not come up");
}

int answer(ubus_context* ctx, ubus_object*, ubus_request_data* req, const char*, blob_attr* msg) {
    return ubus_send_reply(ctx, req, msg);
}

void own(const std::string& socket) {
    static const ubus_method methods[] = {UBUS_METHOD_NOARG("echo", answer)};
    static ubus_object_type type = UBUS_OBJECT_TYPE("bench", methods);
    static ubus_object object;
    object.name = "bench";
    object.type = &type;
    object.methods = methods;
    object.n_methods = ARRAY_SIZE(methods);
    ubus_context* ctx = connect_when_ready(socket);
    if (ubus_add_object(ctx, &object) != UBUS_STATUS_OK) {
        fail("the object is refused");
    }
    ubus_add_uloop(ctx);
    uloop_run();
}

uint32_t find_owner(ubus_context* ctx) {
    uint32_t id;
    for (int i = 0; i < connect_attempts; i++) {
        if (ubus_lookup_id(ctx, "bench", &id) == UBUS_STATUS_OK) {
            return id;
        }
        usleep(10000);
    }
    fail("the owner does not come up");
}

void write_all(int fd, const void* data, size_t size) {
    const char* at = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = write(fd, at, size);
        if (written <= 0) {
            fail("a result is lost");
        }
        at += written;
        size -= static_cast<size_t>(written);
    }
}

// Calls until the time is up; sends the nanoseconds of each call to `results`.
void call(const std::string& socket, int ready, int go, int results, int seconds) {
    ubus_context* ctx = connect_when_ready(socket);
    const uint32_t object = find_owner(ctx);
    blob_buf message = {};
    blob_buf_init(&message, 0);
    blobmsg_add_string(&message, "address", "192.168.0.1");
    blobmsg_add_u32(&message, "port", 8443);

    write_all(ready, "r", 1);
    close(ready);
    char none;
    if (read(go, &none, 1) != 0) {
        fail("no start");
    }
    std::vector<uint32_t> took;
    const Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);
    for (Clock::time_point before = Clock::now(); before < end;) {
        if (ubus_invoke(ctx, object, "echo", message.head, nullptr, nullptr, call_timeout_ms)) {
            fail("a call failed");
        }
        const Clock::time_point after = Clock::now();
        took.push_back(static_cast<uint32_t>(std::chrono::nanoseconds(after - before).count()));
        before = after;
    }
    write_all(results, took.data(), took.size() * sizeof(took[0]));
    blob_buf_free(&message);
    ubus_free(ctx);
}

struct Pipe {
    int ends[2];
    Pipe() {
        if (pipe2(ends, O_CLOEXEC) != 0) {
            fail("no pipe");
        }
    }
};

std::vector<uint32_t> read_all(int fd) {
    std::vector<uint32_t> all;
    std::vector<char> bytes;
    char some[65536];
    for (ssize_t got; (got = read(fd, some, sizeof(some))) > 0;) {
        bytes.insert(bytes.end(), some, some + got);
    }
    all.resize(bytes.size() / sizeof(uint32_t));
    memcpy(all.data(), bytes.data(), all.size() * sizeof(uint32_t));
    return all;
}

double percentile_us(const std::vector<uint32_t>& sorted, double share) {
    const size_t at = static_cast<size_t>(share * static_cast<double>(sorted.size() - 1));
    return sorted[at] / 1000.0;
}

Result measure(const std::string& socket, int callers, int seconds) {
    Pipe ready;
    Pipe go;
    std::vector<Process> processes;
    std::vector<int> results;
    processes.reserve(static_cast<size_t>(callers));
    for (int i = 0; i < callers; i++) {
        const Pipe own_results;
        processes.emplace_back([&] {
            close(ready.ends[0]);
            close(go.ends[1]);
            call(socket, ready.ends[1], go.ends[0], own_results.ends[1], seconds);
        });
        close(own_results.ends[1]);
        results.push_back(own_results.ends[0]);
    }
    close(ready.ends[1]);
    close(go.ends[0]);
    char letter;
    for (int i = 0; i < callers; i++) {
        if (read(ready.ends[0], &letter, 1) != 1) {
            fail("a caller did not come up");
        }
    }
    close(ready.ends[0]);
    close(go.ends[1]); // all start

    std::vector<uint32_t> took;
    for (const int fd : results) {
        const std::vector<uint32_t> one = read_all(fd);
        took.insert(took.end(), one.begin(), one.end());
        close(fd);
    }
    if (took.empty()) {
        fail("no call was made");
    }
    std::sort(took.begin(), took.end());
    return {callers, static_cast<double>(took.size()) / seconds, percentile_us(took, 0.50),
            percentile_us(took, 0.99)};
}

void print_table(const std::vector<Result>& results) {
    printf("%8s  %12s  %10s  %10s\n", "callers", "calls/s", "p50 (us)", "p99 (us)");
    for (const Result& one : results) {
        printf("%8d  %12.0f  %10.1f  %10.1f\n", one.callers, one.calls_per_second, one.p50_us,
               one.p99_us);
    }
}

void print_json(const std::vector<Result>& results) {
    printf("{\"bus\":[");
    const char* separator = "";
    for (const Result& one : results) {
        printf("%s{\"callers\":%d,\"calls_per_second\":%.0f,\"p50_us\":%.1f,\"p99_us\":%.1f}",
               separator, one.callers, one.calls_per_second, one.p50_us, one.p99_us);
        separator = ",";
    }
    printf("]}\n");
}

struct Options {
    bool json = false;
    int seconds = default_seconds;
};

Options read_options(int argc, char** argv) {
    static const option known[] = {
        {"json", no_argument, nullptr, 'j'}, {"seconds", required_argument, nullptr, 's'}, {}};
    Options options;
    for (int found; (found = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
        if (found == 'j') {
            options.json = true;
        } else if (found == 's' && atoi(optarg) >= 1 && atoi(optarg) <= 3600) {
            options.seconds = atoi(optarg);
        } else {
            fprintf(stderr, "Usage: bus_bench [--json] [--seconds 1-3600]\n");
            exit(EXIT_FAILURE);
        }
    }
    return options;
}

} // namespace

int main(int argc, char** argv) {
    const Options options = read_options(argc, argv);
    char folder[] = "/tmp/bus_bench.XXXXXX";
    if (!mkdtemp(folder)) {
        fail("no temporary folder");
    }
    const std::string socket = std::string(folder) + "/ubus.sock";
    std::vector<Result> results;
    {
        const std::string program = broker_program();
        const Process broker([&] {
            execl(program.c_str(), "ubusd", "-s", socket.c_str(), nullptr);
            fail("there is no ubusd beside this program");
        });
        const Process owner([&] { own(socket); });
        for (const int callers : caller_counts) {
            results.push_back(measure(socket, callers, options.seconds));
        }
    }
    rmdir(folder);
    options.json ? print_json(results) : print_table(results);
    return EXIT_SUCCESS;
}
