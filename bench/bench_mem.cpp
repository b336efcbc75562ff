// Memory tags and pools of the library against the C library's heap.
//
// Both sides take turns in batches of the same run, so that a disturbance of the machine meets
// both, and each side counts with the median of its batches. The counters `psp_ns` and `peer_ns`
// tell the time of one step, `ratio` the first by the second:
// - blockPair: one block of 64 bytes allocated and freed again; at most 1.
// - stackAllocation: one block allocated, of a run that is released in the end (not timed); at most
//   0.7. Sizes from 24 to 64 bytes, which fill their chunks, and 40, which leaves a rest in each.
// - poolPair: one object of 64 bytes taken from a pool and put back; at most 0.7.
// - freeTag: a million blocks released with their tag, against one by one in the order of their
//   allocation, or in none; at most 0.05.
//
// A process with a single thread lets the heap skip its locks; another thread is kept alive, which
// is how servers run.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include <malloc.h>

#include "psp.h"

namespace {

constexpr size_t BLOCK = 64;
constexpr size_t STEPS = 1000;
constexpr size_t MANY_BLOCKS = 1'000'000;

// Nanoseconds of one of `steps` steps.
template <class Work>
double timeOf(size_t steps, Work work)
{
    const auto begin = std::chrono::steady_clock::now();
    work();
    const std::chrono::duration<double, std::nano> elapsed =
        std::chrono::steady_clock::now() - begin;
    return elapsed.count() / static_cast<double>(steps);
}

double median(std::vector<double>& values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

// The two sides of a comparison, batch by batch.
struct Times {
    std::vector<double> psp;
    std::vector<double> peer;

    void report(benchmark::State& state)
    {
        state.counters["psp_ns"] = median(psp);
        state.counters["peer_ns"] = median(peer);
        state.counters["ratio"] = median(psp) / median(peer);
    }
};

// The library, started, with another thread alive.
class Server {
  public:
    Server()
    {
        pthread_mutex_lock(&gate_);
        other_ = std::thread([this] {
            pthread_mutex_lock(&gate_);
            pthread_mutex_unlock(&gate_);
        });
        started_ = psp_init() == sOKAY;
    }
    ~Server()
    {
        if (started_)
            psp_term();
        pthread_mutex_unlock(&gate_);
        other_.join();
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    PSP_MEMTAG tag(PSP_ALLOCATOR_TYPE type)
    {
        return psp_createTagEx(nullptr, 0, type, nullptr, nullptr, __FILE__, __LINE__);
    }

  private:
    pthread_mutex_t gate_ = PTHREAD_MUTEX_INITIALIZER;
    std::thread other_;
    bool started_ = false;
};

void* getBlock(PSP_MEMTAG tag, size_t size)
{
    return psp_getMem(size, tag, PSP_MEM_PLAIN, nullptr, __FILE__, __LINE__);
}

template <class Pair>
double timePairs(Pair pair)
{
    return timeOf(STEPS, [&] {
        for (size_t i = 0; i < STEPS; ++i)
            pair();
    });
}

double timeHeapPairs()
{
    return timePairs([] {
        void* block = malloc(BLOCK);
        benchmark::DoNotOptimize(block);
        free(block);
    });
}

void blockPair(benchmark::State& state)
{
    Server server;
    const PSP_MEMTAG tag = server.tag(BLOCK_ALLOCATOR);
    Times times;
    for (auto _ : state) {
        times.psp.push_back(timePairs([tag] {
            void* block = getBlock(tag, BLOCK);
            benchmark::DoNotOptimize(block);
            psp_freeMem(block, tag, __FILE__, __LINE__);
        }));
        times.peer.push_back(timeHeapPairs());
    }
    times.report(state);
}

void poolPair(benchmark::State& state)
{
    Server server;
    PSP_POOL pool = nullptr;
    if (psp_poolCreateEx(nullptr, PSP_POOL_FIXED_SIZE, nullptr, nullptr, nullptr, nullptr, &pool) !=
        sOKAY) {
        state.SkipWithError("no pool");
        return;
    }
    Times times;
    for (auto _ : state) {
        times.psp.push_back(timePairs([pool] {
            void* object = psp_poolGetMem(pool, BLOCK, PSP_MEM_PLAIN, nullptr, __FILE__, __LINE__);
            benchmark::DoNotOptimize(object);
            psp_poolPut(pool, object);
        }));
        times.peer.push_back(timeHeapPairs());
    }
    times.report(state);
}

// Runs of allocations, released after the clock stopped.
void stackAllocation(benchmark::State& state)
{
    Server server;
    const PSP_MEMTAG tag = server.tag(STACK_ALLOCATOR);
    const auto size = static_cast<size_t>(state.range(0));
    std::vector<void*> blocks(STEPS);
    Times times;
    for (auto _ : state) {
        times.psp.push_back(timeOf(STEPS, [&] {
            for (void*& block : blocks)
                block = getBlock(tag, size);
        }));
        psp_freeTagMem(tag, ZYN_FALSE, __FILE__, __LINE__);
        times.peer.push_back(timeOf(STEPS, [&] {
            for (void*& block : blocks)
                block = malloc(size);
        }));
        for (void* block : blocks)
            free(block);
    }
    times.report(state);
}

void fill(PSP_MEMTAG tag, std::vector<void*>& blocks)
{
    for (void*& block : blocks)
        block = getBlock(tag, BLOCK);
}

// Makes the heap keep what is freed, as it does anyway in a process with other memory in use above.
// Otherwise it hands its empty end to the system, and the system's time for 70 megabytes of pages,
// some milliseconds, is all that would be seen.
void keepHeap()
{
    mallopt(M_MMAP_THRESHOLD, 32 * 1024 * 1024);
    mallopt(M_TRIM_THRESHOLD, 1024 * 1024 * 1024);
}

void freeTag(benchmark::State& state, bool in_order)
{
    Server server;
    const PSP_MEMTAG tag = server.tag(BLOCK_ALLOCATOR);
    std::vector<void*> blocks(MANY_BLOCKS);
    keepHeap();
    std::mt19937 random(1);
    Times times;
    for (auto _ : state) {
        fill(tag, blocks);
        if (!in_order)
            std::shuffle(blocks.begin(), blocks.end(), random);
        times.peer.push_back(timeOf(MANY_BLOCKS, [&] {
            for (void* block : blocks)
                psp_freeMem(block, tag, __FILE__, __LINE__);
        }));
        fill(tag, blocks);
        times.psp.push_back(
            timeOf(MANY_BLOCKS, [&] { psp_freeTagMem(tag, ZYN_FALSE, __FILE__, __LINE__); }));
    }
    times.report(state);
}

BENCHMARK(blockPair);
BENCHMARK(poolPair);
BENCHMARK(stackAllocation)->Arg(24)->Arg(40)->Arg(64);
BENCHMARK_CAPTURE(freeTag, inOrder, true)->Iterations(10);
BENCHMARK_CAPTURE(freeTag, shuffled, false)->Iterations(10);

} // namespace
