// Plays the broker's side of a recorded connection to the library, and compares what the library
// sends with what the stock client sent, byte for byte.
#pragma once

#include <string>
#include <thread>

#include "recording.h"

class Playback {
public:
    Playback(const std::string& recording, int connection);
    ~Playback(); // expects that the client sent all, and closed without a byte more
    Playback(const Playback&) = delete;
    Playback& operator=(const Playback&) = delete;

    const char* socket() const { return m_socket.c_str(); }

    // Closes the broker's side once all is played, for a client that runs uloop until then.
    void hang_up_at_the_end() { m_hang_up = true; }

    void start() { m_thread = std::thread(&Playback::play, this); }

private:
    void play();

    std::vector<RecordedRead> m_reads;
    std::string m_folder;
    std::string m_socket;
    int m_listener;
    bool m_hang_up = false;
    std::thread m_thread;
};
