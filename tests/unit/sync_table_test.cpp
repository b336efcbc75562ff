// The table of synchronisation objects from the inside: slots, chains and entries, against a model
// that keeps a plain stack of free places for each block.
#include "support/psp_test.h"

#include "psp/sync.h"
#include "psp/time.h"
#include "psp_mem_data_int.h"
#include "psp_sync_int.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

using namespace psptest;

namespace {

constexpr int block_entries = 1024;
constexpr int table_slots = 128;

class SyncTable : public PspTest {};
class SyncTableRestart : public RawTest {};

PSP_SEM make(int type)
{
    return psp_syncCreate_check(static_cast<std::int16_t>(type), __FILE__, __LINE__);
}

int index_of(PSP_SEM sem)
{
    return static_cast<int>(sem - sem->owner->entry);
}

// The free places of one block, in the order of their chain, as the table has them.
std::vector<int> chain_of(const PSP_SEM_TABLE& slot)
{
    std::vector<int> chain;
    for (std::int16_t at = slot.avail; at != -1 && chain.size() <= block_entries;
         at = sem_after(slot, at))
        chain.push_back(at);
    return chain;
}

int blocks_in_use()
{
    return static_cast<int>(std::count_if(std::begin(sem_table), std::end(sem_table),
                                          [](const auto& slot) { return slot.entry != nullptr; }));
}

// ---- The state after the start ----

TEST_F(SyncTable, BeginsWithOneBlock)
{
    static_assert(std::size(sem_table) == table_slots);
    EXPECT_TRUE(psp_sync_inited);
    EXPECT_EQ(blocks_in_use(), 1);
    ASSERT_NE(sem_table[0].entry, nullptr);
    // The library's own objects come first; the rest is one chain upwards from there.
    const std::vector<int> chain = chain_of(sem_table[0]);
    ASSERT_FALSE(chain.empty());
    const int own = block_entries - static_cast<int>(chain.size());
    for (int i = 0; i < own; i++) {
        EXPECT_EQ(sem_table[0].entry[i].owner, &sem_table[0]);
        EXPECT_EQ(sem_table[0].entry[i].avail, -2);
        EXPECT_EQ(sem_table[0].entry[i].type, 1);
    }
    for (int i = own; i < block_entries; i++)
        EXPECT_EQ(chain[static_cast<std::size_t>(i - own)], i);
    EXPECT_EQ(sem_table[0].untouched, own) << "no entry is set up before it is needed";
}

TEST_F(SyncTable, SetsUpAnEntryWhateverItsMemoryHeld)
{
    PSP_SEM_TABLE& slot = sem_table[0];
    std::memset(static_cast<void*>(slot.entry + slot.untouched), 0xA5,
                static_cast<std::size_t>(block_entries - slot.untouched) * sizeof *slot.entry);
    for (const int type : {1, 2, 1}) {
        const int place = slot.untouched;
        const PSP_SEM sem = make(type);
        ASSERT_EQ(sem, &slot.entry[place]);
        EXPECT_EQ(slot.untouched, place + 1);
        EXPECT_EQ(slot.avail, place + 1);
        EXPECT_EQ(sem->owner, &slot);
        EXPECT_EQ(sem->type, type);
        EXPECT_EQ(sem->avail, -2);
    }
    const PSP_SEM last = make(1);
    EXPECT_EQ(last->obj.m.count, 0);
    EXPECT_EQ(last->obj.m.id, psp_thread_id_t{});
    psp_syncEnterExcl(last);
    psp_syncExitExcl(last);
    const int touched = slot.untouched;
    psp_syncDelete(last);
    EXPECT_EQ(make(2), last) << "a used entry comes before those that were never used";
    EXPECT_EQ(slot.untouched, touched);
    psp_syncStart(last);
    EXPECT_EQ(psp_syncWait(last, 0), sTIMEOUT);
}

TEST_F(SyncTable, HoldsTheMutexesOfTheMemoryLayerInOrder)
{
    PSP_SEM_ENTRY* const entry = sem_table[0].entry;
    EXPECT_EQ(tagGlobal->t_sem, &entry[0]);
    EXPECT_EQ(tagTabSem, &entry[1]);
    EXPECT_EQ(largeBlockSem, &entry[2]);
    EXPECT_EQ(static_list_tag.t_sem, &entry[3]);
    EXPECT_EQ(entry[4].avail, -2) << "the registry's";
}

// ---- Entries ----

TEST_F(SyncTable, MarksTheEntryOfAMutex)
{
    const PSP_SEM sem = make(1);
    EXPECT_EQ(sem->type, 1);
    EXPECT_EQ(sem->avail, -2);
    EXPECT_EQ(sem->owner, &sem_table[0]);
    EXPECT_EQ(sem->obj.m.count, 0);
    EXPECT_EQ(sem->obj.m.id, psp_thread_id_t{});
    for (int depth = 1; depth <= 4; depth++) {
        psp_syncEnterExcl(sem);
        EXPECT_EQ(sem->obj.m.count, depth);
        EXPECT_EQ(sem->obj.m.id, pthread_self());
    }
    EXPECT_EQ(pthread_mutex_trylock(&sem->obj.m.mutex), EBUSY);
    for (int depth = 3; depth >= 0; depth--) {
        EXPECT_EQ(sem->obj.m.id, pthread_self());
        psp_syncExitExcl(sem);
        EXPECT_EQ(sem->obj.m.count, depth);
    }
    EXPECT_EQ(sem->obj.m.id, psp_thread_id_t{});
    EXPECT_EQ(pthread_mutex_trylock(&sem->obj.m.mutex), 0) << "the first level unlocks";
    pthread_mutex_unlock(&sem->obj.m.mutex);

    std::thread([&] {
        psp_syncEnterExcl(sem);
        EXPECT_EQ(sem->obj.m.id, pthread_self());
        psp_syncExitExcl(sem);
    }).join();

    const std::int16_t first_free = sem_table[0].avail;
    psp_syncDelete(sem);
    EXPECT_EQ(sem->type, 0);
    EXPECT_EQ(sem->avail, first_free);
    EXPECT_EQ(sem_table[0].avail, index_of(sem));
}

TEST_F(SyncTable, MarksTheEntryOfAnEvent)
{
    const PSP_SEM sem = make(2);
    EXPECT_EQ(sem->type, 2);
    EXPECT_EQ(sem->avail, -2);
    EXPECT_EQ(sem->obj.e.flag, 1);
    psp_syncStart(sem);
    EXPECT_EQ(sem->obj.e.flag, 0);
    psp_syncResume(sem);
    EXPECT_EQ(sem->obj.e.flag, 1);
    EXPECT_EQ(pthread_mutex_trylock(&sem->obj.e.mutex), 0) << "held only around the flag";
    pthread_mutex_unlock(&sem->obj.e.mutex);
    psp_syncDelete(sem);
    EXPECT_EQ(sem->type, 0);
}

TEST_F(SyncTable, LeavesTheEntryOfAnInvalidTypeTaken)
{
    const int place = sem_table[0].avail;
    const std::int16_t next = sem_after(sem_table[0], sem_table[0].avail);
    CapturedFd out(1);
    EXPECT_EQ(make(77), PSP_SEM_INVALID);
    EXPECT_EQ(out.finish(), "Invalid semaphore type\n");
    EXPECT_EQ(sem_table[0].entry[place].avail, -2);
    EXPECT_EQ(sem_table[0].entry[place].type, 77);
    EXPECT_EQ(sem_table[0].avail, next);
    // The stop, which looks at every taken entry, must cope with it.
}

// ---- Slots and chains ----

TEST_F(SyncTable, OpensASecondBlockWhenTheFirstIsFull)
{
    std::vector<PSP_SEM> made;
    while (sem_table[0].avail != -1)
        made.push_back(make(1));
    EXPECT_EQ(blocks_in_use(), 1);
    PSP_SEM_ENTRY* const first_block = sem_table[0].entry;

    const PSP_SEM sem = make(2);
    EXPECT_EQ(sem, &sem_table[1].entry[0]);
    EXPECT_EQ(sem->owner, &sem_table[1]);
    EXPECT_EQ(blocks_in_use(), 2);
    EXPECT_EQ(sem_table[0].entry, first_block) << "blocks never move";
    EXPECT_EQ(sem_table[1].avail, 1);
    EXPECT_EQ(sem_table[1].untouched, 1);
    EXPECT_EQ(chain_of(sem_table[1]).back(), block_entries - 1);

    psp_syncDelete(made[100]);
    EXPECT_EQ(make(2), made[100]) << "lower slots first";
    EXPECT_EQ(make(1), &sem_table[1].entry[1]);
}

// The rule of the table in its plainest form.
class TableModel {
  public:
    TableModel()
    {
        for (std::size_t slot = 0; slot < blocks_.size(); slot++)
            if (sem_table[slot].entry != nullptr)
                fill(slot, static_cast<int>(chain_of(sem_table[slot]).size()));
    }

    struct Place {
        std::size_t slot;
        int index;
    };

    Place take()
    {
        for (std::size_t slot = 0; slot < blocks_.size(); slot++) {
            Block& block = blocks_[slot];
            if (!block.open)
                fill(slot, block_entries);
            if (block.free.empty())
                continue;
            const int index = block.free.back();
            block.free.pop_back();
            return {slot, index};
        }
        ADD_FAILURE() << "the model is full";
        return {0, 0};
    }

    void give_back(Place place)
    {
        blocks_[place.slot].free.push_back(place.index);
    }

    void expect_chains() const
    {
        for (std::size_t slot = 0; slot < blocks_.size(); slot++) {
            ASSERT_EQ(sem_table[slot].entry != nullptr, blocks_[slot].open) << "slot " << slot;
            if (!blocks_[slot].open)
                continue;
            std::vector<int> chain = chain_of(sem_table[slot]);
            std::reverse(chain.begin(), chain.end());
            ASSERT_EQ(chain, blocks_[slot].free) << "slot " << slot;
        }
    }

  private:
    struct Block {
        bool open = false;
        std::vector<int> free; // the next one last
    };

    // A block of which the first places are taken and `count` are free.
    void fill(std::size_t slot, int count)
    {
        blocks_[slot].open = true;
        for (int i = 1; i <= count; i++)
            blocks_[slot].free.push_back(block_entries - i);
    }

    std::array<Block, table_slots> blocks_;
};

TEST_F(SyncTable, FollowsTheModelThroughRandomCreationAndDeletion)
{
    struct Object {
        PSP_SEM sem;
        TableModel::Place place;
    };
    TableModel model;
    std::vector<Object> objects;
    std::mt19937 random(20240701);
    for (int phase = 0; phase < 8; phase++) {
        const unsigned chance_to_create = phase % 2 == 0 ? 80 : 25; // of a hundred
        for (int i = 0; i < 3000; i++) {
            if (objects.empty() || random() % 100 < chance_to_create) {
                const TableModel::Place place = model.take();
                const PSP_SEM sem = make(random() % 2 == 0 ? 1 : 2);
                ASSERT_EQ(sem, &sem_table[place.slot].entry[place.index]);
                ASSERT_EQ(sem->owner, &sem_table[place.slot]);
                objects.push_back({sem, place});
            } else {
                std::swap(objects[random() % objects.size()], objects.back());
                psp_syncDelete(objects.back().sem);
                model.give_back(objects.back().place);
                objects.pop_back();
            }
        }
        model.expect_chains();
    }
    EXPECT_GT(blocks_in_use(), 2) << "the random walk was too short";
}

TEST_F(SyncTable, GivesBackItsBlocksAtTheEndOnly)
{
    std::vector<PSP_SEM> made;
    for (int i = 0; i < 3 * block_entries; i++)
        made.push_back(make(1));
    const int blocks = blocks_in_use();
    EXPECT_EQ(blocks, 4) << "the library's own objects reach into one more";
    for (const PSP_SEM sem : made)
        psp_syncDelete(sem);
    EXPECT_EQ(blocks_in_use(), blocks);
}

TEST_F(SyncTable, HoldsExactly128BlocksOf1024)
{
    CapturedFd out(1);
    const int status = run_in_child([] {
        const int own = block_entries - static_cast<int>(chain_of(sem_table[0]).size());
        PSP_SEM last = PSP_SEM_INVALID;
        for (int i = own; i < table_slots * block_entries; i++)
            last = make(1);
        EXPECT_EQ(last, &sem_table[table_slots - 1].entry[block_entries - 1]);
        for (const PSP_SEM_TABLE& slot : sem_table)
            EXPECT_EQ(slot.avail, -1);
        PSP_SEM_ENTRY* const freed = &sem_table[77].entry[5];
        psp_syncDelete(freed);
        EXPECT_EQ(make(2), freed) << "a full table with a gap is not full";
        if (::testing::Test::HasFailure())
            return 1;
        psp_syncCreate_check(2, "full.cpp", 9);
        return 2;
    });
    EXPECT_EQ(status, 128 + SIGABRT);
    EXPECT_EQ(out.finish(), "Insufficient number of semaphores, called from full.cpp:9\n");
}

// ---- Stop and restart ----

TEST_F(SyncTableRestart, ClearsTheSlotsAtTheNextStart)
{
    ASSERT_EQ(psp_init(), sOKAY);
    for (int i = 0; i < 2 * block_entries; i++)
        ASSERT_NE(make(2), PSP_SEM_INVALID);
    EXPECT_EQ(blocks_in_use(), 3);
    psp_term();
    EXPECT_FALSE(psp_sync_inited);
    EXPECT_EQ(blocks_in_use(), 3) << "the pointers stay, though the blocks are gone";
    ASSERT_EQ(psp_init(), sOKAY);
    EXPECT_TRUE(psp_sync_inited);
    EXPECT_EQ(blocks_in_use(), 1);
    psp_term();
}

TEST_F(SyncTableRestart, RefusesToCreateWhenOnlyOneHalfIsUp)
{
    EXPECT_EQ(run_in_child([] {
                  CapturedFd out(1);
                  psp_sync_inited = true;
                  EXPECT_EQ(make(1), PSP_SEM_INVALID) << "the library counts no user";
                  psp_sync_inited = false;
                  psp_inited = 1;
                  EXPECT_EQ(make(1), PSP_SEM_INVALID) << "the table is not usable";
                  EXPECT_EQ(out.finish(), "");
                  return 0;
              }),
              0);
}

// ---- Clocks ----

TEST_F(SyncTable, EventsWaitOnTheClockThatWasChosen)
{
    const std::int32_t choice = gUseMonotonicClock;
    for (const std::int32_t chosen : {-1, 0, 1, 200809}) {
        gUseMonotonicClock = chosen;
        const PSP_SEM event = make(2);
        psp_syncStart(event);
        // A deadline on the other clock's scale would end the wait at once, or never.
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(psp_syncWait(event, 20), sTIMEOUT);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(19));
        psp_syncDelete(event);
    }
    gUseMonotonicClock = choice;
}

} // namespace
