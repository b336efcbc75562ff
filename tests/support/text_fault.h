// What the fault tests of text streams and of output share: a fixture that sees what was lost, and
// ways to let allocations jump and to find out whether a lock is held.
#pragma once

#include "support/fault_test.h"
#include "support/mem_test.h"
#include "support/text_test.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>

namespace psptest {

// Runs `body` in another thread, which gets into every stack that nobody holds.
template <class Body>
void expect_enterable(Body body)
{
    std::promise<void> done;
    std::future<void> entered = done.get_future();
    std::thread thread([&] {
        body();
        done.set_value();
    });
    if (entered.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
        ADD_FAILURE() << "a lock is held";
        std::fflush(nullptr);
        std::abort();
    }
    thread.join();
}

// What a test took from the library must be back at its end.
class TextFault : public FaultTest {
  protected:
    void SetUp() override
    {
        FaultTest::SetUp();
        Stream(dir_ / "warm", "w").close();
        psp_freeMem(get(8, PSP_THREAD_TAG), PSP_THREAD_TAG, __FILE__, __LINE__);
        global_ = global_bytes();
    }
    static std::size_t global_bytes()
    {
        return info_of(PSP_GLOBAL_TAG).used.current;
    }
    void expect_nothing_lost()
    {
        EXPECT_EQ(global_bytes(), global_);
    }
    // Lets failed allocations under `tag` jump while `attempt` runs: true when it did jump.
    template <class Attempt>
    bool jumps(PSP_MEMTAG tag, Attempt attempt)
    {
        static jmp_buf buffer;
        psp_resetTag(&buffer, tag);
        const int value = jumped_with(buffer, attempt);
        psp_resetTag(nullptr, tag);
        EXPECT_TRUE(value == 0 || value == 1);
        return value == 1;
    }

    const TempDir dir_;
    const std::string path_ = dir_ / "f";
    std::size_t global_ = 0;
};

} // namespace psptest
