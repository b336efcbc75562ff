// Mutexes of the library against recursive mutexes of the system.
//
// Both sides take turns in batches of the same run, so that a disturbance of the machine meets
// both, and each side counts with the median of its batches. The counters `psp_ns` and `peer_ns`
// tell the time of one pair of enter and exit, `ratio` the first by the second: at most 1.25 for a
// free mutex, at most 0.8 for one that the thread holds already.
//
// A process with a single thread lets the system skip the atomic instruction for plain mutexes; the
// second set of runs keeps another thread alive, which is how servers run.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <thread>
#include <vector>

#include "psp.h"

namespace {

constexpr int PAIRS_A_BATCH = 1000;

class SystemMutex {
  public:
    SystemMutex()
    {
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&mutex_, &attr);
        pthread_mutexattr_destroy(&attr);
    }
    ~SystemMutex()
    {
        pthread_mutex_destroy(&mutex_);
    }
    SystemMutex(const SystemMutex&) = delete;
    SystemMutex& operator=(const SystemMutex&) = delete;

    void enter()
    {
        pthread_mutex_lock(&mutex_);
    }
    void exit()
    {
        pthread_mutex_unlock(&mutex_);
    }

  private:
    pthread_mutex_t mutex_;
};

class LibraryMutex {
  public:
    LibraryMutex() : sem_(psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__)) {}
    ~LibraryMutex()
    {
        psp_syncDelete(sem_);
    }
    LibraryMutex(const LibraryMutex&) = delete;
    LibraryMutex& operator=(const LibraryMutex&) = delete;

    void enter()
    {
        psp_syncEnterExcl(sem_);
    }
    void exit()
    {
        psp_syncExitExcl(sem_);
    }

  private:
    PSP_SEM sem_;
};

// Nanoseconds of one pair.
template <class Mutex>
double timeBatch(Mutex& mutex)
{
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < PAIRS_A_BATCH; ++i) {
        mutex.enter();
        benchmark::ClobberMemory(); // the work under the lock, which may not move out
        mutex.exit();
    }
    const std::chrono::duration<double, std::nano> elapsed =
        std::chrono::steady_clock::now() - begin;
    return elapsed.count() / PAIRS_A_BATCH;
}

double median(std::vector<double>& values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

void compare(benchmark::State& state, LibraryMutex& library, SystemMutex& system)
{
    std::vector<double> psp;
    std::vector<double> peer;
    for (auto _ : state) {
        psp.push_back(timeBatch(library));
        peer.push_back(timeBatch(system));
    }
    state.counters["psp_ns"] = median(psp);
    state.counters["peer_ns"] = median(peer);
    state.counters["ratio"] = median(psp) / median(peer);
}

void freeMutex(benchmark::State& state)
{
    LibraryMutex library;
    SystemMutex system;
    compare(state, library, system);
}

void nestedEntry(benchmark::State& state)
{
    LibraryMutex library;
    SystemMutex system;
    library.enter();
    system.enter();
    compare(state, library, system);
    system.exit();
    library.exit();
}

using Benchmark = void (*)(benchmark::State&);

void inOneThread(benchmark::State& state, Benchmark run)
{
    if (psp_init() != sOKAY) {
        state.SkipWithError("psp_init failed");
        return;
    }
    run(state);
    psp_term();
}

void besideAThread(benchmark::State& state, Benchmark run)
{
    pthread_mutex_t gate = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&gate);
    std::thread other([&gate] {
        pthread_mutex_lock(&gate);
        pthread_mutex_unlock(&gate);
    });
    inOneThread(state, run);
    pthread_mutex_unlock(&gate);
    other.join();
}

BENCHMARK_CAPTURE(inOneThread, free, freeMutex);
BENCHMARK_CAPTURE(inOneThread, nested, nestedEntry);
BENCHMARK_CAPTURE(besideAThread, free, freeMutex);
BENCHMARK_CAPTURE(besideAThread, nested, nestedEntry);

} // namespace
