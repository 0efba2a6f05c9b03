// The recorded bytes of stock peers.
#pragma once

#include <string>
#include <vector>

#include "raw_peer.h"

struct RecordedRead {
    int connection;
    bool from_broker;
    Bytes bytes;
};

// All lines of data/NAME, in the order in which they were seen.
std::vector<RecordedRead> load_recording(const std::string& name);

// Those of one connection.
std::vector<RecordedRead> load_connection(const std::string& name, int connection);
