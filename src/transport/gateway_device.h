#pragma once

#include <cstdint>
#include <cstdio>

// Which uplink reaches the relay server. When a plain TCP connect fails and the routing table lists
// more than one gateway device, the socket is bound to one device after the other, and the one that
// worked is remembered and tried first the next time.
//
// Owner: the process; the list owns its entries. Threads: workers connect; the reserved name and
// the list are guarded by one mutex of this module, the local address by another, both taken by
// socket_connect_select_device only. The first stays locked for good when a search runs out of
// descriptors. The exported functions take no lock of their own.

struct sockaddr_in;
struct cloud_socket_t;

constexpr int GATEWAY_DEVICE_NAME_SIZE = 64;
constexpr int LOCAL_ADDRESS_SIZE = 16;

struct gateway_device_t {
    char name[GATEWAY_DEVICE_NAME_SIZE];
    gateway_device_t* next;
};

struct gateway_device_list_t {
    gateway_device_t* head;
    char reserve_gateway_device[GATEWAY_DEVICE_NAME_SIZE]; // the device that last worked, or ""
    char local_address[LOCAL_ADDRESS_SIZE]; // our end of the last plain connect, dotted
    int32_t count;
};

// The names that other code may look up in this program: C linkage, in the dynamic symbol table.
extern "C" {
#pragma GCC visibility push(default)

extern gateway_device_list_t g_gateway_device_list;

// Rebuilds `list` from the routing table, the table's last row first. Returns 0; or -1 for a null
// list, a table that cannot be opened or no memory, the list then being empty.
int get_gateway_device(gateway_device_list_t* list);

// The number of rows of the routing table that are up and lead through a gateway, whatever their
// destination; -1 when it cannot be opened.
int get_gateway_device_count();

// Returns 0 for a list, -1 for null. Prints nothing.
int print_gateway_device(gateway_device_list_t* list);

#pragma GCC visibility pop
}

// Connects socket->sockfd to `address`, with the device selection above; each attempt takes at most
// `timeout` milliseconds, as does the wait for another worker's search. Returns 0 or -1. The
// descriptor may be another one afterwards, and stays bound to the device that worked.
int socket_connect_select_device(cloud_socket_t* socket, const sockaddr_in* address,
                                 int64_t timeout);

// Steps that the module's tests reach.
namespace internal {

// Adds the gateway devices of a routing table, heading line first, to `list`. Returns 0; -1 without
// memory, the list then being empty.
int _read_gateway_devices(FILE* table, gateway_device_list_t* list);

// How many _read_gateway_devices would add.
int _count_gateway_devices(FILE* table);

// Empties the list. Returns -1 when it was empty, else 0.
int _clear_gateway_device(gateway_device_list_t* list);

} // namespace internal
