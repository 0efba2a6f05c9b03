#include "base/line_file.h"

#include "base/log.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <unistd.h>

namespace relay {

LineFile::LineFile(int descriptor, std::string name, LostLines lost)
    : descriptor_(descriptor), name_(std::move(name)), lost_(std::move(lost)) {}

LineFile::~LineFile() {
    if (descriptor_ > STDERR_FILENO)
        close(descriptor_);
}

void LineFile::write(std::string_view lines) {
    const std::string text = rest_ + std::string(lines);
    const auto written = ::write(descriptor_, text.data(), text.size());
    const int reason = errno;
    const std::size_t taken = written > 0 ? static_cast<std::size_t>(written) : 0;
    const bool is_cut = taken > 0 ? text[taken - 1] != '\n' : !rest_.empty();
    const std::size_t kept = is_cut ? text.find('\n', taken) + 1 : taken;
    rest_ = text.substr(taken, kept - taken);
    *lost_ += static_cast<std::uint64_t>(
        std::count(text.begin() + static_cast<std::ptrdiff_t>(kept), text.end(), '\n'));
    note(taken < text.size(), written < 0 ? std::strerror(reason) : "a part of them was written");
}

void LineFile::note(bool is_losing, const char* why) {
    if (is_losing == is_losing_)
        return;
    is_losing_ = is_losing;
    if (is_losing)
        log::error("lines of the ", name_, " are lost: ", why);
    else
        log::info("the ", name_, " is written again");
}

} // namespace relay
