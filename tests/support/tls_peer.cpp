#include "support/tls_peer.h"

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <utility>

#include "support/eventually.h"
#include "support/tcp.h"

static_assert(TLS1_2 == TLS1_2_VERSION && TLS1_3 == TLS1_3_VERSION);

namespace {

constexpr size_t RECORD_SIZE = 16384;

void require(bool done, const char* what) {
    if (!done) {
        fprintf(stderr, "%s failed\n", what);
        ERR_print_errors_fp(stderr);
        abort();
    }
}

void use_identity(SSL_CTX* context, const certificates& identity) {
    BIO* memory = BIO_new_mem_buf(identity.server.data(), static_cast<int>(identity.server.size()));
    X509* certificate = PEM_read_bio_X509(memory, nullptr, nullptr, nullptr);
    BIO_free(memory);
    memory = BIO_new_mem_buf(identity.key.data(), static_cast<int>(identity.key.size()));
    EVP_PKEY* key = PEM_read_bio_PrivateKey(memory, nullptr, nullptr, nullptr);
    BIO_free(memory);
    require(SSL_CTX_use_certificate(context, certificate) == 1, "SSL_CTX_use_certificate");
    require(SSL_CTX_use_PrivateKey(context, key) == 1, "SSL_CTX_use_PrivateKey");
    X509_free(certificate);
    EVP_PKEY_free(key);
}

SSL_CTX* make_context(const tls_peer_options& options) {
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    require(context != nullptr, "SSL_CTX_new");
    SSL_CTX_set_min_proto_version(context, options.version != 0 ? options.version : TLS1_2);
    SSL_CTX_set_max_proto_version(context, options.version != 0 ? options.version : TLS1_3);
    SSL_CTX_set_num_tickets(context, options.tickets);
    use_identity(context, *options.identity);
    return context;
}

} // namespace

tls_peer::tls_peer(const tls_peer_options& options)
    : context(make_context(options)),
      listener(options.listener >= 0 ? options.listener : listen_at()),
      queue(std::make_unique<verb_queue>()) {}

tls_peer::~tls_peer() {
    shutdown(listener, SHUT_RDWR); // wakes a waiting accept(), as the next a waiting read
    {
        std::lock_guard guard(connectionMutex);
        if (connection >= 0) {
            shutdown(connection, SHUT_RDWR);
        }
    }
    queue.reset();
    drop_connection(false);
    ::close(listener);
    SSL_CTX_free(context);
}

int tls_peer::port() const {
    return port_of(listener);
}

void tls_peer::take_connection() {
    drop_connection(false);
    int fd = accept_connection(listener);
    std::lock_guard guard(connectionMutex);
    connection = fd;
    timeval limit = {PATIENCE_MS / 1000, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void tls_peer::drop_connection(bool withReset) {
    SSL_free(std::exchange(tls, nullptr));
    connected = false;
    std::lock_guard guard(connectionMutex);
    int fd = std::exchange(connection, -1);
    if (fd < 0) {
        return;
    }
    if (withReset) {
        reset_and_close(fd);
    } else {
        ::close(fd);
    }
}

void tls_peer::handshake() {
    if (connection < 0) {
        return;
    }
    tls = SSL_new(context);
    SSL_set_fd(tls, connection);
    connected = SSL_accept(tls) == 1;
    ERR_clear_error();
}

void tls_peer::accept() {
    queue->post([this] {
        take_connection();
        handshake();
    });
}

void tls_peer::accept_tcp() {
    queue->post([this] { take_connection(); });
}

void tls_peer::hello_tls() {
    queue->post([this] { handshake(); });
}

bool tls_peer::is_connected() {
    return queue->run([this] { return connected; });
}

std::string tls_peer::version() {
    return queue->run([this] { return std::string(connected ? SSL_get_version(tls) : "none"); });
}

// A connection that the other end has closed takes nothing: that is for the test to see there.
void tls_peer::write_records(const std::string& bytes) {
    for (size_t at = 0; connected && at < bytes.size(); at += RECORD_SIZE) {
        size_t size = std::min(RECORD_SIZE, bytes.size() - at);
        if (SSL_write(tls, bytes.data() + at, static_cast<int>(size)) <= 0) {
            break;
        }
    }
    ERR_clear_error();
}

void tls_peer::send(const std::string& bytes) {
    queue->post([this, bytes] { write_records(bytes); });
}

void tls_peer::send_part(const std::string& bytes, size_t count) {
    queue->post([this, bytes, count] {
        if (!connected) {
            return;
        }
        BIO* socket = SSL_get_wbio(tls);
        BIO_up_ref(socket);
        BIO* memory = BIO_new(BIO_s_mem());
        BIO_up_ref(memory);
        SSL_set0_wbio(tls, memory);
        write_records(bytes);
        char* record = nullptr;
        long size = BIO_get_mem_data(memory, &record);
        rest.assign(record, static_cast<size_t>(size));
        SSL_set0_wbio(tls, socket);
        BIO_free(memory);
        write_bytes(connection, rest.substr(0, count));
        rest.erase(0, count);
    });
}

void tls_peer::send_rest() {
    queue->post([this] { write_bytes(connection, std::exchange(rest, "")); });
}

void tls_peer::send_raw(const std::string& bytes) {
    queue->post([this, bytes] { write_bytes(connection, bytes); });
}

void tls_peer::send_ticket() {
    queue->post([this] {
        if (connected) {
            SSL_new_session_ticket(tls);
            SSL_do_handshake(tls);
        }
    });
}

void tls_peer::update_keys(bool both) {
    queue->post([this, both] {
        if (connected) {
            SSL_key_update(tls, both ? SSL_KEY_UPDATE_REQUESTED : SSL_KEY_UPDATE_NOT_REQUESTED);
            SSL_do_handshake(tls);
        }
    });
}

bool tls_peer::is_done() {
    return queue->run([] { return true; });
}

int tls_peer::read_some(char* out, size_t size) {
    int count = connected ? SSL_read(tls, out, static_cast<int>(size)) : -1;
    ERR_clear_error();
    return count;
}

std::string tls_peer::read_exact(size_t count) {
    return queue->run([this, count] {
        std::string bytes(count, '\0');
        size_t done = 0;
        while (done < count) {
            int got = read_some(bytes.data() + done, count - done);
            if (got <= 0) {
                break;
            }
            done += static_cast<size_t>(got);
        }
        bytes.resize(done);
        return bytes;
    });
}

packet tls_peer::read_packet() {
    std::string header = read_exact(HEADER_BYTES);
    if (header.size() < HEADER_BYTES) {
        ADD_FAILURE() << "the device sent no packet";
        return {};
    }
    uint32_t size = 0;
    packet packet = parse_header(header, &size);
    packet.body = read_exact(size);
    EXPECT_EQ(packet.body.size(), size) << "the device sent half a packet";
    return packet;
}

bool tls_peer::is_closed_in_order() {
    return queue->run([this] {
        char byte = 0;
        return read_some(&byte, 1) <= 0 && connected &&
               (SSL_get_shutdown(tls) & SSL_RECEIVED_SHUTDOWN) != 0;
    });
}

bool tls_peer::is_at_end() {
    return queue->run([this] {
        char byte = 0;
        errno = 0;
        return connection >= 0 && recv(connection, &byte, 1, 0) <= 0 && errno != EAGAIN;
    });
}

void tls_peer::close_notify() {
    queue->post([this] {
        if (connected) {
            SSL_shutdown(tls);
        }
    });
}

void tls_peer::close() {
    queue->post([this] { drop_connection(false); });
}

void tls_peer::reset() {
    queue->post([this] { drop_connection(true); });
}
