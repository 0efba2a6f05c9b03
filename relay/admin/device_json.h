// JSON that a device wrote, made fit for strict readers.
#pragma once

#include <string>
#include <string_view>

namespace relay {

// A device does not escape the token it prints, which often ends in a line feed: control characters
// within texts become escapes here. Nothing else is changed.
std::string with_escaped_controls(std::string_view json);

} // namespace relay
