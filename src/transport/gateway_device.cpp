#include "transport/gateway_device.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <net/if.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/log.h"
#include "core/mutex_guard.h"
#include "core/wanted.h"
#include "transport/cloud_socket.h"
#include "transport/tcp_connect.h"

gateway_device_list_t g_gateway_device_list = {};

namespace {

using internal::_clear_gateway_device;

constexpr char ROUTE_TABLE_PATH[] = "/proc/net/route";
constexpr unsigned ROUTE_UP = 0x0001;

pthread_mutex_t gatewayMutex = PTHREAD_MUTEX_INITIALIZER;
// The local address has its own: a plain connect that succeeds never waits for another worker's
// search.
pthread_mutex_t localAddressMutex = PTHREAD_MUTEX_INITIALIZER;

struct file_closer {
    void operator()(FILE* file) const { fclose(file); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

void _skip_heading(FILE* table) {
    int skipped = fscanf(table, "%*[^\n]\n");
    static_cast<void>(skipped);
}

// Moves to the next gateway row and stores its interface name. False at the end of the table.
bool _next_gateway_row(FILE* table, char (&name)[GATEWAY_DEVICE_NAME_SIZE]) {
    for (;;) {
        unsigned long destination = 0;
        unsigned long gateway = 0;
        unsigned flags = 0;
        unsigned long mask = 0;
        int references = 0;
        int use = 0;
        int metric = 0;
        int mtu = 0;
        int window = 0;
        int irtt = 0;
        name[0] = '\0';
        int scanned = fscanf(table, "%63s%lx%lx%X%d%d%d%lx%d%d%d\n", name, &destination, &gateway,
                             &flags, &references, &use, &metric, &mask, &mtu, &window, &irtt);
        if (scanned == EOF) {
            return false;
        }
        if ((flags & ROUTE_UP) != 0 && gateway != 0) {
            return true;
        }
    }
}

void _store_local_address(int fd) {
    sockaddr_in local = {};
    socklen_t size = sizeof local;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size) != 0) {
        LOG_ERROR_AS("socket_connect_select_device", "get sock name error\n");
        return;
    }
    mutex_guard guard(&localAddressMutex);
    inet_ntop(AF_INET, &local.sin_addr, g_gateway_device_list.local_address,
              sizeof g_gateway_device_list.local_address);
}

// The request has room for 16 bytes of the name; the kernel wants its terminator among them.
int _bind_device(int fd, const char* name) {
    ifreq request = {};
    static_assert(sizeof request.ifr_name == 16);
    memcpy(request.ifr_name, name, strnlen(name, sizeof request.ifr_name));
    constexpr socklen_t REQUEST_SIZE = 32;
    return setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, &request, REQUEST_SIZE);
}

// Dissolves a failed attempt, so that the same socket may connect again: the kernel takes it as
// still connecting, or aborted, otherwise. An error that a router reported stays queued beyond
// that, and would make the next attempt look writable, that is connected, at once.
void _dissolve_connect(int fd) {
    sockaddr none = {};
    none.sa_family = AF_UNSPEC;
    static_cast<void>(connect(fd, &none, sizeof none));
    char data = 0;
    iovec part = {&data, sizeof data};
    msghdr queued = {};
    queued.msg_iov = &part;
    queued.msg_iovlen = 1;
    while (recvmsg(fd, &queued, MSG_ERRQUEUE | MSG_DONTWAIT) >= 0) {
    }
}

// Closes a socket whose device did not lead to the server, and opens a new, unbound one.
int _renew_socket(cloud_socket_t* socket) {
    LOG_INFO_AS("socket_connect_select_device", "[CRC:] close the socket and init again!\n ");
    close(socket->sockfd);
    socket->sockfd = open_tcp_socket(); // -1 on failure: 0 would be somebody else's to close
    return socket->sockfd < 0 ? -1 : 0;
}

void _forget_reserved_device(int64_t timeout) {
    bounded_mutex_guard guard(&gatewayMutex, timeout);
    if (!guard.isHeld) {
        return; // the search that follows does not get it either
    }
    memset(g_gateway_device_list.reserve_gateway_device, 0, GATEWAY_DEVICE_NAME_SIZE);
    mutex_guard addressGuard(&localAddressMutex);
    memset(g_gateway_device_list.local_address, 0, LOCAL_ADDRESS_SIZE);
}

enum class attempt { connected, failed, give_up };

// Tries the device that worked last; when it does not any more, forgets it.
attempt _try_reserved_device(cloud_socket_t* socket, const sockaddr_in* address, int64_t timeout,
                             const char* reserved) {
    constexpr char NAME[] = "socket_connect_select_device";
    LOG_INFO_AS(NAME, "[CRC:] there is reserve_gateway_device: %s\n", reserved);
    if (_bind_device(socket->sockfd, reserved) != 0) {
        LOG_ERROR_AS(NAME, "[CRC:] bind device failed\n ");
        LOG_ERROR_AS(NAME, "[CRC:] connect_nonblock failed, clear the reserve_gateway_device\n ");
        _forget_reserved_device(timeout);
        return attempt::failed;
    }
    LOG_INFO_AS(NAME, "[CRC:] bind device successfully\n ");
    if (connect_nonblock(socket->sockfd, address, timeout) == 0) {
        return attempt::connected;
    }
    LOG_ERROR_AS(NAME, "[CRC:] connect_nonblock failed, clear the reserve_gateway_device!\n ");
    _forget_reserved_device(timeout);
    if (_renew_socket(socket) != 0) {
        LOG_ERROR_AS(NAME, "[CRC:] [CLOUD-BRD]open sock failed, errno:%d\n", errno);
        return attempt::give_up;
    }
    return attempt::failed;
}

// Tries one listed device; called with the gateway mutex held.
attempt _try_listed_device(cloud_socket_t* socket, const sockaddr_in* address, int64_t timeout,
                           const char* name) {
    constexpr char NAME[] = "socket_connect_select_device";
    LOG_INFO_AS(NAME, "[CRC:] try device : %s\n", name);
    if (_bind_device(socket->sockfd, name) != 0) {
        LOG_ERROR_AS(NAME,
                     "[CRC:] bind device failed, the device is unusable, try another device\n ");
        return attempt::failed;
    }
    LOG_INFO_AS(NAME, "[CRC:] bind device successfully\n ");
    if (connect_nonblock(socket->sockfd, address, timeout) == 0) {
        LOG_INFO_AS(NAME, "[CRC:] connect_nonblock successfully\n ");
        memcpy(g_gateway_device_list.reserve_gateway_device, name, GATEWAY_DEVICE_NAME_SIZE);
        LOG_INFO_AS(NAME, "[CRC:] add reserve_gateway_device:%s to g_gateway_device_list\n", name);
        return attempt::connected;
    }
    LOG_ERROR_AS(NAME, "[CRC:] connect_nonblock failed\n ");
    if (_renew_socket(socket) != 0) {
        LOG_ERROR_AS(NAME, "[CRC:] open sock failed, errno:%d\n", errno);
        return attempt::give_up;
    }
    return attempt::failed;
}

int _search_devices(cloud_socket_t* socket, const sockaddr_in* address, int64_t timeout) {
    constexpr char NAME[] = "socket_connect_select_device";
    bounded_mutex_guard guard(&gatewayMutex, timeout);
    if (!guard.isHeld) {
        return -1;
    }
    if (get_gateway_device(&g_gateway_device_list) != 0) {
        LOG_ERROR_AS(NAME, "[CRC:] get_gateway_device failed\n ");
        return -1;
    }
    attempt result = attempt::failed;
    for (gateway_device_t* device = g_gateway_device_list.head;
         device != nullptr && result == attempt::failed && !is_let_go(); device = device->next) {
        result = _try_listed_device(socket, address, timeout, device->name);
    }
    if (result == attempt::give_up) {
        // Required: the mutex stays locked, and a process that is out of descriptors searches no
        // uplink again. Plain connects go on; whoever waits for the mutex gives up in time.
        guard.keep();
        return -1;
    }
    guard.release();
    if (result == attempt::failed) {
        LOG_ERROR_AS(NAME, "[CRC:] open sock failed, errno:%d\n", errno);
        return -1;
    }
    LOG_INFO_AS(NAME, "[CRC:] tcp connect to the server success");
    return 0;
}

} // namespace

int internal::_read_gateway_devices(FILE* table, gateway_device_list_t* list) {
    _skip_heading(table);
    char name[GATEWAY_DEVICE_NAME_SIZE];
    while (_next_gateway_row(table, name)) {
        gateway_device_t* device =
            static_cast<gateway_device_t*>(calloc(1, sizeof(gateway_device_t)));
        if (device == nullptr) {
            _clear_gateway_device(list);
            return -1;
        }
        memcpy(device->name, name, strlen(name));
        device->next = list->head;
        list->head = device;
        list->count++;
    }
    return 0;
}

int internal::_count_gateway_devices(FILE* table) {
    _skip_heading(table);
    int count = 0;
    char name[GATEWAY_DEVICE_NAME_SIZE];
    while (_next_gateway_row(table, name)) {
        count++;
    }
    return count;
}

int internal::_clear_gateway_device(gateway_device_list_t* list) {
    if (list->head == nullptr) {
        return -1;
    }
    while (list->head != nullptr) {
        gateway_device_t* device = list->head;
        list->head = device->next;
        free(device);
    }
    list->count = 0;
    return 0;
}

int get_gateway_device(gateway_device_list_t* list) {
    if (list == nullptr) {
        return -1;
    }
    _clear_gateway_device(list);
    file_ptr table(fopen(ROUTE_TABLE_PATH, "r"));
    return table == nullptr ? -1 : internal::_read_gateway_devices(table.get(), list);
}

int get_gateway_device_count() {
    file_ptr table(fopen(ROUTE_TABLE_PATH, "r"));
    return table == nullptr ? -1 : internal::_count_gateway_devices(table.get());
}

int print_gateway_device(gateway_device_list_t* list) {
    return list == nullptr ? -1 : 0;
}

int socket_connect_select_device(cloud_socket_t* socket, const sockaddr_in* address,
                                 int64_t timeout) {
    if (timeout < 1) {
        LOG_ERROR("[CRC:] parameter error");
        return -1;
    }
    int count = get_gateway_device_count();
    if (connect_nonblock(socket->sockfd, address, timeout) == 0) {
        _store_local_address(socket->sockfd);
        return 0;
    }
    if (count <= 1 || is_let_go()) {
        return -1;
    }
    _dissolve_connect(socket->sockfd);

    char reserved[GATEWAY_DEVICE_NAME_SIZE];
    {
        bounded_mutex_guard guard(&gatewayMutex, timeout);
        if (!guard.isHeld) {
            return -1;
        }
        memcpy(reserved, g_gateway_device_list.reserve_gateway_device, sizeof reserved);
    }
    if (reserved[0] == '\0') {
        LOG_INFO("[CRC:] there is no reserve_gateway_device, try to find one!\n");
        return _search_devices(socket, address, timeout);
    }
    switch (_try_reserved_device(socket, address, timeout, reserved)) {
    case attempt::connected:
        return 0;
    case attempt::give_up:
        return -1;
    case attempt::failed:
        break;
    }
    return _search_devices(socket, address, timeout);
}
