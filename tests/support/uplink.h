#pragma once

#include <string>

// A network device that leads to a gateway in a network of its own, inside the private namespaces
// of support/namespaces.h. Needs the `ip` program and the right to make network devices.
//
// `network` is the third byte of the addresses on the line: ours is 10.7.NETWORK.2, the gateway's
// 10.7.NETWORK.1. The route over it has the given metric; the smallest is the one that the kernel
// takes for a socket bound to no device.
class uplink {
public:
    uplink(const std::string& device, int network, int metric);
    ~uplink();
    uplink(const uplink&) = delete;
    uplink& operator=(const uplink&) = delete;

    std::string address() const; // our end of the line

    // Puts a machine with that address into the network behind the line.
    void host(const std::string& address);

    // Has the gateway refuse connections to that address at once.
    void refuse(const std::string& address);

    // A listening socket at that address inside the network, for a peer of this process.
    int listen(const std::string& address, int port = 0);

    // Takes the line away, as when a modem is pulled out.
    void cut();

private:
    std::string device;
    std::string inside; // the name of the network behind the line
    int network;
};
