#pragma once

#include <cstdlib>
#include <gtest/gtest.h>

// Skips a test because the machine lacks something, which the text names. In CI, where the variable
// CI is set, nothing may be missing, and the test fails.
#define SKIP_LACKING(text)                                                                         \
    do {                                                                                           \
        const char* ci = getenv("CI");                                                             \
        if (ci != nullptr && *ci != '\0') {                                                        \
            FAIL() << "in CI nothing may be missing: " << (text);                                  \
        }                                                                                          \
        GTEST_SKIP() << (text);                                                                    \
    } while (false)
