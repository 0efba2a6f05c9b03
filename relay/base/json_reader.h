// Reads the members of a JSON object that a person wrote, and says in one sentence what is wrong.
#pragma once

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace relay {

// The whole of a file; on failure nothing, and `error` says why.
std::optional<std::string> read_file(const std::string& path, std::string& error);

// The JSON in the text of the file `path`, with comments and trailing commas allowed.
std::optional<boost::json::value> parse_json(std::string_view text, const std::string& path,
                                             std::string& error);

// Takes members out of one object. The first mistake stays in `error`; after it nothing is taken.
// A member that is missing leaves its target as it is.
class JsonReader {
public:
    // `where` stands before a member's name in sentences: "front."; `error` outlives the reader.
    JsonReader(const boost::json::value& value, std::string where, std::string& error);

    bool text(std::string_view key, std::string& target); // true when it was there
    void yes_or_no(std::string_view key, bool& target);
    void whole_number(std::string_view key, std::uint64_t& target, std::uint64_t least,
                      std::uint64_t most);
    const boost::json::value* member(std::string_view key); // null when missing

    template <typename Integer>
    void number(std::string_view key, Integer& target, std::uint64_t least, std::uint64_t most) {
        std::uint64_t value = static_cast<std::uint64_t>(target);
        whole_number(key, value, least, most);
        target = static_cast<Integer>(value);
    }

    template <typename Duration>
    void seconds(std::string_view key, Duration& target, std::uint64_t least, std::uint64_t most) {
        std::uint64_t value = static_cast<std::uint64_t>(target.count());
        whole_number(key, value, least, most);
        target = Duration(value);
    }

    void fail(std::string_view key, std::string_view what);
    // Members that nobody asked for are mistakes. Call it last; true when all was well.
    bool finish();

private:
    const boost::json::object* object_ = nullptr;
    std::string where_;
    std::string& error_;
    std::vector<std::string_view> known_;
};

} // namespace relay
