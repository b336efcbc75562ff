// Memory tags beside heaps and arenas.
//
// A process with a single thread lets the C library skip its locks; every row runs with a second
// one alive, which is how servers run. Blocks that are freed by their tag stand beside arenas that
// are freed in one piece, and beside the same blocks freed one by one.

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <random>

#ifdef PSP_PEER_APR
#include <apr_general.h>
#include <apr_pools.h>
#endif
#ifdef PSP_PEER_TALLOC
#include <talloc.h>
#endif

#include "heaps.h"

namespace {

using bench::Heap;
using bench::NO_GOAL;
using bench::Registered;
using bench::Row;

constexpr size_t BLOCK = 64;
constexpr size_t MANY = 1'000'000;

PSP_MEMTAG new_tag(PSP_ALLOCATOR_TYPE type, int16_t flags = 0)
{
    return psp_createTagEx(nullptr, flags, type, nullptr, nullptr, __FILE__, __LINE__);
}

void* get_block(PSP_MEMTAG tag, size_t size)
{
    return psp_getMem(size, tag, PSP_MEM_PLAIN, nullptr, __FILE__, __LINE__);
}

void free_block(PSP_MEMTAG tag, void* block)
{
    psp_freeMem(block, tag, __FILE__, __LINE__);
}

// The first bytes are written, as somebody who asked for memory does.
void use(void* block)
{
    if (!block)
        std::abort();
    *static_cast<size_t*>(block) = 0;
    benchmark::DoNotOptimize(block);
}

// ---- One block, allocated and freed again ----

using Sizes = std::array<size_t, 8>; // in turn

constexpr Sizes same(size_t size)
{
    Sizes sizes{};
    sizes.fill(size);
    return sizes;
}

constexpr Sizes MIXED = {16, 400, 48, 100, 24, 200, 64, 320};

template <class Get, class Put>
bench::Work pairs(Sizes sizes, Get get, Put put)
{
    return [=](size_t n) {
        for (size_t i = 0; i < n; ++i) {
            void* block = get(sizes[i % sizes.size()]);
            benchmark::DoNotOptimize(block);
            put(block);
        }
    };
}

bench::Work tag_pairs(Sizes sizes, PSP_MEMTAG tag)
{
    return pairs(
        sizes, [tag](size_t size) { return get_block(tag, size); },
        [tag](void* block) { free_block(tag, block); });
}

void against_heaps(Row& row, Sizes sizes, const std::map<std::string, double>& goals)
{
    for (const auto& [name, heap] : bench::heaps()) {
        const auto goal = goals.find(name);
        row.peer(name, pairs(sizes, heap.get, heap.put),
                 goal == goals.end() ? NO_GOAL : goal->second);
    }
}

void private_pair(Row& row, Sizes sizes)
{
    const bench::Server server;
    row.psp(tag_pairs(sizes, new_tag(BLOCK_ALLOCATOR)));
    against_heaps(row, sizes, {{"glibc", 0.7}, {"mimalloc", 1.0}, {"tcmalloc", 1.15}});
    row.run();
}

// The least that a thread's own tag costs: its key is read and written for either half of a pair.
bench::Work key_pairs(pthread_key_t key)
{
    const auto use = [key] {
        void* value = pthread_getspecific(key);
        benchmark::DoNotOptimize(value);
        pthread_setspecific(key, value);
    };
    return [use](size_t n) {
        for (size_t i = 0; i < n; ++i) {
            use();
            use();
        }
    };
}

void thread_pair(Row& row)
{
    const bench::Server server;
    row.psp(tag_pairs(same(BLOCK), PSP_THREAD_TAG));
    pthread_key_t key = 0;
    pthread_key_create(&key, nullptr);
    pthread_setspecific(key, &key);
    row.peer("keys alone", key_pairs(key));
    against_heaps(row, same(BLOCK), {{"glibc", 1.2}});
    row.run();
    pthread_key_delete(key);
}

// The least that sharing costs: a lock around each end of a free list.
class LockedList {
  public:
    LockedList()
    {
        put(&only_);
    }
    void* get()
    {
        pthread_mutex_lock(&mutex_);
        Node* const node = head_;
        head_ = node->next;
        pthread_mutex_unlock(&mutex_);
        return node;
    }
    void put(void* block)
    {
        auto* const node = static_cast<Node*>(block);
        pthread_mutex_lock(&mutex_);
        node->next = head_;
        head_ = node;
        pthread_mutex_unlock(&mutex_);
    }

  private:
    struct Node {
        Node* next;
        char rest[BLOCK - sizeof(Node*)];
    };
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    Node only_{};
    Node* head_ = nullptr;
};

void shared_pair(Row& row, PSP_MEMTAG tag)
{
    LockedList list;
    row.psp(tag_pairs(same(BLOCK), tag));
    row.peer("locked list",
             pairs(
                 same(BLOCK), [&list](size_t) { return list.get(); },
                 [&list](void* block) { list.put(block); }),
             1.5);
    against_heaps(row, same(BLOCK), {});
    row.run();
}

void mutex_pair(Row& row)
{
    const bench::Server server;
    shared_pair(row, new_tag(BLOCK_ALLOCATOR, 1));
}

void global_pair(Row& row)
{
    const bench::Server server;
    shared_pair(row, PSP_GLOBAL_TAG);
}

const Registered pair_rows[] = {
    {"mem", "pair of 16 B", "ns/pair", [](Row& row) { private_pair(row, same(16)); }},
    {"mem", "pair of 64 B", "ns/pair", [](Row& row) { private_pair(row, same(64)); }},
    {"mem", "pair of 400 B", "ns/pair", [](Row& row) { private_pair(row, same(400)); }},
    {"mem", "pairs of 16 to 400 B", "ns/pair", [](Row& row) { private_pair(row, MIXED); }},
    {"mem", "pair of 64 B, thread tag", "ns/pair", thread_pair},
    {"mem", "pair of 64 B, tag with a mutex", "ns/pair", mutex_pair},
    {"mem", "pair of 64 B, global tag", "ns/pair", global_pair},
};

// ---- Many live blocks ----

// A cheap source of chance: what it costs counts on every side.
class Chance {
  public:
    size_t below(size_t limit)
    {
        state_ = state_ * 6364136223846793005U + 1442695040888963407U;
        return (state_ >> 32) * limit >> 32;
    }

  private:
    uint64_t state_ = 1;
};

// Live blocks of random sizes.
template <class Get, class Put>
class Crowd {
  public:
    Crowd(size_t live, Get get, Put put) : get_(get), put_(put), blocks_(live)
    {
        for (void*& block : blocks_)
            block = some();
    }
    ~Crowd()
    {
        for (void* block : blocks_)
            put_(block);
    }
    Crowd(const Crowd&) = delete;
    Crowd& operator=(const Crowd&) = delete;

    // Frees a block in a random place, and puts another into it.
    void replace()
    {
        void*& block = blocks_[chance_.below(blocks_.size())];
        put_(block);
        block = some();
    }

  private:
    void* some()
    {
        void* const block = get_(16 + chance_.below(1009));
        use(block);
        return block;
    }

    Get get_;
    Put put_;
    Chance chance_{};
    std::vector<void*> blocks_;
};

template <class Get, class Put>
bench::Work replacements(size_t live, Get get, Put put)
{
    return [crowd = std::make_shared<Crowd<Get, Put>>(live, get, put)](size_t n) {
        for (size_t i = 0; i < n; ++i)
            crowd->replace();
    };
}

void random_sizes(Row& row, size_t live)
{
    const bench::Server server;
    const PSP_MEMTAG tag = new_tag(BLOCK_ALLOCATOR);
    row.psp(replacements(
        live, [tag](size_t size) { return get_block(tag, size); },
        [tag](void* block) { free_block(tag, block); }));
    for (const auto& [name, heap] : bench::heaps())
        row.peer(name, replacements(live, heap.get, heap.put), name == "glibc" ? 0.8 : NO_GOAL);
    row.run();
}

const Registered random_rows[] = {
    {"mem", "random sizes, 10 k live", "ns/block", [](Row& row) { random_sizes(row, 10'000); }},
    {"mem", "random sizes, 1 M live", "ns/block", [](Row& row) { random_sizes(row, MANY); }},
};

// ---- Many blocks that go together ----

// Each arena is made, gives `count` blocks, and ends with them.

constexpr size_t FEW = 1000;
constexpr size_t LOTS = 100'000;

void tag_arena(PSP_ALLOCATOR_TYPE type, size_t count)
{
    const PSP_MEMTAG tag = new_tag(type);
    for (size_t i = 0; i < count; ++i)
        use(get_block(tag, BLOCK));
    psp_freeTagMem(tag, ZYN_TRUE, __FILE__, __LINE__);
}

#ifdef PSP_HEAP_MIMALLOC
void mimalloc_arena(size_t count)
{
    static const auto make = bench::function_of<void*()>(PSP_HEAP_MIMALLOC, "mi_heap_new");
    static const auto end = bench::function_of<void(void*)>(PSP_HEAP_MIMALLOC, "mi_heap_destroy");
    static const auto get =
        bench::function_of<void*(void*, size_t)>(PSP_HEAP_MIMALLOC, "mi_heap_malloc");
    void* const heap = make();
    for (size_t i = 0; i < count; ++i)
        use(get(heap, BLOCK));
    end(heap);
}
#endif

#ifdef PSP_PEER_APR
void apr_arena(size_t count)
{
    apr_pool_t* pool = nullptr;
    apr_pool_create(&pool, nullptr);
    for (size_t i = 0; i < count; ++i)
        use(apr_palloc(pool, BLOCK));
    apr_pool_destroy(pool);
}
#endif

#ifdef PSP_PEER_TALLOC
void talloc_arena(size_t count)
{
    void* const context = talloc_new(nullptr);
    for (size_t i = 0; i < count; ++i)
        use(talloc_size(context, BLOCK));
    talloc_free(context);
}
#endif

template <class Arena>
bench::Work repeated(size_t count, Arena arena)
{
    return [=](size_t n) {
        for (size_t i = 0; i < n; ++i)
            arena(count);
    };
}

void tag_row(Row& row, PSP_ALLOCATOR_TYPE type, size_t count, double goal)
{
    const bench::Server server;
    row.psp(repeated(count, [type](size_t blocks) { tag_arena(type, blocks); }));
#ifdef PSP_HEAP_MIMALLOC
    row.peer("mimalloc", repeated(count, mimalloc_arena));
#endif
#ifdef PSP_PEER_APR
    apr_initialize();
    row.peer("apr", repeated(count, apr_arena));
#endif
    row.best_peer(goal);
    row.divide_by(static_cast<double>(count));
    row.run();
}

// Blocks that nobody touches: what the caches hold does not count, the number of chunks alone does.
void untouched(Row& row, size_t count)
{
    const bench::Server server;
    row.psp(repeated(count, [](size_t blocks) {
        const PSP_MEMTAG tag = new_tag(STACK_ALLOCATOR);
        for (size_t i = 0; i < blocks; ++i)
            benchmark::DoNotOptimize(get_block(tag, BLOCK));
        psp_freeTagMem(tag, ZYN_TRUE, __FILE__, __LINE__);
    }));
    if (count != FEW)
        row.growth_from("mem/stack tag, 1 k untouched blocks", 1.5);
    row.divide_by(static_cast<double>(count));
    row.run();
}

void small_tag(Row& row)
{
    const bench::Server server;
    constexpr size_t count = 10;
    row.psp(repeated(count, [](size_t blocks) { tag_arena(BLOCK_ALLOCATOR, blocks); }));
#ifdef PSP_PEER_TALLOC
    row.peer("talloc", repeated(count, talloc_arena), 0.9);
#endif
#ifdef PSP_PEER_APR
    apr_initialize();
    row.peer("apr", repeated(count, apr_arena), 2.0);
#endif
    row.run();
}

void by_tag(Row& row, bool in_order)
{
    const bench::Server server;
    const PSP_MEMTAG tag = new_tag(BLOCK_ALLOCATOR);
    std::vector<void*> blocks(MANY);
    std::mt19937 random(1);
    const auto fill = [&] {
        for (void*& block : blocks)
            block = get_block(tag, BLOCK);
        if (!in_order)
            std::shuffle(blocks.begin(), blocks.end(), random);
    };
    row.psp([tag](size_t) { psp_freeTagMem(tag, ZYN_FALSE, __FILE__, __LINE__); }, fill);
    row.peer(
        "one by one",
        [&](size_t) {
            for (void* block : blocks)
                free_block(tag, block);
        },
        0.05, fill);
    row.batch(1);
    row.divide_by(static_cast<double>(MANY));
    row.run();
}

Registered arena_row(const std::string& kind, PSP_ALLOCATOR_TYPE type, size_t count, double goal)
{
    const std::string blocks = count == FEW ? "1 k" : "100 k";
    return {"mem", blocks + " blocks, then their " + kind + " tag", "ns/block",
            [=](Row& row) { tag_row(row, type, count, goal); }};
}

const Registered arena_rows[] = {
    arena_row("block", BLOCK_ALLOCATOR, FEW, 1.3),
    arena_row("block", BLOCK_ALLOCATOR, LOTS, 1.3),
    arena_row("stack", STACK_ALLOCATOR, FEW, 1.5),
    arena_row("stack", STACK_ALLOCATOR, LOTS, 1.5),
    arena_row("list", LIST_ALLOCATOR, FEW, NO_GOAL),
    arena_row("list", LIST_ALLOCATOR, LOTS, NO_GOAL),
    {"mem", "stack tag, 1 k untouched blocks", "ns/block", [](Row& row) { untouched(row, FEW); }},
    {"mem", "stack tag, 100 k untouched blocks", "ns/block",
     [](Row& row) { untouched(row, LOTS); }},
    {"mem", "a tag, ten blocks, their tag", "ns/tag", small_tag},
    {"mem", "1 M blocks by their tag, in order", "ns/block", [](Row& row) { by_tag(row, true); }},
    {"mem", "1 M blocks by their tag, shuffled", "ns/block", [](Row& row) { by_tag(row, false); }},
};

// ---- A block that grows ----

// Blocks grow in turns: with one alone, the end of its heap is free behind it all the time, and
// nothing ever needs to move.
template <class Resize, class Put>
bench::Work growth(size_t blocks, Resize resize, Put put)
{
    return [=](size_t n) {
        for (size_t i = 0; i < n; ++i) {
            std::array<void*, 2> grown{};
            for (size_t size = 16; size <= 65536; size *= 2) {
                for (size_t k = 0; k < blocks; ++k)
                    use(grown[k] = resize(grown[k], size));
            }
            for (size_t k = 0; k < blocks; ++k)
                put(grown[k]);
        }
    };
}

void resize(Row& row, size_t blocks)
{
    const bench::Server server;
    const PSP_MEMTAG tag = new_tag(BLOCK_ALLOCATOR);
    row.psp(growth(
        blocks,
        [tag](void* block, size_t size) {
            return psp_extendMem(block, size, tag, PSP_MEM_PLAIN, 0, nullptr, __FILE__, __LINE__);
        },
        [tag](void* block) { free_block(tag, block); }));
    row.peer("glibc", growth(blocks, std::realloc, std::free), 2.5);
    row.divide_by(static_cast<double>(blocks));
    row.run();
}

const Registered resize_rows[] = {
    {"mem", "16 B to 64 KiB, doubled", "ns/block", [](Row& row) { resize(row, 1); }},
    {"mem", "16 B to 64 KiB, two in turns", "ns/block", [](Row& row) { resize(row, 2); }},
};

} // namespace
