#include "admin/device_json.h"

#include <cstdio>

namespace relay {

std::string with_escaped_controls(std::string_view json) {
    std::string result;
    bool in_text = false;
    bool escaped = false;
    for (const char c : json) {
        if (in_text && static_cast<unsigned char>(c) < ' ') {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
            result += escape;
            escaped = false;
            continue;
        }
        if (c == '"' && !escaped)
            in_text = !in_text;
        escaped = in_text && c == '\\' && !escaped;
        result += c;
    }
    return result;
}

} // namespace relay
