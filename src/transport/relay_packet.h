#pragma once

#include <cstddef>
#include <cstdint>

// Whole relay packets over the cloud socket. Every call holds the socket's mutex for one packet, so
// that packets of two senders never mix on the stream, and prints the packet's header.
// Threads: any. Time-outs are in milliseconds.

struct cloud_socket_t;

// Sends the packet of `length` bytes at `buf`, header first. Returns 0, 9 when disconnected, 100
// for a null argument.
int cloud_socket_send(cloud_socket_t* socket, const void* buf, size_t length);

// Receives one packet. On success `buf` gets a fresh block of header, body and one zero byte, which
// the caller frees, and `length` the packet's bytes. The header, and each 16384 bytes of the body,
// may take `timeout`. Returns 0; 4 on a receive error or time-out; 9 when the peer closed; 10 for a
// bad magic number; 100 for a null argument; 101 when memory is short.
int cloud_socket_recv(cloud_socket_t* socket, uint8_t** buf, size_t* length, int64_t timeout);

// Receives the next packet's header alone; the body stays on the stream. On success `pPktHdr` gets
// a fresh block of 12 bytes, which the caller frees, and `length` 12; the magic number is not
// looked at. Returns 0, 4, 9, 100 or 101 as above.
int cloud_socket_recv_pkt_hdr(cloud_socket_t* socket, uint8_t** pPktHdr, size_t* length,
                              int64_t timeout);
