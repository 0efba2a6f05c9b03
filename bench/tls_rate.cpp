// How fast wolfSSL encrypts by itself: the bound of a large download through the daemon.
//
//   tls_rate PORT
//
// Agrees with the TLS server at 127.0.0.1:PORT on version and cipher, as the daemon would, then
// writes 100 MiB in records of the usual size that go nowhere. Prints the cipher and MB/s
// (10^6 bytes) of processor time.

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <wolfssl/options.h>
// after the options
#include <wolfssl/ssl.h>

namespace {

constexpr int record_bytes = 16384;
constexpr int records = 6400; // 100 MiB

bool discard = false;

int send_or_discard(WOLFSSL*, char* bytes, int size, void* context) {
    if (discard)
        return size;
    return static_cast<int>(send(*static_cast<int*>(context), bytes, static_cast<size_t>(size), 0));
}

double processor_seconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

int connect_to(int port) {
    const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0
               ? descriptor
               : -1;
}

bool write_all(WOLFSSL* tls) {
    const std::vector<char> record(record_bytes, 'x');
    for (int i = 0; i < records; ++i)
        if (wolfSSL_write(tls, record.data(), record_bytes) != record_bytes)
            return false;
    return true;
}

} // namespace

int main(int count, char** arguments) {
    int descriptor = count == 2 ? connect_to(std::atoi(arguments[1])) : -1;
    if (descriptor < 0) {
        std::fputs("usage: tls_rate PORT, of a TLS server on 127.0.0.1\n", stderr);
        return 2;
    }
    wolfSSL_Init();
    WOLFSSL_CTX* const context = wolfSSL_CTX_new(wolfTLS_client_method());
    wolfSSL_CTX_set_verify(context, WOLFSSL_VERIFY_NONE, nullptr);
    wolfSSL_CTX_SetIOSend(context, send_or_discard);
    WOLFSSL* const tls = wolfSSL_new(context);
    wolfSSL_set_fd(tls, descriptor);
    wolfSSL_SetIOWriteCtx(tls, &descriptor);
    int status = 1;
    if (wolfSSL_connect(tls) == WOLFSSL_SUCCESS) {
        discard = true;
        const double began = processor_seconds();
        const bool written = write_all(tls);
        const double seconds = processor_seconds() - began;
        std::printf("%s %.1f\n", wolfSSL_get_cipher_name(tls),
                    double{records} * record_bytes / 1e6 / seconds);
        status = written ? 0 : 1;
    }
    wolfSSL_free(tls);
    wolfSSL_CTX_free(context);
    close(descriptor);
    return status;
}
