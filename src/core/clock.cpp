#include "core/clock.h"

#include <cstdio>
#include <ctime>
#include <sys/time.h>

#include "core/text.h"

namespace {

constexpr int NS_PER_MS = 1000000;
constexpr size_t TIME_TEXT_LENGTH = 23; // "YYYY-MM-DD hh:mm:ss.mmm"
constexpr size_t WIDEST_TIME_TEXT = 96; // for seven ints of any value

} // namespace

int64_t cloud_now_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * MS_PER_SECOND + now.tv_nsec / NS_PER_MS;
}

char* cloud_time_str() {
    timeval now = {};
    gettimeofday(&now, nullptr);
    tm local = {};
    if (localtime_r(&now.tv_sec, &local) == nullptr) {
        return nullptr;
    }
    char text[WIDEST_TIME_TEXT] = {};
    snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d", local.tm_year + 1900,
             local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
             static_cast<int>(now.tv_usec / US_PER_MS));
    return cloud_string_ndup(text, TIME_TEXT_LENGTH);
}
