// The watch over the order of locks, which a checked build keeps: every order that could end in a
// deadlock ends the process with a message, every other one passes, and the library's own locks are
// the ones that are watched.

#include "support/file_test.h"
#include "support/mem_test.h"

#include "psp/global.h"
#include "psp/output.h"
#include "psp/pool.h"
#include "psp/sync.h"
#include "psp/tmpdir.h"
#include "psp_file_int.h"
#include "psp_lock_rank.h"
#include "psp_mem_data_int.h"
#include "psp_output_int.h"
#include "psp_sync_int.h"

#include <csignal>
#include <functional>
#include <string>
#include <thread>
#include <vector>

using namespace psptest;

namespace {

class LockRanks : public PspTest {
  protected:
    void TearDown() override
    {
        EXPECT_EQ(psp_ranksHeld(), 0);
        PspTest::TearDown();
    }
};

struct NamedRank {
    LockRank rank;
    std::string name;
};

// Outermost first.
const std::vector<NamedRank> in_order = {
    {LockRank::critical_section, "the critical section"},
    {LockRank::pool, "a pool"},
    {LockRank::output_stack, "an output stack"},
    {LockRank::registry, "the registry"},
    {LockRank::file_handle, "a file handle"},
    {LockRank::sync_table, "the table of synchronisation objects"},
    {LockRank::tag, "a tag"},
    {LockRank::tag_list, "the list of tags"},
    {LockRank::tag_records, "the records of tags"},
    {LockRank::large_block, "the large blocks"},
    {LockRank::event, "an event"},
};

std::string message(const std::string& inner, const std::string& outer)
{
    std::string text = "Lock order broken: " + inner + " inside " + outer + ". The order is:";
    for (const NamedRank& named : in_order)
        text += (&named == &in_order.front() ? " " : ", ") + named.name;
    return text + ".\n";
}

// `body` takes the lock `inner` while it holds `outer`, which must end the process.
void expect_broken(const std::string& inner, const std::string& outer,
                   const std::function<void()>& body)
{
    CapturedFd errors(2);
    const int status = run_in_child([&] {
        body();
        return 0;
    });
    EXPECT_EQ(errors.finish(), message(inner, outer));
    EXPECT_EQ(status, 128 + SIGABRT) << inner << " inside " << outer;
}

PSP_SEM make_mutex()
{
    return psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__);
}

// ---- The order alone ----

TEST_F(LockRanks, EndTheProcessForEveryPairAgainstTheOrder)
{
    const int outer_lock = 0;
    const int inner_lock = 0;
    for (std::size_t outer = 0; outer < in_order.size(); outer++)
        for (std::size_t inner = 0; inner <= outer; inner++) {
            if (inner == outer && in_order[inner].rank == LockRank::pool)
                continue;
            expect_broken(in_order[inner].name, in_order[outer].name, [&] {
                psp_rankEnter(in_order[outer].rank, &outer_lock);
                psp_rankEnter(in_order[inner].rank, &inner_lock);
            });
        }
}

TEST_F(LockRanks, LetEveryPairInOrderPass)
{
    const int outer_lock = 0;
    const int inner_lock = 0;
    for (std::size_t outer = 0; outer < in_order.size(); outer++)
        for (std::size_t inner = outer + 1; inner < in_order.size(); inner++) {
            psp_rankEnter(in_order[outer].rank, &outer_lock);
            psp_rankEnter(in_order[inner].rank, &inner_lock);
            EXPECT_EQ(psp_ranksHeld(), 2);
            psp_rankLeave(&inner_lock);
            psp_rankLeave(&outer_lock);
            EXPECT_EQ(psp_ranksHeld(), 0);
        }
}

TEST_F(LockRanks, LookAtTheInnermostLockStillHeld)
{
    const int locks[3] = {};
    psp_rankEnter(LockRank::registry, &locks[0]);
    psp_rankEnter(LockRank::tag, &locks[1]);
    psp_rankEnter(LockRank::large_block, &locks[2]);
    psp_rankLeave(&locks[1]); // not the last one taken
    EXPECT_EQ(psp_ranksHeld(), 2);
    expect_broken("a tag", "the large blocks", [&] { psp_rankEnter(LockRank::tag, &locks[1]); });
    psp_rankLeave(&locks[2]);
    psp_rankEnter(LockRank::tag, &locks[1]); // right again
    psp_rankLeave(&locks[0]);
    psp_rankLeave(&locks[0]); // held no longer: left alone
    EXPECT_EQ(psp_ranksHeld(), 1);
    psp_rankLeave(&locks[1]);
}

TEST_F(LockRanks, OfPoolsMayNestButNotWithoutEnd)
{
    const std::vector<char> locks(65);
    for (std::size_t i = 0; i < 64; i++)
        psp_rankEnter(LockRank::pool, &locks[i]);
    CapturedFd errors(2);
    EXPECT_EQ(run_in_child([&] {
                  psp_rankEnter(LockRank::pool, &locks[64]);
                  return 0;
              }),
              128 + SIGABRT);
    EXPECT_EQ(errors.finish(), "More locks are held than a checked build can watch.\n");
    for (const char& lock : locks)
        psp_rankLeave(&lock);
}

TEST_F(LockRanks, AreWatchedForEachThreadAlone)
{
    const int locks[2] = {};
    psp_rankEnter(LockRank::event, &locks[0]);
    std::thread([&] {
        EXPECT_EQ(psp_ranksHeld(), 0);
        psp_rankEnter(LockRank::critical_section, &locks[1]);
        EXPECT_EQ(psp_ranksHeld(), 1);
        psp_rankLeave(&locks[0]); // another thread's
        EXPECT_EQ(psp_ranksHeld(), 1);
        psp_rankLeave(&locks[1]);
    }).join();
    EXPECT_EQ(psp_ranksHeld(), 1);
    psp_rankLeave(&locks[0]);
}

TEST_F(LockRanks, DoNotConcernTheMutexesOfCallers)
{
    const PSP_SEM outside = make_mutex();
    const PSP_SEM within = make_mutex();
    psp_syncEnterExcl(outside);
    psp_syncEnterExcl(largeBlockSem);
    psp_syncEnterExcl(within);
    EXPECT_EQ(psp_ranksHeld(), 1);
    psp_syncExitExcl(within);
    psp_syncExitExcl(largeBlockSem);
    EXPECT_EQ(psp_ranksHeld(), 0);
    psp_enterCritSec();
    EXPECT_EQ(psp_ranksHeld(), 1);
    psp_exitCritSec();
    psp_syncExitExcl(outside);
    psp_syncDelete(within);
    psp_syncDelete(outside);
}

TEST_F(LockRanks, DoNotStayWithAReusedObject)
{
    const PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR, 1);
    const PSP_SEM before = tag->t_sem;
    EXPECT_EQ(before->rank, LockRank::tag);
    destroy_tag(tag);
    const PSP_SEM after = make_mutex();
    ASSERT_EQ(after, before);
    EXPECT_EQ(after->rank, LockRank::unranked);
    psp_syncDelete(after);
}

// ---- The library's own locks ----

// Runs `body` as a callback that a library's lock is held over.
const std::function<void()>* callback = nullptr;

ZYN_RETCODE call_back(void*)
{
    (*callback)();
    return sOKAY;
}

void call_back_from_pool(PSP_POOL_USERDATA, void*)
{
    (*callback)();
}

void inside_registry(const std::function<void()>& body)
{
    void* data = nullptr;
    callback = &body;
    EXPECT_EQ(psp_globalGet("lock_rank_test", 8, call_back, nullptr, &data), sOKAY);
}

PSP_POOL make_pool(PSP_POOL_CONSTRUCTOR constructor)
{
    PSP_POOL pool = nullptr;
    EXPECT_EQ(psp_poolCreateEx(PSP_GLOBAL_TAG, PSP_POOL_VAR_SIZE, "lock", constructor, nullptr,
                               nullptr, &pool),
              sOKAY);
    return pool;
}

void use_pool(PSP_POOL pool)
{
    psp_poolPut(pool, psp_poolGetMem(pool, 16, 1, nullptr, __FILE__, __LINE__));
}

void inside_pool(const std::function<void()>& body)
{
    const PSP_POOL pool = make_pool(call_back_from_pool);
    callback = &body;
    use_pool(pool);
    psp_poolDestroy(pool);
}

void inside(PSP_SEM sem, const std::function<void()>& body)
{
    psp_syncEnterExcl(sem);
    body();
    psp_syncExitExcl(sem);
}

TEST_F(LockRanks, AreThoseOfTheLibrarysOwnLocks)
{
    EXPECT_EQ(tagGlobal->t_sem->rank, LockRank::tag);
    EXPECT_EQ(tagTabSem->rank, LockRank::tag_list);
    EXPECT_EQ(static_list_tag.t_sem->rank, LockRank::tag_records);
    EXPECT_EQ(largeBlockSem->rank, LockRank::large_block);
    for (PSP_FILE_STACK* stack :
         {get_stdout_stack(nullptr), get_stderr_stack(nullptr), get_log_stack(nullptr)})
        EXPECT_EQ(stack->sem->rank, LockRank::output_stack);
    inside_registry([] { EXPECT_EQ(psp_ranksHeld(), 1); });
    inside_pool([] { EXPECT_EQ(psp_ranksHeld(), 1); });
    psp_enterCritSec();
    EXPECT_EQ(psp_ranksHeld(), 1);
    psp_exitCritSec();
}

TEST_F(LockRanks, EndTheProcessWhenTheLibrarysLocksAreTakenAgainstTheOrder)
{
    const TempDir dir;
    write_file(dir / "file", "");
    const Handle handle(dir / "file");
    ASSERT_EQ(psp_fileLock(handle), sOKAY);
    const PSP_SEM file_lock = static_cast<PSP_FH>(handle)->lock;
    const PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR, 1);
    const PSP_POOL pool = make_pool(nullptr);
    const auto allocate = [&](PSP_MEMTAG from) { release(get(10, from), from); };
    unsetenv("ZYN_TMPDIR");

    expect_broken("the critical section", "a pool",
                  [&] { inside_pool([] { psp_tmpdir(PSP_GLOBAL_TAG); }); });
    expect_broken("a pool", "an output stack",
                  [&] { inside(get_log_stack(nullptr)->sem, [&] { use_pool(pool); }); });
    expect_broken("an output stack", "the registry",
                  [] { inside_registry([] { psp_log("%s\n", "x"); }); });
    expect_broken("the registry", "a file handle",
                  [&] { inside(file_lock, [] { inside_registry([] {}); }); });
    expect_broken("the table of synchronisation objects", "a tag",
                  [&] { inside(tag->t_sem, [] { make_mutex(); }); });
    expect_broken("a tag", "the list of tags", [&] { inside(tagTabSem, [&] { allocate(tag); }); });
    expect_broken("the list of tags", "the records of tags",
                  [] { inside(static_list_tag.t_sem, [] { make_tag(); }); });
    expect_broken("the records of tags", "the large blocks",
                  [] { inside(largeBlockSem, [] { make_tag(); }); });
    expect_broken("the critical section", "the critical section", [] {
        psp_enterCritSec();
        psp_term();
    });
    expect_broken("a tag", "a tag", [&] { inside(tag->t_sem, [&] { allocate(PSP_GLOBAL_TAG); }); });
    expect_broken("an output stack", "an output stack",
                  [] { inside(get_log_stack(nullptr)->sem, [] { psp_printf("%s", "x"); }); });

    psp_fileUnlock(handle);
    psp_poolDestroy(pool);
    destroy_tag(tag);
}

// Nothing of a test runs while these are held, so the test only says that it holds one.
TEST_F(LockRanks, WatchTheLocksThatAreHeldForAMomentOnly)
{
    const int lock = 0;
    const PSP_SEM event = psp_syncCreate_check(PSP_SEM_EVENT, __FILE__, __LINE__);
    const std::function<void()> on_event[] = {[event] { psp_syncStart(event); },
                                              [event] { psp_syncResume(event); },
                                              [event] { psp_syncWait(event, 0); }};
    for (const auto& operation : on_event)
        expect_broken("an event", "an event", [&] {
            psp_rankEnter(LockRank::event, &lock);
            operation();
        });
    const std::function<void()> on_table[] = {[] { make_mutex(); },
                                              [event] { psp_syncDelete(event); }};
    for (const auto& operation : on_table)
        expect_broken("the table of synchronisation objects",
                      "the table of synchronisation objects", [&] {
                          psp_rankEnter(LockRank::sync_table, &lock);
                          operation();
                      });
    for (const auto& operation : on_event) {
        operation();
        EXPECT_EQ(psp_ranksHeld(), 0);
    }
    for (const auto& operation : on_table) {
        operation();
        EXPECT_EQ(psp_ranksHeld(), 0);
    }
}

// From the outermost lock to the innermost, as callbacks and the library's own calls nest them.
TEST_F(LockRanks, LetTheWholeOrderPass)
{
    const TempDir dir;
    write_file(dir / "file", "");
    const Handle handle(dir / "file");
    ASSERT_EQ(psp_fileLock(handle), sOKAY);
    const PSP_SEM file_lock = static_cast<PSP_FH>(handle)->lock;
    const PSP_SEM event = psp_syncCreate_check(PSP_SEM_EVENT, __FILE__, __LINE__);
    std::vector<PSP_SEM> made;
    const auto in_callback = [&] {
        psp_syncEnterExcl(file_lock);
        psp_syncEnterExcl(file_lock); // a held one counts once
        EXPECT_EQ(psp_ranksHeld(), 5);
        // The table grows: the global tag's mutex inside the table's.
        for (std::size_t i = 0; i <= SEM_BLOCK_ENTRIES; i++)
            made.push_back(make_mutex());
        destroy_tag(make_tag(BLOCK_ALLOCATOR, 1));
        psp_syncStart(event);
        EXPECT_EQ(psp_syncWait(event, 1), sTIMEOUT);
        EXPECT_EQ(psp_ranksHeld(), 5);
        psp_syncExitExcl(file_lock);
        EXPECT_EQ(psp_ranksHeld(), 5);
        psp_syncExitExcl(file_lock);
        EXPECT_EQ(psp_ranksHeld(), 4);
    };
    psp_enterCritSec();
    inside_pool([&] {
        inside_pool([&] {
            psp_fileStackLock(get_stdout_stack(nullptr));
            EXPECT_EQ(psp_ranksHeld(), 4);
            psp_fileStackRelease(get_stdout_stack(nullptr));
        });
        psp_fileStackLock(get_stdout_stack(nullptr));
        inside_registry(in_callback);
        psp_fileStackRelease(get_stdout_stack(nullptr));
    });
    EXPECT_EQ(psp_ranksHeld(), 1);
    psp_exitCritSec();
    EXPECT_EQ(sem_table[1].entry->owner, &sem_table[1]) << "the table did grow";
    for (const PSP_SEM sem : made)
        psp_syncDelete(sem);
    psp_syncDelete(event);
    psp_fileUnlock(handle);
}

// ---- Ways out ----

TEST_F(LockRanks, AreGivenBackBeforeAnAllocationJumps)
{
    jmp_buf jump;
    const PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR, 1, &jump);
    EXPECT_EQ(jumped_with(jump, [tag] { get(gib4 - 1, tag); }), 1);
    EXPECT_EQ(psp_ranksHeld(), 0);

    psp_resetTag(&jump, PSP_GLOBAL_TAG);
    EXPECT_EQ(jumped_with(jump,
                          [] {
                              void* data = nullptr;
                              psp_globalGet("too large", gib4 - 1, nullptr, nullptr, &data);
                          }),
              1);
    EXPECT_EQ(psp_ranksHeld(), 0);

    const PSP_POOL pool = make_pool(nullptr);
    EXPECT_EQ(
        jumped_with(jump,
                    [pool] { psp_poolGetMem(pool, gib4 - 17, 1, nullptr, __FILE__, __LINE__); }),
        1);
    EXPECT_EQ(psp_ranksHeld(), 0);
    psp_resetTag(nullptr, PSP_GLOBAL_TAG);
    psp_poolDestroy(pool);
    destroy_tag(tag);
}

TEST(LockRanksAtStop, AreForgottenWhenALockIsLeftAfterTheStop)
{
    ASSERT_EQ(psp_init(), sOKAY);
    const PSP_SEM sem = tagGlobal->t_sem;
    psp_term();
    psp_rankEnter(LockRank::tag, sem); // as if entered before the stop
    psp_syncExitExcl(sem);
    EXPECT_EQ(psp_ranksHeld(), 0);
    ASSERT_EQ(psp_init(), sOKAY);
    EXPECT_EQ(psp_ranksHeld(), 0);
    psp_term();
    EXPECT_EQ(psp_ranksHeld(), 0);
}

} // namespace
