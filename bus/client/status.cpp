#include "libubus.h"

namespace {

// In the order of enum ubus_msg_status.
constexpr const char* status_texts[] = {
    "Success",
    "Invalid command",
    "Invalid argument",
    "Method not found",
    "Not found",
    "No response",
    "Permission denied",
    "Request timed out",
    "Operation not supported",
    "Unknown error",
    "Connection failed",
    "Out of memory",
    "Parsing message data failed",
    "System error",
};
static_assert(ARRAY_SIZE(status_texts) == __UBUS_STATUS_LAST);

} // namespace

extern "C" const char* ubus_strerror(int error) {
    static char unknown[sizeof("Unknown error: -2147483648")];
    if (error >= 0 && error < __UBUS_STATUS_LAST) {
        return status_texts[error];
    }
    snprintf(unknown, sizeof(unknown), "Unknown error: %d", error);
    return unknown;
}
