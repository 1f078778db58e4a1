// Shared helpers of the fuzz targets: a check that stops the run with a message,
// and a few readers over the input bytes.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>

// A failed expectation is a finding: print where and why, then abort so that the
// fuzzer keeps the input.
#define FUZZ_CHECK(cond, ...)                                                      \
    do {                                                                           \
        if (!(cond)) {                                                             \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            std::fprintf(stderr, "  " __VA_ARGS__);                                \
            std::fprintf(stderr, "\n");                                            \
            std::abort();                                                          \
        }                                                                          \
    } while (0)
