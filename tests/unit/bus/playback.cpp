#include "playback.h"

#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "deadline.h"

Playback::Playback(const std::string& recording, int connection)
    : m_reads(load_connection(recording, connection)),
      m_listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    char folder[] = "/tmp/bus.XXXXXX";
    m_folder = mkdtemp(folder);
    m_socket = m_folder + "/ubus.sock";
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, m_socket.c_str(), sizeof(address.sun_path) - 1);
    EXPECT_EQ(bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(m_listener, 1), 0);
}

Playback::~Playback() {
    m_thread.join();
    close(m_listener);
    unlink(m_socket.c_str());
    rmdir(m_folder.c_str());
}

void Playback::play() {
    pollfd waiting = {m_listener, POLLIN, 0};
    if (poll(&waiting, 1, static_cast<int>(PATIENCE.count())) <= 0) {
        ADD_FAILURE() << "nobody connected";
        return;
    }
    RawPeer client(accept(m_listener, nullptr, nullptr));
    for (const RecordedRead& read : m_reads) {
        if (read.from_broker) {
            client.send(read.bytes);
            continue;
        }
        const std::string sent = to_hex(client.read(read.bytes.size()));
        EXPECT_EQ(sent, to_hex(read.bytes));
        if (sent != to_hex(read.bytes)) {
            return;
        }
    }
    if (!m_hang_up) {
        EXPECT_EQ(to_hex(client.read(1)), "") << "the client sent more than was recorded";
    }
}
