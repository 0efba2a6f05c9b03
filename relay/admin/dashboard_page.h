// The dashboard, made from dashboard.html when the relay is built.
#pragma once

namespace relay {

extern const char dashboard_page[];
// What the page may load and run: itself.
extern const char dashboard_policy[];

} // namespace relay
