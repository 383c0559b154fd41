// An invariant a fuzz target checks on a parsed value: a broken one aborts, so that libFuzzer
// keeps the input as a finding like any sanitizer report.
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition)                                                                       \
    do {                                                                                            \
        if (!(condition)) {                                                                         \
            std::fprintf(stderr, "invariant broken at %s:%d: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                           \
        }                                                                                           \
    } while (0)

#include <cstddef>
#include <cstring>

// memcmp that takes empty ranges (whose pointers may be null).
inline bool sameBytes(const void* a, const void* b, size_t length) {
    return length == 0 || std::memcmp(a, b, length) == 0;
}
