#include "core/uci_option.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <uci.h>

#include "core/log.h"

namespace {

constexpr size_t PATH_SIZE = 256;

struct uci_context_deleter {
    void operator()(uci_context* context) const { uci_free_context(context); }
};

// The looked-up option's text, or null: the path may lead to a section, or to a list of values.
const char* _option_text(const uci_ptr& found) {
    bool isText = (found.flags & uci_ptr::UCI_LOOKUP_COMPLETE) != 0 && found.o != nullptr &&
                  found.o->type == UCI_TYPE_STRING;
    return isText ? found.o->v.string : nullptr;
}

} // namespace

int readUCI(const char* str, char* out, size_t size) {
    ENSURE(str != NULL, -1);
    uci_context* context = uci_alloc_context();
    ENSURE(context != NULL, -1);
    std::unique_ptr<uci_context, uci_context_deleter> owner(context);

    // libuci cuts the path at its dots in place.
    char path[PATH_SIZE] = {};
    memcpy(path, str, strnlen(str, sizeof path - 1));
    uci_ptr found = {};
    if (uci_lookup_ptr(context, &found, path, true) != UCI_OK) {
        uci_perror(context, "read UCI file error");
        return -1;
    }
    const char* value = _option_text(found);
    if (value == nullptr) {
        context->err = UCI_ERR_NOTFOUND;
        uci_perror(context, "do not find the option");
        return -1;
    }
    memcpy(out, value, std::min(strlen(value), size - 1));
    return 0;
}
