#pragma once

#include <cstddef>
#include <cstdint>
#include <pthread.h>

// The cloud socket: the device's one connection to the relay server, TCP over IPv4 with TLS
// (wolfSSL through its CyaSSL interface), the server verified against one CA certificate file.
// Whole packets are sent and received by transport/relay_packet.h.
//
// Owner: the cloud cycle. Threads: the worker's. The mutex serialises whole packets; the calls of
// this module take no lock, their callers know when they are alone. A worker that is let go
// (core/wanted.h) waits for its peer no longer: connects and reads fail within LOOK_MS, writes as
// cloud_socket_send_buf says. Time-outs are in milliseconds.

#define DFLT_CER_FILE_PATH "/etc/cloud-sdk/velmora-root-CA.pem"

struct WOLFSSL;
struct WOLFSSL_CTX;
struct sockaddr_in;

constexpr int CLOUD_SOCKET_DISCONNECTED = 0;
constexpr int CLOUD_SOCKET_CONNECTED = 1; // TLS is up

// Bytes that came, still encrypted, ahead of what TLS asked for: a small record is then one system
// call instead of two.
struct read_ahead_t {
    static constexpr int SIZE = 4096;

    char bytes[SIZE];
    int begin; // of what TLS has not taken
    int end;
};

struct cloud_socket_t {
    pthread_mutex_t mutex; // held for one whole packet
    int32_t sockfd;        // -1 when closed
    WOLFSSL_CTX* CTX;      // null when none
    WOLFSSL* SSL;          // null when none
    char* cerFile;         // owned
    int32_t status;
    bool midRecord; // a write was given up in the middle of a TLS record
    read_ahead_t ahead;
};

// A new, closed socket, or null when memory is short.
cloud_socket_t* cloud_socket_init();

// Disconnects and releases the socket. A null socket is only logged.
void cloud_socket_destroy(cloud_socket_t* socket);

// Connects to the server at `ip` (dotted) and `port`: TCP within `timeout` for each uplink tried,
// TLS within seven times `timeout`. Returns 0, also when it is connected already; 100 for a null
// argument or a port outside 1 to 65535; -1 on failure, the socket then being closed.
int cloud_socket_connect(cloud_socket_t* cloudSocket, const char* ip, int port, int64_t timeout);

// Writes `length` bytes, for as long as it takes the peer to take them. Once the session is to end,
// a write that moves may go on for 10 s, and one of which the peer took nothing for 2 s is given
// up. Returns 0; 9 when the peer closed, the write was given up or could not go on (no memory), or
// the socket is disconnected; 100 for a null argument. A short write, and every other error, counts
// as success: the next read finds the connection broken.
int cloud_socket_send_buf(cloud_socket_t* socket, const void* buf, size_t length);

// Reads `length` bytes within `timeout`, counted from the call's start. Returns the number of bytes
// read, fewer than `length` only after a read error, which every later read meets again; 0 when the
// peer closed; -1 on time-out, without memory, or when the socket is disconnected; 100 for a null
// argument.
int cloud_socket_recv_buf(cloud_socket_t* socket, void* buf, size_t length, int64_t timeout);

// True when bytes were read already, decrypted or not, which no wait on the descriptor would
// report. Requires a connected socket, as the next.
bool cloud_socket_has_buffered_data(const cloud_socket_t* socket);

enum class tls_data {
    none,    // what came carries no data for us: a session ticket, a key update, half a record
    some,    // a read gives data, or the end of the connection
    blocked, // TLS must write before it reads on; the descriptor stays readable meanwhile
};

// Looks at what came, for a descriptor that is reported readable.
tls_data cloud_socket_look(cloud_socket_t* socket);

// Closes the connection, if any. Safe to call again. A null socket is only logged.
void cloud_socket_disconnect(cloud_socket_t* socket);
