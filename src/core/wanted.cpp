#include "core/wanted.h"

namespace {

constinit thread_local thread_wishes_t wishesOfThread = {};

bool _is_set(const std::atomic<int>* flag) {
    return flag != nullptr && *flag != 0;
}

} // namespace

void thread_wishes_set(thread_wishes_t wishes) {
    wishesOfThread = wishes;
}

bool is_stop_wanted() {
    return _is_set(wishesOfThread.stop) || is_let_go();
}

bool is_let_go() {
    return _is_set(wishesOfThread.letGo);
}
