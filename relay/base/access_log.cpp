#include "base/access_log.h"

#include "base/log.h"
#include "base/text.h"

#include <boost/json/serialize.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace relay {
namespace {

constexpr std::size_t flush_bytes = 64 << 10;

// A target may hold any bytes, JSON only UTF-8: bytes that are no ASCII are written as the
// characters of Latin-1.
std::string quoted(std::string_view text) {
    std::string result;
    for (const char c :
         boost::json::serialize(boost::json::string_view(text.data(), text.size()))) {
        const auto byte = static_cast<unsigned char>(c);
        char escape[8];
        if (byte < 0x80)
            result += c;
        else
            result.append(escape, std::snprintf(escape, sizeof escape, "\\u%04x", byte));
    }
    return result;
}

void append(std::string& line, std::string_view key, std::string_view text) {
    line += ",\"";
    line += key;
    line += "\":";
    line += quoted(text);
}

void append(std::string& line, std::string_view key, std::uint64_t number) {
    line += ",\"";
    line += key;
    line += "\":";
    line += std::to_string(number);
}

} // namespace

AccessLog::~AccessLog() {
    flush();
    if (file_ > STDERR_FILENO)
        close(file_);
}

bool AccessLog::open(const std::string& path, std::string& error) {
    flush();
    int file = -1;
    if (path == "-")
        file = STDOUT_FILENO;
    else if (!path.empty())
        file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    if (file < 0 && !path.empty()) {
        error = path + " cannot be written: " + std::strerror(errno);
        return false;
    }
    if (file_ > STDERR_FILENO)
        close(file_);
    file_ = file;
    lines_.clear(); // the rest of a cut line belongs to the former file
    is_cut_ = false;
    return true;
}

void AccessLog::add(const AccessRecord& record) {
    if (file_ < 0)
        return;
    char milliseconds[32];
    std::snprintf(milliseconds, sizeof milliseconds, "%.3f", record.duration.count());
    lines_ += "{\"time\":\"" + iso_time(record.time) + "\"";
    append(lines_, "user", record.user);
    append(lines_, "device", record.device);
    append(lines_, "method", record.method);
    append(lines_, "target", record.target);
    append(lines_, "status", record.status);
    append(lines_, "request_bytes", record.request_bytes);
    append(lines_, "answer_bytes", record.answer_bytes);
    lines_ += ",\"ms\":";
    lines_ += milliseconds;
    if (!record.note.empty())
        append(lines_, "note", record.note);
    lines_ += "}\n";
    if (lines_.size() >= flush_bytes)
        flush();
}

// A reader that is gone, or a full disk, must not stop the relay: lines are lost then, but none is
// cut. The rest of a line of which the file took a part leads the next flush.
void AccessLog::flush() {
    if (file_ < 0 || lines_.empty())
        return;
    const bool begins_within_line = is_cut_;
    const auto written = write(file_, lines_.data(), lines_.size());
    const int reason = errno;
    const std::size_t taken = written > 0 ? static_cast<std::size_t>(written) : 0;
    const bool is_whole = taken == lines_.size();
    is_cut_ = taken > 0 ? lines_[taken - 1] != '\n' : begins_within_line;
    lines_.erase(0, taken);
    lines_.resize(is_cut_ ? lines_.find('\n') + 1 : 0);
    if (is_whole == is_losing_) {
        is_losing_ = !is_whole;
        if (is_whole)
            log::info("the access log is written again");
        else
            log::error("lines of the access log are lost: ",
                       written < 0 ? std::strerror(reason) : "a part of them was written");
    }
}

} // namespace relay
