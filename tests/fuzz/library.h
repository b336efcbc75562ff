// For fuzzers of what needs the running library: how it is started, and what an input must have
// given back in the end.
#pragma once

#include "fuzz.h"

#include "psp/core.h"
#include "psp/mem.h"

#include <cstddef>

// Once, for all inputs.
inline void start_library()
{
    CHECK(psp_init() == sOKAY);
    std::atexit(psp_term);
}

// Holds the bytes that the global tag has handed out at the end of the scope against those at its
// start: the library's memory is no business of the leak checker's.
class Balance {
  public:
    ~Balance()
    {
        CHECK(in_use() == before_);
    }
    Balance() = default;
    Balance(const Balance&) = delete;
    Balance& operator=(const Balance&) = delete;

  private:
    static std::size_t in_use()
    {
        PSP_TAG_MEM_INFO info;
        CHECK(psp_getTagMemInfo(PSP_GLOBAL_TAG, &info) == sOKAY);
        return info.used.current;
    }

    std::size_t before_ = in_use();
};
