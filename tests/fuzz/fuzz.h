// What the fuzzers share: how an input is read, and a check that ends the process, so that the
// input is kept.
#pragma once

#include "provider.h"

#include <cstdio>
#include <cstdlib>

#define CHECK(condition)                                                                           \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition);           \
            std::abort();                                                                          \
        }                                                                                          \
    } while (false)
