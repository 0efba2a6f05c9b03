// Whether files have been written anew, as certificates are every few weeks.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace relay {

// Asked from time to time. Links are followed, and files may be replaced; paths that are empty are
// left out.
class FileWatch {
public:
    explicit FileWatch(std::vector<std::string> paths);

    // True once after a change, when all files have stayed as they are since the last time that
    // this was asked: a key may be written after its certificate.
    bool has_changed();
    // What is there now is known.
    void forget_changes();

private:
    using Stamp = std::array<std::int64_t, 5>; // of one file; zeros where there is none
    std::vector<Stamp> look() const;

    const std::vector<std::string> paths_;
    std::vector<Stamp> known_;
    std::vector<Stamp> latest_;
};

} // namespace relay
