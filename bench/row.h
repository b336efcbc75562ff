// A row of the benchmark's table: the library and its peers doing the same work in turns.
//
// Every side works in batches. The batches of all sides alternate until the row's time is over, so
// that a disturbance of the machine meets all of them, and each side counts with the median of its
// batches. The order of the sides rotates from round to round. Goals are ratios of the library's
// figure to another figure of the same run.
//
//     void integer(Row& row)
//     {
//         row.psp([](size_t n) { ... n calls ... });
//         row.peer("snprintf", [](size_t n) { ... n calls ... }, 0.5);
//         row.run();
//     }
//     const Registered integer_row("format", "%d", "ns/call", integer);
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <pthread.h>

#include "psp.h"

namespace bench {

// Does a side's work `n` times.
using Work = std::function<void(size_t n)>;

// Runs before a batch, outside the clock.
using Prepare = std::function<void()>;

// No goal is set against a peer.
inline constexpr double NO_GOAL = 0;

struct Side {
    std::string name;
    Work work;
    Prepare prepare;
    double goal; // the library's figure by this side's, at most; NO_GOAL: just shown
    std::vector<double> times{};
};

class Row {
  public:
    Row(benchmark::State& state, std::string name);

    // The library's side; exactly one.
    void psp(Work work, Prepare prepare = {});

    // Another side. The goal is the largest ratio of the library's figure to this peer's.
    void peer(std::string name, Work work, double goal = NO_GOAL, Prepare prepare = {});

    // A goal against the quickest of the peers.
    void best_peer(double goal);

    // A goal for the library's figure itself, in the row's unit.
    void at_most(double figure);

    // A goal against the library's figure in another row of the same family, which ran before.
    void growth_from(std::string row, double goal);

    // Where the time is read, in nanoseconds, when another process does the work and times it.
    void clock(std::function<double()> now);

    // Work of one batch. By default it grows until a batch of the library takes 50 microseconds.
    void batch(size_t n);

    // Takes so many times the usual time, for a row whose batches fall into two kinds.
    void longer(double factor);

    // What a time in nanoseconds is divided by to give the row's unit, when one unit of work is not
    // one unit of the row.
    void divide_by(double units);

    // Measures for the row's time, at least seven rounds, and reports, unless the row has failed.
    // A row calls it once, last.
    void run();

    // The row cannot be measured: it is reported with the reason in place of figures.
    void fail(const std::string& why);

  private:
    double time(const Side& side, size_t n);
    size_t calibrate();
    void round(size_t n, size_t first);
    void count(const Side& side);
    void report();

    benchmark::State& state_;
    std::string name_;
    std::vector<Side> sides_{}; // the library's comes first
    double best_goal_ = NO_GOAL;
    double own_goal_ = NO_GOAL;
    std::string grows_from_{};
    double growth_goal_ = NO_GOAL;
    std::function<double()> clock_;
    size_t batch_ = 0;
    double length_ = 1;
    double units_ = 1;
    bool failed_ = false;
};

// Puts a row among the benchmarks, as "family/name".
class Registered {
  public:
    Registered(const char* family, const std::string& name, const char* unit,
               std::function<void(Row&)> body);
};

// The library, started, in a process that has a second thread: with a single one the C library
// skips its locks, which no server ever sees.
class Server {
  public:
    Server();
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

  private:
    pthread_mutex_t gate_ = PTHREAD_MUTEX_INITIALIZER;
    std::thread other_;
};

} // namespace bench
