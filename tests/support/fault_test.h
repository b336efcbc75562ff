// Fixtures of the fault tests: whatever a test made fail or replaced, its end and the next test
// have the real calls.
#pragma once

#include "fault/faults.h"
#include "support/psp_test.h"

#include "psp/time.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace psptest {

class FaultTest : public PspTest {
  protected:
    void TearDown() override
    {
        Fault::clear();
        PspTest::TearDown();
    }
};

// Every test ends with no block of the heap lost.
class HeapFaultTest : public FaultTest {
  protected:
    void TearDown() override
    {
        FaultTest::TearDown();
        EXPECT_EQ(live_heap_blocks(), blocks_);
    }

  private:
    long blocks_ = live_heap_blocks();
};

// For tests that choose the clock of intervals.
class ClockFaultTest : public FaultTest {
  protected:
    void SetUp() override
    {
        FaultTest::SetUp();
        choice_ = gUseMonotonicClock;
    }
    void TearDown() override
    {
        gUseMonotonicClock = choice_;
        FaultTest::TearDown();
    }

  private:
    std::int32_t choice_ = 0;
};

} // namespace psptest
