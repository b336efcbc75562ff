// What the tests of the walk over the memory layer share: damage, planted for a while, and how the
// walk must name it.
#pragma once

#include "support/mem_test.h"
#include "support/mem_walk.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace psptest {

// A value in a record, until the end of the scope.
template <class T>
class Planted {
  public:
    Planted(T& place, std::type_identity_t<T> value) : place_(place), before_(place)
    {
        place_ = value;
    }
    ~Planted()
    {
        place_ = before_;
    }
    Planted(const Planted&) = delete;
    Planted& operator=(const Planted&) = delete;

  private:
    T& place_;
    T before_;
};

inline void expect_damage(const MEM_WALK& walk, MEM_DAMAGE damage, const void* place)
{
    EXPECT_EQ(walk.damage, damage) << ::testing::PrintToString(walk);
    EXPECT_EQ(walk.place, place) << ::testing::PrintToString(walk);
}

template <class T>
T* moved_by(T* ptr, std::ptrdiff_t bytes)
{
    return reinterpret_cast<T*>(reinterpret_cast<std::uintptr_t>(ptr) +
                                static_cast<std::uintptr_t>(bytes));
}

inline LARGE_BLOCK_HDR* large_header(void* chunk)
{
    return static_cast<LARGE_BLOCK_HDR*>(chunk) - 1;
}

alignas(16) inline unsigned char nowhere[64]; // no part of any allocator

// The library is not started: nothing else uses the large-block layer.
class Walk : public ::testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(LargeBlock.chunks, nullptr);
    }
    void TearDown() override
    {
        EXPECT_EQ(LargeBlock.chunks, nullptr);
        expect_sound_large_blocks();
    }
};

} // namespace psptest
