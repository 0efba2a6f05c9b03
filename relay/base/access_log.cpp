#include "base/access_log.h"

#include "base/log.h"
#include "base/text.h"

#include <boost/json/serialize.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace relay {
namespace {

constexpr std::size_t flush_bytes = 64 << 10;
constexpr std::chrono::seconds patience{2};

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

void append(std::string& lines, const AccessRecord& record) {
    char milliseconds[32];
    std::snprintf(milliseconds, sizeof milliseconds, "%.3f", record.duration.count());
    lines += "{\"time\":\"" + iso_time(record.time) + "\"";
    append(lines, "user", record.user);
    append(lines, "device", record.device);
    append(lines, "method", record.method);
    append(lines, "target", record.target);
    append(lines, "status", record.status);
    append(lines, "request_bytes", record.request_bytes);
    append(lines, "answer_bytes", record.answer_bytes);
    lines += ",\"ms\":";
    lines += milliseconds;
    if (!record.note.empty())
        append(lines, "note", record.note);
    lines += "}\n";
}

} // namespace

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
    std::unique_ptr<BackgroundWriter> writer;
    try {
        if (file >= 0)
            writer = std::make_unique<BackgroundWriter>(
                [lines = std::make_shared<LineFile>(file, "access log", lost_)](
                    std::string_view text) { lines->write(text); });
    } catch (const std::system_error& failure) {
        error = path + " cannot be written: " + failure.what();
        return false;
    }
    writer_ = std::move(writer);
    return true;
}

void AccessLog::add(const AccessRecord& record) {
    if (!writer_)
        return;
    const std::size_t before = lines_.size();
    try {
        append(lines_, record);
    } catch (...) {
        lines_.resize(before); // or the next line would follow a part of this one
        throw;
    }
    if (lines_.size() >= flush_bytes)
        flush();
}

void AccessLog::flush() {
    if (!writer_ || lines_.empty())
        return;
    const bool was_behind = std::exchange(is_behind_, !writer_->add(lines_));
    if (is_behind_)
        *lost_ += static_cast<std::uint64_t>(std::count(lines_.begin(), lines_.end(), '\n'));
    if (is_behind_ && !was_behind)
        log::error("lines of the access log are lost: they come faster than they are written");
    lines_.clear();
}

void AccessLog::finish() {
    flush();
    if (writer_)
        writer_->finish(patience);
}

} // namespace relay
