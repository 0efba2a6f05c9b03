#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "support/certificates.h"
#include "support/packet.h"
#include "support/verb_queue.h"

// The relay, played by a test: a TLS server on a real socket that does what it is told.
//
//     tls_peer relay;
//     relay.accept();                                 // returns at once
//     EXPECT_EQ(cloud_socket_connect(...), 0);
//     relay.send(packet_bytes({3, 7, "GET / HTTP/1.0\r\n\r\n"}));
//     EXPECT_EQ(relay.read_packet().type, 4);
//
// The verbs are done one after the other on a thread of the peer's own, so that the test's thread
// is free to run the other end. Verbs with a result wait for it; the others return at once. Every
// wait for the other end is bounded by the usual patience. One connection at a time: the next
// accept() drops the one before.

struct ssl_ctx_st;
struct ssl_st;

struct tls_peer_options {
    const certificates* identity = &shared_certificates();
    int version = 0;    // the only TLS version to speak, TLS1_2 or TLS1_3; 0 for both
    size_t tickets = 0; // session tickets that follow a TLS 1.3 handshake by themselves
    int listener = -1;  // a listening socket to use, which the peer then owns; else a new one
};

constexpr int TLS1_2 = 0x0303;
constexpr int TLS1_3 = 0x0304;

class tls_peer {
public:
    explicit tls_peer(const tls_peer_options& options = {});
    ~tls_peer();
    tls_peer(const tls_peer&) = delete;
    tls_peer& operator=(const tls_peer&) = delete;

    int port() const;

    // --- connections ---
    void accept();         // takes the next connection, TLS handshake included
    void accept_tcp();     // takes the next connection, speaks not a byte of TLS
    void hello_tls();      // the TLS handshake of a connection that accept_tcp() took
    bool is_connected();   // whether the last handshake succeeded
    std::string version(); // "TLSv1.2" or "TLSv1.3"

    // --- sending ---
    void send(const std::string& bytes); // each 16384 bytes as one TLS record
    // One TLS record whose own bytes are cut: its first `count` bytes leave now, the others with
    // send_rest().
    void send_part(const std::string& bytes, size_t count);
    void send_rest();
    void send_raw(const std::string& bytes); // outside of TLS
    void send_ticket();                      // TLS 1.3: one session ticket
    void update_keys(bool both);             // TLS 1.3: a key update, answered by one or not
    bool is_done();                          // waits until all verbs so far are done; true

    // --- receiving ---
    std::string read_exact(size_t count); // fewer at the connection's end
    packet read_packet();
    bool is_closed_in_order(); // waits for the end; true for a goodbye of TLS without data before
    bool is_at_end();          // waits for the end, with or without goodbye; false for data

    // --- ends ---
    void close_notify(); // says goodbye in TLS, leaves TCP open
    void close();        // ends TCP without a goodbye
    void reset();        // ends TCP with a reset

private:
    // All run on the queue's thread.
    void take_connection();
    void drop_connection(bool withReset);
    void handshake();
    void write_records(const std::string& bytes);
    int read_some(char* out, size_t size);

    ssl_ctx_st* context;
    int listener;
    std::mutex connectionMutex; // guards the descriptor's life against the destructor's shutdown
    int connection = -1;
    ssl_st* tls = nullptr;
    bool connected = false;
    std::string rest; // of a record sent in part
    std::unique_ptr<verb_queue> queue;
};
