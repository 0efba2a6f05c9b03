// An option of a UCI file, as the daemon reads it.
//
// Input: the file of a package "system". The option is system.service_port.http_port.

#include "core/uci_option.h"
#include "uci_input.h"

#include <cstring>

namespace {

constexpr size_t OUT_SIZE = 32;

struct option_result {
    int result = 0;
    char text[OUT_SIZE] = "default that is long";

    bool operator==(const option_result&) const = default;
};

option_result read_option(const std::string& file) {
    const uci_input input("system", file);
    option_result option;
    if (input.package() == nullptr) {
        option.result = -1;
        return option;
    }
    option.result = internal::_read_option(input.context(), "system.service_port.http_port",
                                           option.text, sizeof option.text);
    REQUIRE(memchr(option.text, '\0', sizeof option.text) != nullptr);
    REQUIRE(option.result == 0 || strcmp(option.text, option_result().text) == 0);
    return option;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    silence(stderr); // libuci's words
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const option_result option =
        read_option(std::string(reinterpret_cast<const char*>(data), size));
    if (option.result == 0) { // the value read back from a file that was written with it
        REQUIRE(read_option("config x 'service_port'\n\toption 'http_port' " +
                            uci_quoted(option.text) + "\n") == option);
    }
    return 0;
}
