#include "recording.h"

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

std::vector<RecordedRead> load_recording(const std::string& name) {
    std::ifstream file(std::string(RECORDINGS) + "/" + name);
    EXPECT_TRUE(file.is_open()) << name;
    std::vector<RecordedRead> reads;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        std::istringstream fields(line);
        int connection = 0;
        std::string direction;
        std::string hex;
        fields >> connection >> direction >> hex;
        reads.push_back({connection, direction == "broker->client", from_hex(hex)});
    }
    EXPECT_FALSE(reads.empty()) << name;
    return reads;
}

std::vector<RecordedRead> load_connection(const std::string& name, int connection) {
    std::vector<RecordedRead> own;
    for (const RecordedRead& read : load_recording(name)) {
        if (read.connection == connection) {
            own.push_back(read);
        }
    }
    EXPECT_FALSE(own.empty()) << name << " has no connection " << connection;
    return own;
}
