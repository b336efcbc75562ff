// Named globals and object pools when memory runs out: the code that is told, nothing lost, no lock
// held, and both usable afterwards.
#include "support/fault_test.h"
#include "support/mem_test.h"

#include "psp/global.h"
#include "psp/pool.h"
#include "psp_file_int.h"
#include "psp_mem_data_int.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

using namespace psptest;

namespace {

class OwnerFault : public HeapFaultTest {};

class RegistryFault : public OwnerFault {};
class PoolFault : public OwnerFault {};

// ---- Named globals ----

int deletions = 0;

void count_deletion(void*)
{
    deletions++;
}

ZYN_RETCODE get_global(const std::string& name, void** block)
{
    return psp_globalGet(name.c_str(), 100, nullptr, count_deletion, block);
}

TEST_F(RegistryFault, GlobalWithoutMemoryIsNotThereAndHoldsNoLock)
{
    void* other = nullptr;
    ASSERT_EQ(get_global("other", &other), sOKAY); // the list has room for four more
    const std::size_t used = info_of(PSP_GLOBAL_TAG).used.current;
    for (const bool forever : {false, true}) {
        const int runs = fail_every_call("tag_alloc", forever, [&](Fault& fault, int n) {
            void* block = &block;
            const std::string name = "new" + std::to_string(n) + (forever ? "f" : "o");
            const ZYN_RETCODE code = get_global(name, &block);
            fault.disarm();
            if (fault.failures() == 0)
                return; // made; it stays
            EXPECT_EQ(code, eNOMEMORY);
            EXPECT_EQ(block, &block);
            // 100 bytes and "new3o", made when the first loop came to its end
            EXPECT_EQ(info_of(PSP_GLOBAL_TAG).used.current, used + (forever ? 106u : 0u));
            std::thread([&] {
                void* found = nullptr;
                EXPECT_EQ(get_global("other", &found), sOKAY);
                EXPECT_EQ(found, other);
            }).join();
        });
        EXPECT_EQ(runs, 2) << "the block and the name";
    }
    deletions = 0;
    psp_term();
    EXPECT_EQ(deletions, 3) << "the first one and the two that were made in the end";
    ASSERT_EQ(psp_init(), sOKAY);
}

// Makes globals until their list is full, whatever it held before, and gives their blocks.
std::vector<void*> fill_list_of_globals()
{
    std::vector<void*> blocks;
    bool grown = false;
    for (int left = 4; left > 0;) {
        Fault count("tag_alloc");
        void* block = nullptr;
        EXPECT_EQ(get_global("fill" + std::to_string(blocks.size()), &block), sOKAY);
        blocks.push_back(block);
        if (grown)
            left--;
        grown = grown || count.calls() == 3; // the list, by five places; the block; the name
        if (blocks.size() > 20) {
            ADD_FAILURE() << "the list never grew";
            break;
        }
    }
    return blocks;
}

TEST_F(RegistryFault, GlobalsAreForgottenWhenTheirListCannotGrow)
{
    for (const bool forever : {true, false}) {
        const std::vector<void*> old = fill_list_of_globals();
        const std::size_t used = info_of(PSP_GLOBAL_TAG).used.current;
        Fault fault("tag_alloc", 1, forever);
        void* block = &block;
        EXPECT_EQ(get_global("f", &block), eNOMEMORY);
        EXPECT_EQ(block, &block);
        EXPECT_EQ(fault.failures(), 1);
        EXPECT_LT(info_of(PSP_GLOBAL_TAG).used.current, used) << "the list itself is freed";
        if (forever) { // and again, from whatever state that left
            EXPECT_EQ(get_global("g", &block), eNOMEMORY);
            EXPECT_EQ(get_global("fill0", &block), eNOMEMORY) << "it is not known any more";
        }
        fault.disarm();
        // Later calls start from an empty list, from any thread.
        const char* const names[] = {"fill0", "fill1", "f", "a", "b", "c", "d", "e", "g", "h", "i"};
        for (const char* name : names) {
            void* made = nullptr;
            std::thread([&] { EXPECT_EQ(get_global(name, &made), sOKAY); }).join();
            EXPECT_EQ(std::count(old.begin(), old.end(), made), 0);
            EXPECT_TRUE(holds(made, 100, 0));
            void* again = nullptr;
            EXPECT_EQ(get_global(name, &again), sOKAY);
            EXPECT_EQ(again, made);
        }
        deletions = 0;
        psp_term();
        EXPECT_EQ(deletions, 11) << "those forgotten are not called";
        ASSERT_EQ(psp_init(), sOKAY);
    }
}

TEST_F(RegistryFault, TheFileLayerAsksAnewWhenTheListIsLost)
{
    ASSERT_NE(psp_fileGlobals(), nullptr);
    fill_list_of_globals();
    const PSP_FILE_GLOBALS* const before = psp_fileGlobals();
    void* block = nullptr;
    {
        const Fault fault("tag_alloc", 1);
        EXPECT_EQ(psp_fileGlobals(), before) << "as long as nothing is removed";
        EXPECT_EQ(get_global("f", &block), eNOMEMORY);
    }
    const PSP_FILE_GLOBALS* const after = psp_fileGlobals();
    EXPECT_NE(after, before);
    EXPECT_EQ(get_global("pspfile", &block), sOKAY);
    EXPECT_EQ(block, after);
}

// Registers five names, and between them fails to. With a list that has room for fewer, one of the
// failures is that of the list, which forgets what it held.
void lose_list_of_globals(const std::string& names)
{
    for (int i = 0; i < 5; i++) {
        const std::string name = names + std::to_string(i);
        void* block = nullptr;
        {
            const Fault fault("tag_alloc", 1);
            EXPECT_EQ(get_global(name, &block), eNOMEMORY);
            EXPECT_EQ(block, nullptr);
        }
        EXPECT_EQ(get_global(name, &block), sOKAY);
    }
}

ZYN_RETCODE lose_while_made(void*)
{
    lose_list_of_globals("made");
    return sOKAY;
}

void lose_while_deleted(void*)
{
    lose_list_of_globals("deleted");
}

// Two are in the list, the file layer's and this one; three of the five come before the list.
TEST_F(RegistryFault, GlobalWhoseCallbackLosesTheListIsNotThere)
{
    void* block = &block;
    EXPECT_EQ(psp_globalGet("loser", 8, lose_while_made, nullptr, &block), eNOMEMORY);
    EXPECT_EQ(block, &block);
    std::thread([] { // no lock is held, and what came after the loss is known
        for (const char* name : {"made3", "made4"}) {
            Fault none("tag_alloc");
            void* found = nullptr;
            EXPECT_EQ(get_global(name, &found), sOKAY);
            EXPECT_EQ(none.calls(), 0);
        }
    })
        .join();
    deletions = 0;
    psp_term();
    EXPECT_EQ(deletions, 2);
    ASSERT_EQ(psp_init(), sOKAY);
}

// The file layer's goes first, by its name; four of the five come before the list.
TEST_F(RegistryFault, GlobalWhoseEndLosesTheListLeavesWhatCameAfter)
{
    void* block = nullptr;
    ASSERT_EQ(psp_globalGet("loser", 8, nullptr, lose_while_deleted, &block), sOKAY);
    ASSERT_EQ(get_global("early", &block), sOKAY);
    deletions = 0;
    psp_term();
    EXPECT_EQ(deletions, 2);
    ASSERT_EQ(psp_init(), sOKAY);
}

// ---- Pools ----

ZYN_RETCODE make_pool(PSP_MEMTAG tag, const char* lock, PSP_POOL* pool)
{
    return psp_poolCreateEx(tag, PSP_POOL_VAR_SIZE, lock, nullptr, nullptr, nullptr, pool);
}

TEST_F(PoolFault, PoolWithoutMemoryIsNoneAndItsTagIsGone)
{
    const std::size_t held = memory_in_use();
    const TAG_ENTRY* const tail = taglisttail;
    int of_the_tag = 0; // allocations that making its tag takes, where they can be made to fail
    {
        Fault count("tag_alloc");
        destroy_tag(make_tag(BLOCK_ALLOCATOR));
        of_the_tag = count.calls();
    }
    for (const char* lock : {static_cast<const char*>(nullptr), "lock"})
        for (const bool forever : {false, true}) {
            const int runs = fail_every_call("tag_alloc", forever, [&](Fault& fault, int n) {
                PSP_POOL pool = nullptr;
                const ZYN_RETCODE code = make_pool(nullptr, lock, &pool);
                const ZYN_RETCODE failure = n <= of_the_tag ? ePSP_FAILURE : eNOMEMORY;
                EXPECT_EQ(code, fault.failures() == 0 ? sOKAY : failure) << "allocation " << n;
                EXPECT_EQ(pool != nullptr, code == sOKAY);
                psp_poolDestroy(pool);
                EXPECT_EQ(taglisttail, tail);
                EXPECT_EQ(memory_in_use(), held);
            });
            EXPECT_EQ(runs, of_the_tag + 1) << "and the pool's own record";
        }
}

TEST_F(PoolFault, PoolWithoutItsTagReturnsTheCodeOfThat)
{
    for (const int code : {eNOMEMORY, ePSP_FAILURE}) {
        Fault fault("psp_createTagEx_rc", 1, false, code);
        PSP_POOL pool = nullptr;
        EXPECT_EQ(make_pool(nullptr, "lock", &pool), code);
        EXPECT_EQ(pool, nullptr);
    }
}

TEST_F(PoolFault, PoolWithoutItsMutexGoesUnlocked)
{
    Fault fault("psp_syncCreate_check", 1);
    PSP_POOL pool = nullptr;
    ASSERT_EQ(make_pool(PSP_GLOBAL_TAG, "lock", &pool), sOKAY);
    EXPECT_EQ(fault.failures(), 1);
    void* object = psp_poolGetMem(pool, 10, 1, nullptr, "", 0);
    EXPECT_NE(object, nullptr);
    psp_poolPut(pool, object);
    psp_poolDestroy(pool);
}

} // namespace
