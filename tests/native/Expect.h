#pragma once

// The check of the native tests: a failed EXPECT prints where, and counts.
#include <cstdio>

static int failures = 0;

#define EXPECT(condition)                                                                    \
    do {                                                                                     \
        if (!(condition)) {                                                                  \
            std::fprintf(stderr, "%s:%d: expected %s\n", __FILE__, __LINE__, #condition);   \
            ++failures;                                                                      \
        }                                                                                    \
    } while (false)
