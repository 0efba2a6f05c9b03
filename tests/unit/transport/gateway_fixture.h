#pragma once

#include <arpa/inet.h>
#include <cstring>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <vector>

#include "support/log_capture.h"
#include "support/namespaces.h"
#include "transport/cloud_socket.h"
#include "transport/gateway_device.h"

// The choice of an uplink, for tests: routing tables, and what the choice says. Require private
// namespaces.

inline constexpr char ROUTES[] = "/proc/net/route";
inline constexpr char SELECT[] = "socket_connect_select_device";
inline constexpr char CONNECT[] = "connect_nonblock";
inline constexpr char TRY[] = "[CRC:] try device : ";
inline constexpr char BOUND[] = "[CRC:] bind device successfully\n ";
inline constexpr char UNUSABLE[] =
    "[CRC:] bind device failed, the device is unusable, try another device\n ";
inline constexpr char RENEW[] = "[CRC:] close the socket and init again!\n ";
inline constexpr char NO_RESERVED[] =
    "[CRC:] there is no reserve_gateway_device, try to find one!\n";

// A row of the routing table; `gateway` is in the table's own byte order.
inline std::string route(const std::string& device, const std::string& gateway = "010200C0",
                         const std::string& flags = "0003",
                         const std::string& destination = "00000000") {
    return device + "\t" + destination + "\t" + gateway + "\t" + flags +
           "\t0\t0\t0\t00000000\t0\t0\t0          \n";
}

inline void show_routes(const std::string& rows) {
    replace_proc_file(ROUTES, "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\t"
                              "MTU\tWindow\tIRTT                       \n" +
                                  rows);
}

inline std::vector<std::string> names(const gateway_device_list_t& list) {
    std::vector<std::string> result;
    for (const gateway_device_t* device = list.head; device != nullptr; device = device->next) {
        result.push_back(device->name);
    }
    return result;
}

// A device list, and the kernel's routing table in the place of the test's afterwards.
struct RouteTable : testing::Test {
    ~RouteTable() override {
        show_routes("");
        get_gateway_device(&list); // releases the entries
        restore_proc_files();
    }
    gateway_device_list_t list = {};
};

// Enough for a connect on this machine, short for one that nobody answers.
inline constexpr int64_t SHORT_MS = 300;

// A cloud socket with a descriptor that is about to be connected.
struct SelectDevice : RouteTable {
    SelectDevice() {
        forget_reserved();
        socket->sockfd = ::socket(AF_INET, SOCK_STREAM, 0);
    }
    ~SelectDevice() override {
        cloud_socket_destroy(socket);
        forget_reserved();
        show_routes("");
        get_gateway_device(&g_gateway_device_list);
    }

    static void forget_reserved() {
        memset(g_gateway_device_list.reserve_gateway_device, 0, GATEWAY_DEVICE_NAME_SIZE);
        memset(g_gateway_device_list.local_address, 0, LOCAL_ADDRESS_SIZE);
    }

    static void reserve(const char* name) {
        strcpy(g_gateway_device_list.reserve_gateway_device, name);
        strcpy(g_gateway_device_list.local_address, "192.0.2.7");
    }

    int connect_to(const char* ip, int port, int64_t timeout = SHORT_MS) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        inet_aton(ip, &address.sin_addr);
        return socket_connect_select_device(socket, &address, timeout);
    }

    std::string bound_device() const {
        char name[IFNAMSIZ] = {};
        socklen_t size = sizeof name;
        getsockopt(socket->sockfd, SOL_SOCKET, SO_BINDTODEVICE, name, &size);
        return name;
    }

    std::vector<std::string> said() const { return log.messages(SELECT); }
    static std::string reserved() { return g_gateway_device_list.reserve_gateway_device; }
    static std::string local_address() { return g_gateway_device_list.local_address; }

    cloud_socket_t* socket = cloud_socket_init();
    log_capture log;
};
