// Rows of the table: memory, pools, the registry, threads, random numbers; and what needs a lock.
#include "memory_rows.h"
#include "support/mem_test.h"

#include "psp_mem_data_int.h"

#include <gtest/gtest.h>

#include <cstring>

#include <fcntl.h>
#include <pthread.h>

namespace psptest {
namespace {

constexpr std::size_t mib = 1024 * 1024;
constexpr std::size_t sizes[] = {100, 10000, 5 * mib};

// ---- Blocks ----

void release_made(Bench& bench)
{
    release(bench.made, bench.tag);
}

void expect_zeros(Bench& bench)
{
    EXPECT_TRUE(holds(bench.made, bench.row.size, 0));
}

Row get_row(PSP_ALLOCATOR_TYPE type, std::size_t size)
{
    return {.functions = "psp_getMem",
            .run = [](Bench& b) { return b.keep(get(b.row.size, b.tag, 3)); },
            .refusals = {eNOMEMORY},
            .verify = expect_zeros,
            .undo = release_made,
            .ways = type == LEGACY_ALLOCATOR ? HEAP : CHUNKS,
            .type = type,
            .size = size};
}

Row get_rc_row(PSP_ALLOCATOR_TYPE type, std::size_t size)
{
    Row row = get_row(type, size);
    row.functions = "psp_getMem_rc";
    row.run = [](Bench& b) {
        return psp_getMem_rc(b.row.size, b.tag, 3, nullptr, &b.made, __FILE__, __LINE__);
    };
    return row;
}

// A block to be resized or moved, with contents that a failure must leave alone.
void fill_given(Bench& bench, PSP_MEMTAG tag, std::size_t size)
{
    bench.given = get(size, tag);
    std::memset(bench.given, 'k', size);
}

void prepare_half(Bench& bench)
{
    fill_given(bench, bench.tag, bench.row.size / 2);
}

void expect_half_kept(Bench& bench)
{
    EXPECT_TRUE(holds(bench.given, bench.row.size / 2, 'k'));
}

void expect_half_moved(Bench& bench)
{
    EXPECT_TRUE(holds(bench.made, bench.row.size / 2, 'k'));
}

Row extend_row(PSP_ALLOCATOR_TYPE type, std::size_t size)
{
    return {.functions = "psp_extendMem",
            .run = [](Bench& b) { return b.keep(extend(b.given, b.row.size, b.tag)); },
            .refusals = {eNOMEMORY},
            .prepare = prepare_half,
            .verify = expect_half_moved,
            .refused = expect_half_kept,
            .undo = release_made,
            .ways = type == LEGACY_ALLOCATOR ? HEAP : CHUNKS,
            .type = type,
            .size = size};
}

Row extend_rc_row(PSP_ALLOCATOR_TYPE type, std::size_t size)
{
    Row row = extend_row(type, size);
    row.functions = "psp_extendMem_rc";
    row.run = [](Bench& b) {
        return psp_extendMem_rc(b.given, b.row.size, b.tag, 1, 0, nullptr, &b.made, __FILE__,
                                __LINE__);
    };
    return row;
}

Row extend_nothing_row(PSP_ALLOCATOR_TYPE type, std::size_t size)
{
    Row row = get_row(type, size);
    row.functions = "psp_extendMem";
    row.run = [](Bench& b) { return b.keep(extend(nullptr, b.row.size, b.tag, 3)); };
    return row;
}

Row move_row(PSP_ALLOCATOR_TYPE type, std::size_t size)
{
    Row row = extend_row(type, size);
    row.functions = "psp_moveMem";
    row.jumps = Jumps::never;
    row.prepare = [](Bench& b) { fill_given(b, PSP_GLOBAL_TAG, b.row.size); };
    row.run = [](Bench& b) { return b.keep(move(b.given, b.row.size, b.tag, PSP_GLOBAL_TAG)); };
    row.verify = [](Bench& b) { EXPECT_TRUE(holds(b.made, b.row.size, 'k')); };
    row.refused = [](Bench& b) { EXPECT_TRUE(holds(b.given, b.row.size, 'k')); };
    return row;
}

// New contents for all of a block: the old ones need not move, but must be there after a failure.
Row extend_over_row(PSP_ALLOCATOR_TYPE type, std::size_t size)
{
    Row row = extend_row(type, size);
    row.run = [](Bench& b) {
        static const std::vector<char> contents(5 * mib, 'k');
        return b.keep(extend(b.given, b.row.size, b.tag, 5, 0, contents.data()));
    };
    row.verify = [](Bench& b) { EXPECT_TRUE(holds(b.made, b.row.size, 'k')); };
    return row;
}

// Blocks of a stack tag cannot be resized, with memory or without.
bool is_possible(Row (*make)(PSP_ALLOCATOR_TYPE, std::size_t), PSP_ALLOCATOR_TYPE type)
{
    return type != STACK_ALLOCATOR || make == get_row || make == get_rc_row ||
           make == extend_nothing_row || make == move_row;
}

void add_blocks(std::vector<Row>& rows)
{
    for (auto* make : {get_row, get_rc_row, extend_row, extend_nothing_row, extend_over_row,
                       extend_rc_row, move_row})
        for (const PSP_ALLOCATOR_TYPE type : all_types)
            for (const std::int16_t flags : {0, 1})
                for (const std::size_t size : sizes)
                    if (is_possible(make, type) && (flags == 1 || size < mib)) {
                        rows.push_back(make(type, size));
                        rows.back().flags = flags;
                    }
}

// ---- Tags ----

void destroy_made(Bench& bench)
{
    destroy_tag(bench.as<PSP_MEMTAG>());
}

ZYN_RETCODE create_rc(Bench& bench)
{
    PSP_MEMTAG made = nullptr;
    const ZYN_RETCODE code =
        psp_createTagEx_rc(nullptr, 1, bench.row.type, nullptr, nullptr, &made, __FILE__, __LINE__);
    EXPECT_EQ(made != nullptr, code == sOKAY);
    bench.made = made;
    return code;
}

void add_tags(std::vector<Row>& rows)
{
    const Row row = {.functions = "psp_createTagEx_rc",
                     .run = create_rc,
                     .refusals = {eNOMEMORY, ePSP_FAILURE},
                     .jumps = Jumps::never,
                     .undo = destroy_made};
    for (const PSP_ALLOCATOR_TYPE type : all_types) {
        rows.push_back(row);
        rows.back().type = type;
        if (type == LEGACY_ALLOCATOR)
            rows.back().ways = CHUNKS; // the record is the heap's
    }
    for (std::size_t i = 0; i < std::size(all_types); i++) {
        rows.push_back(rows[rows.size() - std::size(all_types)]);
        rows.back().functions = "psp_createTagEx";
        rows.back().refusals = {eNOMEMORY};
        rows.back().run = [](Bench& b) { return b.keep(make_tag(b.row.type, 1)); };
    }
}

// ---- A thread's first tag ----

// Puts the thread's tag aside: the next use makes another.
void forget_thread_tag(Bench& bench)
{
    bench.given = pthread_getspecific(tagTLSkey);
    pthread_setspecific(tagTLSkey, nullptr);
}

// The tag stays with its thread, even if the block for which it was made could not be had.
void destroy_thread_tag(Bench&)
{
    destroy_tag(static_cast<PSP_MEMTAG>(pthread_getspecific(tagTLSkey)));
    pthread_setspecific(tagTLSkey, nullptr);
}

void bring_thread_tag_back(Bench& bench)
{
    pthread_setspecific(tagTLSkey, bench.given);
}

// A tag that is not there has no jump buffer either.
void add_thread_tags(std::vector<Row>& rows)
{
    const Row row = {.functions = "psp_getTagMemInfo",
                     .run =
                         [](Bench&) {
                             PSP_TAG_MEM_INFO info;
                             return psp_getTagMemInfo(PSP_THREAD_TAG, &info);
                         },
                     .refusals = {ePSP_FAILURE},
                     .jumps = Jumps::never,
                     .prepare = forget_thread_tag,
                     .settle = destroy_thread_tag,
                     .undo = bring_thread_tag_back};
    rows.push_back(row);
    rows.push_back(row);
    rows.back().functions = "psp_resetTag";
    rows.back().refusals = {eNOMEMORY};
    rows.back().run = [](Bench&) {
        psp_resetTag(nullptr, PSP_THREAD_TAG);
        return done_if(pthread_getspecific(tagTLSkey) != nullptr);
    };
    rows.push_back(row);
    rows.back().functions = "psp_getMem";
    rows.back().refusals = {eNOMEMORY};
    rows.back().ways = CHUNKS;
    rows.back().run = [](Bench& b) { return b.keep(get(100, PSP_THREAD_TAG)); };
}

// ---- Pools ----

void construct(PSP_POOL_USERDATA, void* object)
{
    std::memset(object, 'n', 8);
}

ZYN_RETCODE create_pool(Bench& bench, PSP_MEMTAG tag, const char* lock)
{
    PSP_POOL pool = nullptr;
    const ZYN_RETCODE code =
        psp_poolCreateEx(tag, PSP_POOL_VAR_SIZE, lock, construct, nullptr, nullptr, &pool);
    EXPECT_EQ(pool != nullptr, code == sOKAY);
    bench.made = pool;
    return code;
}

void destroy_pool(Bench& bench)
{
    psp_poolDestroy(bench.as<PSP_POOL>());
}

void add_pools(std::vector<Row>& rows)
{
    rows.push_back({.functions = "psp_poolCreateEx",
                    .run = [](Bench& b) { return create_pool(b, nullptr, "lock"); },
                    .refusals = {eNOMEMORY, ePSP_FAILURE},
                    .jumps = Jumps::never, // its own tag has no buffer
                    .undo = destroy_pool});
    rows.push_back({.functions = "psp_poolCreateEx",
                    .run = [](Bench& b) { return create_pool(b, b.tag, "lock"); },
                    .refusals = {eNOMEMORY},
                    .undo = destroy_pool});
    for (const std::size_t size : sizes) {
        rows.push_back({.functions = "psp_poolGetMem",
                        .run =
                            [](Bench& b) {
                                b.given = psp_poolGetMem(b.as<PSP_POOL>(), b.row.size, 1, nullptr,
                                                         __FILE__, __LINE__);
                                return done_if(b.given != nullptr);
                            },
                        .refusals = {eNOMEMORY},
                        .prepare = [](Bench& b) { create_pool(b, b.tag, "lock"); },
                        .verify = [](Bench& b) { EXPECT_TRUE(holds(b.given, 8, 'n')); },
                        .undo =
                            [](Bench& b) {
                                psp_poolPut(b.as<PSP_POOL>(), b.given);
                                destroy_pool(b);
                            },
                        .size = size});
        rows.push_back(rows.back());
        rows.back().jumps = Jumps::never;
        rows.back().prepare = [](Bench& b) { create_pool(b, nullptr, nullptr); };
    }
}

// ---- The registry ----

ZYN_RETCODE get_global(Bench& bench, const char* name)
{
    return psp_globalGet(name, 64, nullptr, nullptr, &bench.made);
}

constexpr long entry = 32; // bytes of a name's entry; the list grows by five

void add_registry(std::vector<Row>& rows)
{
    rows.push_back({.functions = "psp_globalGet",
                    .run = [](Bench& b) { return get_global(b, "name"); },
                    .refusals = {eNOMEMORY},
                    .verify = [](Bench& b) { EXPECT_TRUE(holds(b.made, 64, 0)); },
                    .restarts = true});
    // The library's own name and the test's are there. A list that cannot grow is given up, one
    // that has grown stays: the registry keeps no way back.
    rows.push_back({.functions = "psp_globalGet",
                    .run = [](Bench& b) { return get_global(b, "sixth"); },
                    .refusals = {eNOMEMORY},
                    .prepare =
                        [](Bench& b) {
                            for (const char* name : {"third", "fourth", "fifth"})
                                ASSERT_EQ(get_global(b, name), sOKAY);
                        },
                    .kept = {-5 * entry, 5 * entry},
                    .restarts = true});
}

// ---- Threads and random numbers ----

ZYN_RETCODE body(void* arg)
{
    static_cast<Bench*>(arg)->count++;
    return sOKAY;
}

void join(Bench& bench)
{
    EXPECT_EQ(psp_threadJoin(&bench.thread), sOKAY);
}

void add_threads_and_numbers(std::vector<Row>& rows)
{
    rows.push_back(
        {.functions = "psp_threadBeginEx",
         .run = [](Bench& b) { return psp_threadBeginEx(body, 0, &b, &b.thread, 0, nullptr); },
         .refusals = {ePSP_FAILURE},
         .jumps = Jumps::never,
         .refused = [](Bench& b) { EXPECT_EQ(b.count, 0u); },
         .undo = join,
         .ways = HEAP,
         .system = {"pthread_create"}});
    rows.push_back(rows.back());
    rows.back().functions = "psp_threadBegin";
    rows.back().run = [](Bench& b) { return psp_threadBegin(body, 0, &b, nullptr, &b.thread); };

    // The lock that it takes for good shows as soon as it succeeds, hence the restarts.
    rows.push_back({.functions = "psp_randCreate",
                    .run = [](Bench& b) { return b.keep(psp_randCreate(1)); },
                    .refusals = {eNOMEMORY},
                    .undo = [](Bench& b) { psp_randDestroy(b.as<PSP_RAND>()); },
                    .restarts = true});
    rows.push_back(rows.back());
    rows.back().functions = "psp_randCreateNoSem";
    rows.back().run = [](Bench& b) { return b.keep(psp_randCreateNoSem(1)); };
    rows.back().restarts = false;
}

} // namespace

std::vector<Row> memory_rows()
{
    std::vector<Row> rows;
    add_blocks(rows);
    add_tags(rows);
    add_thread_tags(rows);
    add_pools(rows);
    add_registry(rows);
    add_threads_and_numbers(rows);
    return rows;
}

std::vector<Row> ending_rows()
{
    return {
        {.functions = "psp_syncCreate_check",
         .run =
             [](Bench&) {
                 return done_if(psp_syncCreate_check(PSP_SEM_EVENT, __FILE__, __LINE__) !=
                                PSP_SEM_INVALID);
             },
         .refusals = {}},
        {.functions = "psp_fileLock",
         .run = [](Bench& b) { return psp_fileLock(b.as<PSP_FH>()); },
         .refusals = {},
         .prepare = [](Bench& b) { b.made = psp_fileOpen(b.file.c_str(), O_RDWR | O_CREAT, 0); }},
        {.functions = "psp_createTagEx_rc",
         .run = create_rc,
         .refusals = {eNOMEMORY, ePSP_FAILURE}},
        {.functions = "psp_poolCreateEx",
         .run = [](Bench& b) { return create_pool(b, nullptr, "lock"); },
         .refusals = {eNOMEMORY, ePSP_FAILURE}},
        {.functions = "psp_randCreate",
         .run = [](Bench& b) { return b.keep(psp_randCreate(1)); },
         .refusals = {eNOMEMORY}},
        {.functions = "psp_log_initCtx",
         .run = [](Bench& b) { return psp_log_initCtx(&b.log); },
         .refusals = {eNOMEMORY, eFILEOPEN, sOKAY}},
    };
}

} // namespace psptest
