#include "support/uplink.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <sched.h>
#include <thread>
#include <unistd.h>

#include "support/tcp.h"

namespace {

bool ip(const std::string& arguments) {
    return system(("ip " + arguments).c_str()) == 0;
}

void must_ip(const std::string& arguments) {
    if (!ip(arguments)) {
        fprintf(stderr, "ip %s failed\n", arguments.c_str());
        abort();
    }
}

void set_kernel_option(const char* path, const char* value) {
    std::ofstream(path) << value;
}

// Runs `action` on a thread that lives in the named network; the sockets it opens stay there.
void inside_network(const std::string& name, const std::function<void()>& action) {
    std::thread([&] {
        int fd = open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) {
            perror("setns");
            abort();
        }
        close(fd);
        action();
    }).join();
}

} // namespace

uplink::uplink(const std::string& deviceName, int networkNumber, int metric)
    : device(deviceName), inside("behind-" + deviceName), network(networkNumber) {
    // An answer may come in over another device than the one that the kernel would answer over.
    set_kernel_option("/proc/sys/net/ipv4/conf/all/rp_filter", "0");
    set_kernel_option("/proc/sys/net/ipv4/conf/default/rp_filter", "0");
    std::string line = "10.7." + std::to_string(network);
    must_ip("netns add " + inside);
    must_ip("link add " + device + " type veth peer name line netns " + inside);
    must_ip("address add " + line + ".2/24 dev " + device);
    must_ip("link set " + device + " up");
    must_ip("-n " + inside + " address add " + line + ".1/24 dev line");
    must_ip("-n " + inside + " link set line up");
    must_ip("-n " + inside + " link set lo up");
    must_ip("route add default via " + line + ".1 dev " + device + " metric " +
            std::to_string(metric));
}

uplink::~uplink() {
    cut();
    ip("netns delete " + inside);
}

std::string uplink::address() const {
    return "10.7." + std::to_string(network) + ".2";
}

void uplink::host(const std::string& address) {
    must_ip("-n " + inside + " address add " + address + "/32 dev lo");
}

void uplink::refuse(const std::string& address) {
    must_ip("-n " + inside + " route add unreachable " + address + "/32");
    inside_network(inside, [] { set_kernel_option("/proc/sys/net/ipv4/ip_forward", "1"); });
}

int uplink::listen(const std::string& address, int port) {
    int fd = -1;
    inside_network(inside, [&] { fd = listen_at(address, port); });
    return fd;
}

void uplink::cut() {
    ip("link delete " + device + " 2>/dev/null");
}
