#include "base/json_reader.h"

#include <boost/json/serialize.hpp>
#include <boost/json/stream_parser.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>

namespace relay {

namespace json = boost::json;

std::optional<std::string> read_file(const std::string& path, std::string& error) {
    std::ifstream file(path, std::ios::binary);
    std::string text;
    std::array<char, 4096> piece;
    while (file.read(piece.data(), piece.size()) || file.gcount() > 0)
        text.append(piece.data(), static_cast<std::size_t>(file.gcount()));
    // A folder opens but cannot be read.
    if (!file.is_open() || file.bad()) {
        error = path + " cannot be read: " + std::strerror(errno);
        return std::nullopt;
    }
    return text;
}

std::optional<json::value> parse_json(std::string_view text, const std::string& path,
                                      std::string& error) {
    json::parse_options options;
    options.allow_comments = true;
    options.allow_trailing_commas = true;
    json::stream_parser parser({}, options);
    json::error_code code;
    // Behind an unfinished comment the parser counts more bytes than there are.
    const auto taken = std::min(parser.write_some(text, code), text.size());
    if (!code && taken == text.size())
        parser.finish(code);
    else if (!code)
        code = json::error::extra_data;
    if (code) {
        const auto line =
            std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(taken), '\n') + 1;
        error =
            path + " is not valid JSON near line " + std::to_string(line) + ": " + code.message();
        return std::nullopt;
    }
    return parser.release();
}

JsonReader::JsonReader(const json::value& value, std::string where, std::string& error)
    : object_(value.if_object()), where_(std::move(where)), error_(error) {
    if (!object_ && error_.empty())
        error_ = where_.empty() ? "it must be a JSON object"
                                : where_.substr(0, where_.size() - 1) + " must be a JSON object";
}

const json::value* JsonReader::member(std::string_view key) {
    known_.push_back(key);
    if (!object_ || !error_.empty())
        return nullptr;
    return object_->if_contains(key);
}

void JsonReader::fail(std::string_view key, std::string_view what) {
    if (!error_.empty())
        return;
    error_ = where_;
    error_ += key;
    if (const auto* value = object_ ? object_->if_contains(key) : nullptr)
        error_ += " is " + json::serialize(*value) + "; it";
    error_ += " ";
    error_ += what;
}

bool JsonReader::text(std::string_view key, std::string& target) {
    const auto* value = member(key);
    if (!value)
        return false;
    const auto* text = value->if_string();
    if (!text) {
        fail(key, "must be a text");
        return false;
    }
    target.assign(text->data(), text->size());
    return true;
}

void JsonReader::yes_or_no(std::string_view key, bool& target) {
    const auto* value = member(key);
    if (!value)
        return;
    if (const auto* given = value->if_bool())
        target = *given;
    else
        fail(key, "must be true or false");
}

void JsonReader::whole_number(std::string_view key, std::uint64_t& target, std::uint64_t least,
                              std::uint64_t most) {
    const auto* value = member(key);
    if (!value)
        return;
    json::error_code wrong;
    const auto number = value->to_number<std::uint64_t>(wrong);
    if (wrong || number < least || number > most)
        fail(key, "must be a whole number from " + std::to_string(least) + " to " +
                      std::to_string(most));
    else
        target = number;
}

bool JsonReader::finish() {
    if (object_ && error_.empty())
        for (const auto& entry : *object_)
            if (std::find(known_.begin(), known_.end(), std::string_view(entry.key())) ==
                known_.end()) {
                error_ = "unknown option " + where_ + std::string(entry.key());
                break;
            }
    return error_.empty();
}

} // namespace relay
