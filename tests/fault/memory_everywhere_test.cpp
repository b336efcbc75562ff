// Memory that fails at every place where any function asks for it: in the heap, at the memory
// limit, in a tag; once and from then on; under tags that give NULL and tags that jump. After each
// failure the caller has a code that it knows, nothing is lost, no lock is held and no descriptor
// open, and the same call does its work once there is memory again.
#include "memory_rows.h"
#include "memory_state.h"
#include "support/fault_test.h"
#include "support/text_fault.h"

#include <algorithm>
#include <csetjmp>
#include <csignal>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

using namespace psptest;

namespace psptest {
namespace {

// ---- No lock is held ----

void expect_no_lock_held()
{
    for_each_lock([](const PSP_SEM_ENTRY& entry) {
        if (entry.type == PSP_SEM_MUTEX) {
            EXPECT_EQ(relaxed_load(entry.obj.m.count), 0);
        }
    });
}

// Another thread gets past every lock of the library. It does without a tag of its own, which would
// stay.
void expect_all_enterable(PSP_MEMTAG tag)
{
    expect_enterable([tag] {
        for (const PSP_MEMTAG shared : {PSP_GLOBAL_TAG, tag})
            release(get(24, shared), shared);
        void* data = nullptr;
        EXPECT_EQ(psp_globalGet("watched", 8, nullptr, nullptr, &data), sOKAY);
        EXPECT_EQ(psp_printf("%s", ""), 0);
        EXPECT_EQ(print_err("%s", ""), 0);
        psp_log_chunk_end(psp_log_chunk_init(), "%s", "");
        psp_syncDelete(psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__));
        destroy_tag(make_tag(BLOCK_ALLOCATOR, 1));
        psp_fclose(psp_fopen("/dev/null", "w", PSP_FILE_MODE_UTF8));
        psp_enterCritSec();
        psp_exitCritSec();
    });
}

// ---- Ways to fail ----

struct Way {
    const char* point;
    unsigned bit;  // of Ways; 0: a function of the C library
    bool drained;  // tags have no idle memory
    bool hoarding; // nor has the large-block layer
};

std::vector<Way> ways_of(const Row& row)
{
    std::vector<Way> ways;
    for (const Way& way : {Way{"heap", HEAP, true, true},
                           {"large_block", LARGE_BLOCKS, true, false},
                           {"tag_alloc", TAG_REQUESTS, false, false}})
        if ((row.ways & way.bit) != 0)
            ways.push_back(way);
    for (const char* function : row.system)
        ways.push_back({function, 0, false, false});
    return ways;
}

// The n-th call at a point, and maybe all that follow.
struct Plan {
    const Way& way;
    int n;
    bool forever;
    bool jumping; // the tags have a jump buffer

    std::string text() const
    {
        return std::string(way.point) + " " + std::to_string(n) + (forever ? " and on" : "") +
               (jumping ? ", jumping" : "");
    }
};

jmp_buf landing;

struct Outcome {
    ZYN_RETCODE code;
    bool jumped;
};

Outcome call(Bench& bench)
{
    static ZYN_RETCODE code;
    const int value = jumped_with(landing, [&] { code = bench.row.run(bench); });
    EXPECT_TRUE(value == 0 || value == 1) << value;
    return {value == 0 ? code : eNOMEMORY, value != 0};
}

void step(Step step, Bench& bench)
{
    if (step != nullptr)
        step(bench);
}

void set_jumps(jmp_buf* buffer, PSP_MEMTAG tag)
{
    for (const PSP_MEMTAG jumping : {PSP_GLOBAL_TAG, PSP_THREAD_TAG, tag})
        psp_resetTag(buffer, jumping);
}

const std::vector<Row>& all_rows()
{
    static const std::vector<Row> rows = [] {
        std::vector<Row> all;
        for (auto* family : {memory_rows, file_rows, text_rows, value_rows})
            for (const Row& row : family())
                all.push_back(row);
        return all;
    }();
    return rows;
}

std::vector<std::string> words(const char* text)
{
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

std::string name_of(const Row& row)
{
    return words(row.functions).front();
}

bool is_refusal(const Row& row, ZYN_RETCODE code)
{
    return std::find(row.refusals.begin(), row.refusals.end(), code) != row.refusals.end();
}

void get_ready()
{
    release(get(8, PSP_THREAD_TAG), PSP_THREAD_TAG); // the thread has its tag
    void* data = nullptr;
    ASSERT_EQ(psp_globalGet("watched", 8, nullptr, nullptr, &data), sOKAY);
}

// ---- The fixture ----

class FailingMemory : public HeapFaultTest {
  protected:
    void SetUp() override
    {
        HeapFaultTest::SetUp();
        get_ready();
    }
    void take_every_way(const Row& row)
    {
        jumped_ = returned_ = 0;
        for (const Way& way : ways_of(row)) {
            int met = 0;
            for (const bool forever : {false, true})
                for (const bool jumping : {false, true})
                    met += fail_every_call(way.point, forever, [&](Fault& fault, int n) {
                        fault.disarm(); // until all is prepared
                        one_failure(row, {way, n, forever, jumping}, fault);
                    });
            EXPECT_GT(met, 0) << "never asks " << way.point;
            failures_ += met;
        }
        if (row.jumps == Jumps::sometimes) {
            EXPECT_GT(jumped_, 0);
            EXPECT_GT(returned_, 0);
        }
    }

  private:
    // From a clean state into the failure, out of it, and back to the clean state.
    void one_failure(const Row& row, const Plan& plan, Fault& fault)
    {
        SCOPED_TRACE(plan.text());
        if (row.restarts) {
            psp_term();
            ASSERT_EQ(psp_init(), sOKAY);
            get_ready();
        }
        const Held outside = held();
        {
            const TempDir dir;
            Bench bench = {row, make_tag(row.type, row.flags), dir.path(), dir / "file",
                           dir / "other"};
            set_jumps(plan.jumping ? &landing : nullptr, bench.tag);
            step(row.prepare, bench);
            const bool done = meet_failure(bench, plan, fault);
            if (bench.refused) {
                expect_no_lock_held();
                expect_all_enterable(bench.tag);
                if (done || row.consumes) {
                    step(row.undo, bench);
                    step(row.prepare, bench);
                }
                do_it_again(bench);
            }
            step(row.undo, bench);
            set_jumps(nullptr, bench.tag);
            destroy_tag(bench.tag);
        }
        if (!row.restarts) {
            EXPECT_EQ(held(), outside);
        }
    }

    // True when the operation did its work, with or without the failure.
    bool meet_failure(Bench& bench, const Plan& plan, Fault& fault)
    {
        std::optional<Drained> drained;
        if (plan.way.drained)
            drained.emplace();
        const Held before = held();
        const std::size_t in_use = memory_in_use();
        const PSP_TAG_MEM_INFO own = info_of(bench.tag);
        Outcome outcome;
        {
            std::optional<Hoard> hoard;
            if (plan.way.hoarding)
                hoard.emplace();
            Fault::fail_nth(plan.way.point, plan.n, plan.forever);
            outcome = call(bench);
            fault.disarm();
        }
        bench.refused = fault.failures() > 0;
        judge(bench.row, plan, outcome, bench.refused);
        const bool done = !outcome.jumped && outcome.code == sOKAY;
        step(done ? bench.row.verify : bench.row.refused, bench);
        step(bench.row.settle, bench);
        if (!done) {
            expect_unchanged(bench.row, before);
            EXPECT_EQ(info_of(bench.tag).used.current, own.used.current);
            if (plan.n == 1 && plan.forever && plan.way.drained) { // there was nothing to be had
                EXPECT_EQ(info_of(bench.tag), own);
                EXPECT_LE(memory_in_use(), in_use);
            }
        }
        return done;
    }

    void judge(const Row& row, const Plan& plan, Outcome outcome, bool refused)
    {
        if (!refused) {
            EXPECT_FALSE(outcome.jumped);
            EXPECT_EQ(outcome.code, sOKAY);
            return;
        }
        if (!outcome.jumped) {
            EXPECT_TRUE(is_refusal(row, outcome.code)) << outcome.code;
        }
        if (!plan.jumping || plan.way.bit == 0 || row.jumps == Jumps::never) {
            EXPECT_FALSE(outcome.jumped);
        } else if (row.jumps == Jumps::always) {
            EXPECT_TRUE(outcome.jumped);
        } else {
            ++(outcome.jumped ? jumped_ : returned_);
        }
    }

    void expect_unchanged(const Row& row, Held before)
    {
        const Held after = held();
        const long added = after.used - before.used;
        if (std::find(row.kept.begin(), row.kept.end(), added) != row.kept.end())
            before.used = after.used;
        EXPECT_EQ(after, before);
    }

    void do_it_again(Bench& bench)
    {
        bench.refused = false;
        const Outcome outcome = call(bench);
        EXPECT_FALSE(outcome.jumped);
        EXPECT_EQ(outcome.code, sOKAY);
        step(bench.row.verify, bench);
        step(bench.row.settle, bench);
    }

    int jumped_ = 0;
    int returned_ = 0;

  protected:
    int failures_ = 0; // met, by all rows
};

class FailingMemoryOf : public FailingMemory, public ::testing::WithParamInterface<std::string> {};

std::vector<std::string> row_names()
{
    std::vector<std::string> names;
    for (const Row& row : all_rows())
        if (std::find(names.begin(), names.end(), name_of(row)) == names.end())
            names.push_back(name_of(row));
    return names;
}

TEST_P(FailingMemoryOf, LosesNothingAndHoldsNothing)
{
    for (const Row& row : all_rows())
        if (name_of(row) == GetParam()) {
            SCOPED_TRACE("type " + std::to_string(row.type) + ", flags " +
                         std::to_string(row.flags) + ", size " + std::to_string(row.size));
            take_every_way(row);
        }
    RecordProperty("failures_met", failures_); // for whoever asks for a report
}

INSTANTIATE_TEST_SUITE_P(Functions, FailingMemoryOf, ::testing::ValuesIn(row_names()),
                         [](const auto& name) { return name.param; });

// ---- Without room for another lock ----

constexpr int went_through = 50;

void fill_lock_table()
{
    do {
        ASSERT_NE(psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__), PSP_SEM_INVALID);
    } while (sem_table[0].avail != SEM_CHAIN_END);
    ASSERT_EQ(sem_table[1].entry, nullptr);
}

// In a child, where the next lock needs a new block of the table. 0 for a failure that was told.
int call_without_locks(const Row& row, const Way& way, int n, bool forever)
{
    return run_in_child([&] {
        const TempDir dir;
        Bench bench = {row, make_tag(), dir.path(), dir / "file", dir / "other"};
        step(row.prepare, bench);
        fill_lock_table();
        std::optional<Drained> drained;
        std::optional<Hoard> hoard;
        if (way.drained)
            drained.emplace();
        if (way.hoarding)
            hoard.emplace();
        Fault fault(way.point, n, forever);
        const ZYN_RETCODE code = row.run(bench);
        fault.disarm();
        if (fault.failures() == 0) {
            EXPECT_EQ(code, sOKAY);
            return went_through;
        }
        EXPECT_TRUE(is_refusal(row, code)) << code;
        EXPECT_EQ(row.run(bench), sOKAY);
        return 0;
    });
}

TEST_F(FailingMemory, WithoutRoomForALockEndsTheProcessInSilence)
{
    for (const Row& row : ending_rows())
        for (const Way& way : ways_of(row))
            for (const bool forever : {false, true}) {
                int ended = 0;
                int status = 0;
                for (int n = 1; status != went_through; n++) {
                    CapturedFd out(1);
                    CapturedFd err(2);
                    status = call_without_locks(row, way, n, forever);
                    const std::string said = out.finish() + err.finish();
                    ASSERT_LT(n, 100) << said;
                    if (status == 128 + SIGABRT) {
                        EXPECT_EQ(said, "");
                        ended++;
                    } else {
                        ASSERT_TRUE(status == 0 || status == went_through)
                            << row.functions << ", " << way.point << " " << n << ": " << said;
                    }
                }
                // From a fresh chunk of the heap's the block comes without asking the heap again.
                const bool may_be_spared = way.bit == HEAP;
                EXPECT_TRUE(ended == 1 || (ended == 0 && may_be_spared))
                    << row.functions << ", " << way.point << ": " << ended;
            }
}

// ---- The start ----

class StartWithFailingMemory : public RawTest {
  protected:
    void TearDown() override
    {
        Fault::clear();
        RawTest::TearDown();
    }
};

// Of a start that was made to fail at a point, which may be worth the process.
struct StartFailure {
    const char* point;
    std::vector<ZYN_RETCODE> codes;
    int ended;
};

// 0 for a start that failed and was undone, went_through for one that met no failure.
int start_in_child(const StartFailure& failure, int n, bool forever)
{
    return run_in_child([&] {
        const std::size_t descriptors = open_descriptors();
        const long blocks = live_heap_blocks();
        Fault fault(failure.point, n, forever);
        const ZYN_RETCODE code = psp_init();
        fault.disarm();
        const bool met = fault.failures() > 0;
        if (code == sOKAY) {
            psp_term();
        } else {
            EXPECT_TRUE(met);
            EXPECT_EQ(std::count(failure.codes.begin(), failure.codes.end(), code), 1) << code;
        }
        for (int i = 0; i < 2; i++) {
            EXPECT_EQ(psp_inited, 0);
            EXPECT_EQ(psp_terminating, 0);
            EXPECT_FALSE(psp_sync_inited);
            EXPECT_EQ(memory_in_use(), 0u);
            EXPECT_EQ(LargeBlock.chunks, nullptr);
            EXPECT_EQ(live_heap_blocks(), blocks);
            EXPECT_EQ(open_descriptors(), descriptors);
            EXPECT_EQ(get(10, PSP_GLOBAL_TAG), nullptr);
            void* data = nullptr;
            EXPECT_EQ(psp_globalGet("none", 8, nullptr, nullptr, &data), ePSP_FAILURE);
            EXPECT_EQ(psp_init(), sOKAY);
            get_ready();
            expect_all_enterable(PSP_GLOBAL_TAG);
            psp_term();
        }
        return met ? 0 : went_through;
    });
}

// Only the first block of the lock table is worth the process: nobody can be told without locks.
TEST_F(StartWithFailingMemory, IsUndoneOrEndsTheProcessInSilence)
{
    const StartFailure failures[] = {
        {"heap", {eNOMEMORY}, 0},
        {"large_block", {eNOMEMORY, ePSP_FAILURE, eFILEOPEN}, 1},
        {"tag_alloc", {eNOMEMORY, ePSP_FAILURE, eFILEOPEN}, 1},
        {"pthread_key_create", {eNOMEMORY}, 0},
    };
    for (const StartFailure& failure : failures)
        for (const bool forever : {false, true}) {
            int ended = 0;
            int status = 0;
            int n = 1;
            for (; status != went_through; n++) {
                CapturedFd out(1);
                CapturedFd err(2);
                status = start_in_child(failure, n, forever);
                const std::string said = out.finish() + err.finish();
                ASSERT_LT(n, 100) << said;
                if (status == 128 + SIGABRT) {
                    EXPECT_EQ(said, "");
                    ended++;
                } else {
                    ASSERT_TRUE(status == 0 || status == went_through)
                        << failure.point << " " << n << ": " << said;
                }
            }
            EXPECT_GT(n, 2) << failure.point;
            EXPECT_EQ(ended, failure.ended) << failure.point;
        }
}

// ---- All others ----

TEST_F(FailingMemory, CannotReachWhatTakesNoMemory)
{
    const TempDir dir;
    EXPECT_EQ(run_in_child([&] {
                  lay_out_arguments(dir.path());
                  for (const NeverAllocates& row : never_allocating()) {
                      const Fault heap("heap");
                      const Fault large_blocks("large_block");
                      const Fault tags("tag_alloc");
                      row.call();
                      EXPECT_EQ(heap.calls() + large_blocks.calls() + tags.calls(), 0)
                          << row.function;
                  }
                  EXPECT_EQ(psp_inited, 0) << "the last one is psp_term";
                  return 0;
              }),
              0);
}

std::multiset<std::string> functions_of_the_surface()
{
    std::multiset<std::string> functions;
    std::ifstream surface(PSP_SURFACE);
    for (std::string line; std::getline(surface, line);)
        if (const std::vector<std::string> fields = words(line.c_str());
            fields.size() == 4 && fields[0] == "function")
            functions.insert(fields[1]);
    return functions;
}

TEST_F(FailingMemory, IsMetByEveryFunctionOfTheSurface)
{
    std::set<std::string> covered = {"psp_init"}; // StartWithFailingMemory
    for (const Row& row : all_rows())
        for (const std::string& function : words(row.functions))
            covered.insert(function);
    for (const Row& row : ending_rows())
        for (const std::string& function : words(row.functions))
            covered.insert(function);
    std::multiset<std::string> functions(covered.begin(), covered.end());
    for (const NeverAllocates& row : never_allocating())
        functions.insert(row.function); // one that allocates too would be in there twice
    EXPECT_EQ(functions, functions_of_the_surface());
}

} // namespace
} // namespace psptest
