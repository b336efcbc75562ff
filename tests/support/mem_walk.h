// Holds records of the memory layer sound where the library can walk over them: in checked builds.
// In others there is nothing to call, and these do nothing.
#pragma once

#include "psp_mem_data_int.h"

#ifdef PSP_CHECKED
#include "psp_mem_walk.h"

#include <gtest/gtest.h>

#include <ostream>

inline void PrintTo(const MEM_WALK& walk, std::ostream* out)
{
    *out << "damage " << static_cast<int>(walk.damage) << " at " << walk.place;
}

namespace psptest {

inline void expect_sound(const MEM_WALK& walk)
{
    EXPECT_EQ(walk.damage, MEM_DAMAGE::NONE) << ::testing::PrintToString(walk);
}
inline void expect_sound(const LIST_ALLOCATOR_ENTRY& entry)
{
    expect_sound(psp_walkList(&entry));
}
inline void expect_sound(const BLOCK_ALLOCATOR_ENTRY& entry)
{
    expect_sound(psp_walkBlock(&entry));
}
inline void expect_sound(const STACK_ALLOCATOR_ENTRY& entry)
{
    expect_sound(psp_walkStack(&entry));
}
inline void expect_sound(const LEGACY_ALLOCATOR_ENTRY& entry)
{
    expect_sound(psp_walkLegacy(&entry));
}
inline void expect_sound(const PSP_POOL_CTX& pool)
{
    expect_sound(psp_walkPool(&pool));
}
inline void expect_sound_large_blocks()
{
    expect_sound(psp_walkLargeBlocks());
}
inline void expect_sound_memory()
{
    expect_sound(psp_walkMemory());
}

} // namespace psptest

#else

namespace psptest {

template <class Record>
void expect_sound(const Record&)
{
}
inline void expect_sound_large_blocks() {}
inline void expect_sound_memory() {}

} // namespace psptest

#endif
