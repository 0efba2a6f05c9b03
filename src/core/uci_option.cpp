#include "core/uci_option.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <pthread.h>
#include <sys/stat.h>
#include <uci.h>

#include "core/log.h"
#include "core/mutex_guard.h"

namespace {

constexpr size_t PATH_SIZE = 256;

// Where libuci looks for a package, in the places of uci_cache_t::files.
#ifndef UCI_CONF2DIR
#define UCI_CONF2DIR "" // older releases know no such folder
#endif
constexpr const char* PACKAGE_FOLDERS[] = {UCI_CONFDIR, UCI_SAVEDIR, UCI_CONF2DIR};
static_assert(sizeof PACKAGE_FOLDERS / sizeof PACKAGE_FOLDERS[0] ==
              sizeof uci_cache_t::files / sizeof(uci_file_state_t));

// A file that changed within this time before it was read may change again without a trace: its
// times are counted in the kernel's ticks.
constexpr int64_t SETTLED_NS = 2'000'000'000;
constexpr int64_t NS_PER_SECOND = 1'000'000'000;

struct uci_context_deleter {
    void operator()(uci_context* context) const { uci_free_context(context); }
};

// libuci enters its one backend for files into the list of each context that it makes.
pthread_mutex_t uciMutex = PTHREAD_MUTEX_INITIALIZER;

// Prints what uci_perror prints. That one adds a line end to a static buffer at every call, and in
// time writes beyond it.
void _print_error(uci_context* context, const char* prefix) {
    char* words = nullptr;
    uci_get_errorstr(context, &words, prefix);
    if (words != nullptr) {
        fprintf(stderr, "%s\n", words);
    }
    free(words);
}

// The looked-up option's text, or null: the path may lead to a section, or to a list of values.
const char* _option_text(const uci_ptr& found) {
    bool isText = (found.flags & uci_ptr::UCI_LOOKUP_COMPLETE) != 0 && found.o != nullptr &&
                  found.o->type == UCI_TYPE_STRING;
    return isText ? found.o->v.string : nullptr;
}

int64_t _nanoseconds(const timespec& time) {
    return int64_t{time.tv_sec} * NS_PER_SECOND + time.tv_nsec;
}

// False when the file may be there and cannot be looked at.
bool _look_at_file(const char* folder, const char* package, uci_file_state_t* state) {
    char path[2 * PATH_SIZE];
    snprintf(path, sizeof path, "%s/%s", folder, package);
    struct stat file = {};
    if (folder[0] == '\0' || stat(path, &file) != 0) {
        *state = {};
        return folder[0] == '\0' || errno == ENOENT || errno == ENOTDIR;
    }
    *state = {file.st_ino, file.st_size, _nanoseconds(file.st_mtim), _nanoseconds(file.st_ctim)};
    return true;
}

// Looks at the files of the package that `str` begins with. False when one of them may change again
// without its times telling.
bool _look_at_files(const char* str, uci_cache_t* seen) {
    char package[PATH_SIZE] = {};
    memcpy(package, str, std::min(strcspn(str, "."), sizeof package - 1));
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    bool isSettled = true;
    uci_file_state_t* state = seen->files;
    for (const char* folder : PACKAGE_FOLDERS) {
        bool isKnown = _look_at_file(folder, package, state);
        isSettled = isSettled && isKnown && _nanoseconds(now) - state->changed > SETTLED_NS;
        state++;
    }
    return isSettled;
}

} // namespace

int readUCI(const char* str, char* out, size_t size) {
    ENSURE(str != NULL, -1);
    mutex_guard guard(&uciMutex);
    uci_context* context = uci_alloc_context();
    ENSURE(context != NULL, -1);
    std::unique_ptr<uci_context, uci_context_deleter> owner(context);
    return internal::_read_option(context, str, out, size);
}

int internal::_read_option(uci_context* context, const char* str, char* out, size_t size) {
    // libuci cuts the path at its dots in place.
    char path[PATH_SIZE] = {};
    memcpy(path, str, strnlen(str, sizeof path - 1));
    uci_ptr found = {};
    if (uci_lookup_ptr(context, &found, path, true) != UCI_OK) {
        _print_error(context, "read UCI file error");
        return -1;
    }
    const char* value = _option_text(found);
    if (value == nullptr) {
        context->err = UCI_ERR_NOTFOUND;
        _print_error(context, "do not find the option");
        return -1;
    }
    memcpy(out, value, std::min(strlen(value), size - 1));
    return 0;
}

int readUCI(const char* str, char* out, size_t size, uci_cache_t* cache) {
    ENSURE(str != NULL, -1);
    uci_cache_t seen = {};
    bool isSettled = _look_at_files(str, &seen);
    if (!cache->isFilled || !std::equal(seen.files, std::end(seen.files), cache->files)) {
        *cache = {};
        int result = readUCI(str, seen.value);
        if (result != 0) {
            return result;
        }
        seen.isFilled = isSettled;
        *cache = seen;
    }
    memcpy(out, cache->value, std::min(strlen(cache->value), size - 1));
    return 0;
}
