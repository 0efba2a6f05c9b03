#pragma once

#include <string>

// A scripted web server on plain TCP: it does what the test tells it, on the test's thread.
//
//     web_peer web;                                  // listens; connections queue up by themselves
//     ... the code under test connects and writes ...
//     web_connection exchange = web.accept();
//     EXPECT_EQ(exchange.read_exact(5), "GET /");
//     exchange.answer("HTTP/1.0 200 OK\r\n\r\n");
//     exchange.close();

// One accepted connection; closed at the end of its scope. Without verbs it stays open for ever.
class web_connection {
public:
    explicit web_connection(int fd);
    ~web_connection();
    web_connection(web_connection&& other) noexcept;
    web_connection& operator=(web_connection&& other) noexcept;

    std::string read_exact(size_t count);           // fewer at the connection's end
    std::string read_until(const std::string& end); // through `end`, or what came before it closed
    std::string read_to_end();                      // until the other side closes
    bool is_at_end();                               // waits; false for data, or when nothing comes
    bool answer(const std::string& bytes);          // false when the connection is gone
    void finish();                                  // ends the answer, keeps reading
    void close();
    void reset();
    int fd() const { return socket; }

private:
    int socket;
};

class web_peer {
public:
    // At `port`, or a free one.
    explicit web_peer(int port = 0);
    ~web_peer();
    web_peer(const web_peer&) = delete;
    web_peer& operator=(const web_peer&) = delete;

    int port() const;
    web_connection accept();      // the next connection; waits for it
    bool is_called(int withinMs); // whether somebody connects; leaves the connection in the queue

private:
    int listener;
};
