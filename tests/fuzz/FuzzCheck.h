#pragma once

#include <cstdio>
#include <cstdlib>

// A property every input must keep. A broken one aborts, which libFuzzer records as a crash with
// the input that broke it.
#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "%s:%d: FUZZ_CHECK(%s) failed\n", __FILE__, __LINE__,             \
                         #condition);                                                              \
            std::abort();                                                                          \
        }                                                                                          \
    } while (false)
