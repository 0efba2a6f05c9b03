#pragma once

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "support/namespaces.h"

// The name server of this process, which answers only when told to, and then that the name does not
// exist. Requires private namespaces. Queries come from threads that start afterwards; the hosts
// file is asked first.
class silent_resolver {
public:
    silent_resolver() : fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(53);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            perror("name server");
            abort();
        }
        write_file("/etc/nsswitch.conf", "passwd: files\ngroup: files\nhosts: files dns\n");
        // Half a minute is the longest that the resolver waits.
        write_file("/etc/resolv.conf", "nameserver 127.0.0.1\noptions timeout:30 attempts:1\n");
        listener = std::thread([this] { listen(); });
    }
    ~silent_resolver() {
        ended = true;
        listener.join();
        close(fd);
        write_file("/etc/nsswitch.conf", "passwd: files\ngroup: files\nhosts: files\n");
        remove_file("/etc/resolv.conf");
    }
    silent_resolver(const silent_resolver&) = delete;
    silent_resolver& operator=(const silent_resolver&) = delete;

    // Queries that wait for their answers or got them since the last answer_all().
    size_t asked() const {
        std::lock_guard guard(mutex);
        return queries.size() + answered;
    }

    // Answers the first query.
    void answer_one() {
        std::lock_guard guard(mutex);
        answer();
        answered++;
    }

    // Answers all, and starts to count anew.
    void answer_all() {
        std::lock_guard guard(mutex);
        while (!queries.empty()) {
            answer();
        }
        answered = 0;
    }

private:
    struct query {
        std::string bytes;
        sockaddr_in asker;
    };

    void listen() {
        constexpr int LOOK_MS = 10;
        while (!ended) {
            pollfd readable = {fd, POLLIN, 0};
            if (poll(&readable, 1, LOOK_MS) != 1) {
                continue;
            }
            char bytes[512];
            query next = {};
            socklen_t size = sizeof next.asker;
            ssize_t length = recvfrom(fd, bytes, sizeof bytes, 0,
                                      reinterpret_cast<sockaddr*>(&next.asker), &size);
            if (length > 0) {
                next.bytes.assign(bytes, static_cast<size_t>(length));
                std::lock_guard guard(mutex);
                queries.push_back(next);
            }
        }
    }

    void answer() {
        query next = queries.front();
        queries.pop_front();
        constexpr char RESPONSE = static_cast<char>(0x81); // and recursion was desired
        constexpr char NO_SUCH_NAME = static_cast<char>(0x83);
        next.bytes[2] = RESPONSE;
        next.bytes[3] = NO_SUCH_NAME;
        sendto(fd, next.bytes.data(), next.bytes.size(), 0,
               reinterpret_cast<sockaddr*>(&next.asker), sizeof next.asker);
    }

    int fd;
    mutable std::mutex mutex; // guards the next two
    std::deque<query> queries;
    size_t answered = 0;
    std::atomic<bool> ended = false;
    std::thread listener;
};
