// For fuzzers of what needs the running library: how it is started, its strings, and what an input
// must have given back in the end.
#pragma once

#include "fuzz.h"

#include "psp/core.h"
#include "psp/mem.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>

// Once, for all inputs.
inline void start_library()
{
    CHECK(psp_init() == sOKAY);
    std::atexit(psp_term);
}

// Bytes that a tag of the block allocator has handed out.
inline std::size_t used_bytes(PSP_MEMTAG tag)
{
    PSP_TAG_MEM_INFO info;
    CHECK(psp_getTagMemInfo(tag, &info) == sOKAY);
    return info.used.current;
}

// Holds the bytes that the global tag has handed out at the end of the scope against those at its
// start: the library's memory is no business of the leak checker's.
class Balance {
  public:
    ~Balance()
    {
        CHECK(used_bytes(PSP_GLOBAL_TAG) == before_);
    }
    Balance() = default;
    Balance(const Balance&) = delete;
    Balance& operator=(const Balance&) = delete;

  private:
    std::size_t before_ = used_bytes(PSP_GLOBAL_TAG);
};

// The text of a string that the library allocated, which is freed; "(null)" when there is none.
inline std::string taken(const char* str, PSP_MEMTAG tag)
{
    const std::string text = str == nullptr ? "(null)" : str;
    psp_freeMem(str, tag, __FILE__, __LINE__);
    return text;
}

// A copy without a byte to spare, so that reading beyond it is seen.
inline std::unique_ptr<char[]> exact(const std::string& text)
{
    std::unique_ptr<char[]> copy(new char[text.size()]);
    std::copy(text.begin(), text.end(), copy.get());
    return copy;
}
