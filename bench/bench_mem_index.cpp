// What best fit costs, from a hundred live blocks to a million: a live block, any of them, is
// freed, and one of any size allocated in its place.
//
// Small blocks come from a list tag, large ones from a block tag or a list tag, which both pass
// them on to the layer below. Which block and which size is drawn before. The sides fill up before
// the clock starts and are churned for a while, so that what is free has the shape that it keeps.

#include "row.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

namespace {

using bench::Registered;
using bench::Row;

constexpr size_t DRAWS = 1 << 18;
constexpr size_t MOST_CHURNED = 200'000;

struct Sizes {
    uint32_t least;
    uint32_t most;
};

constexpr Sizes SMALL = {16, 1024};
constexpr Sizes LARGE = {16 << 10, 1 << 20};

// A tag, or the C library's heap for NULL.
class Memory {
  public:
    explicit Memory(PSP_MEMTAG tag) : tag_(tag) {}

    void* get(size_t size) const
    {
        return tag_ ? psp_getMem(size, tag_, PSP_MEM_PLAIN, nullptr, __FILE__, __LINE__)
                    : malloc(size);
    }
    void put(void* block) const
    {
        if (tag_)
            psp_freeMem(block, tag_, __FILE__, __LINE__);
        else
            free(block);
    }

  private:
    PSP_MEMTAG tag_;
};

// Live blocks of one side.
class Churn {
  public:
    Churn(PSP_MEMTAG tag, size_t live, Sizes sizes) : memory_(tag), sizes_(sizes), blocks_(live)
    {
        for (void*& block : blocks_)
            block = memory_.get(size());
        for (Draw& draw : draws_)
            draw = {static_cast<uint32_t>(random_() % live), size()};
        work(std::min(2 * live, MOST_CHURNED));
    }
    ~Churn()
    {
        for (void* block : blocks_)
            memory_.put(block);
    }
    Churn(const Churn&) = delete;
    Churn& operator=(const Churn&) = delete;

    void work(size_t n)
    {
        for (size_t i = 0; i < n; ++i) {
            const Draw draw = draws_[next_++ % DRAWS];
            memory_.put(blocks_[draw.block]);
            blocks_[draw.block] = memory_.get(draw.size);
        }
    }

  private:
    struct Draw {
        uint32_t block;
        uint32_t size;
    };

    uint32_t size()
    {
        return sizes_.least + static_cast<uint32_t>(random_() % (sizes_.most - sizes_.least + 1));
    }

    Memory memory_;
    Sizes sizes_;
    std::mt19937 random_{1};
    std::vector<void*> blocks_;
    std::vector<Draw> draws_{DRAWS};
    size_t next_ = 0;
};

struct Goals {
    double heap = bench::NO_GOAL;
    const char* grows_from = nullptr;
    double growth = bench::NO_GOAL;
};

void churn(Row& row, PSP_ALLOCATOR_TYPE type, size_t live, Sizes sizes, Goals goals)
{
    const bench::Server server;
    const PSP_MEMTAG tag = psp_createTagEx(nullptr, 0, type, nullptr, nullptr, __FILE__, __LINE__);
    Churn tagged(tag, live, sizes);
    Churn heap(nullptr, live, sizes);
    row.psp([&](size_t n) { tagged.work(n); });
    row.peer(
        "malloc", [&](size_t n) { heap.work(n); }, goals.heap);
    if (goals.grows_from)
        row.growth_from(goals.grows_from, goals.growth);
    row.run();
}

void small(Row& row, size_t live, Goals goals = {})
{
    churn(row, LIST_ALLOCATOR, live, SMALL, goals);
}

void large(Row& row, PSP_ALLOCATOR_TYPE type, size_t live, Goals goals = {})
{
    row.batch(200);
    churn(row, type, live, LARGE, goals);
}

constexpr Goals SMALL_GOALS = {6, nullptr, bench::NO_GOAL};

const Registered rows[] = {
    {"best fit", "list tag, 100 live", "ns/pair", [](Row& row) { small(row, 100); }},
    {"best fit", "list tag, 1 k live", "ns/pair", [](Row& row) { small(row, 1000, SMALL_GOALS); }},
    {"best fit", "list tag, 10 k live", "ns/pair",
     [](Row& row) { small(row, 10'000, SMALL_GOALS); }},
    {"best fit", "list tag, 100 k live", "ns/pair", [](Row& row) { small(row, 100'000); }},
    {"best fit", "list tag, 1 M live", "ns/pair",
     [](Row& row) {
         small(row, 1'000'000, {6, "best fit/list tag, 1 k live", 8});
     }},
    {"best fit", "large blocks, block tag, 100 live", "ns/pair",
     [](Row& row) { large(row, BLOCK_ALLOCATOR, 100); }},
    {"best fit", "large blocks, block tag, 1 k live", "ns/pair",
     [](Row& row) { large(row, BLOCK_ALLOCATOR, 1000); }},
    {"best fit", "large blocks, block tag, 10 k live", "ns/pair",
     [](Row& row) { large(row, BLOCK_ALLOCATOR, 10'000, {1}); }},
    {"best fit", "large blocks, block tag, 100 k live", "ns/pair",
     [](Row& row) {
         large(row, BLOCK_ALLOCATOR, 100'000, {1, "best fit/large blocks, block tag, 100 live", 8});
     }},
    {"best fit", "large blocks, list tag, 100 live", "ns/pair",
     [](Row& row) { large(row, LIST_ALLOCATOR, 100); }},
    {"best fit", "large blocks, list tag, 1 k live", "ns/pair",
     [](Row& row) { large(row, LIST_ALLOCATOR, 1000); }},
    {"best fit", "large blocks, list tag, 10 k live", "ns/pair",
     [](Row& row) { large(row, LIST_ALLOCATOR, 10'000, {1}); }},
    {"best fit", "large blocks, list tag, 100 k live", "ns/pair",
     [](Row& row) {
         large(row, LIST_ALLOCATOR, 100'000, {1, "best fit/large blocks, list tag, 100 live", 8});
     }},
};

} // namespace
