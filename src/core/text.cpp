#include "core/text.h"

#include <cstdlib>
#include <cstring>

char* cloud_string_dup(const char* text) {
    return cloud_string_ndup(text, strlen(text));
}

char* cloud_string_ndup(const void* bytes, size_t n) {
    char* copy = static_cast<char*>(malloc(n + 1));
    if (copy == nullptr) {
        return nullptr;
    }
    memcpy(copy, bytes, n);
    copy[n] = '\0';
    return copy;
}
