#include "row.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <utility>

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr double BATCH_NS = 50'000;
constexpr size_t ROUNDS = 7; // at least

// Seconds that a row takes turns for; the environment may ask for longer rows.
double row_seconds()
{
    const char* const text = std::getenv("PSP_BENCH_SECONDS");
    return text ? std::strtod(text, nullptr) : 0.3;
}

double nanoseconds_now()
{
    return std::chrono::duration<double, std::nano>(Clock::now().time_since_epoch()).count();
}

double quantile(std::vector<double> values, double at)
{
    const auto place = static_cast<size_t>(at * static_cast<double>(values.size() - 1));
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(place);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

double median(const Side& side)
{
    return quantile(side.times, 0.5);
}

// The library's figures so far, for rows that are held against others.
std::map<std::string, double>& figures()
{
    static std::map<std::string, double> all;
    return all;
}

} // namespace

Row::Row(benchmark::State& state, std::string name)
    : state_(state), name_(std::move(name)), clock_(nanoseconds_now)
{
}

void Row::psp(Work work, Prepare prepare)
{
    sides_.insert(sides_.begin(), {"psp", std::move(work), std::move(prepare), NO_GOAL});
}

void Row::peer(std::string name, Work work, double goal, Prepare prepare)
{
    sides_.push_back({std::move(name), std::move(work), std::move(prepare), goal});
}

void Row::best_peer(double goal)
{
    best_goal_ = goal;
}

void Row::at_most(double figure)
{
    own_goal_ = figure;
}

void Row::growth_from(std::string row, double goal)
{
    grows_from_ = std::move(row);
    growth_goal_ = goal;
}

void Row::clock(std::function<double()> now)
{
    clock_ = std::move(now);
}

void Row::batch(size_t n)
{
    batch_ = n;
}

void Row::longer(double factor)
{
    length_ = factor;
}

void Row::divide_by(double units)
{
    units_ = units;
}

double Row::time(const Side& side, size_t n)
{
    if (side.prepare)
        side.prepare();
    const double begin = clock_();
    side.work(n);
    benchmark::ClobberMemory();
    return clock_() - begin;
}

size_t Row::calibrate()
{
    size_t n = 1;
    while (time(sides_.front(), n) < BATCH_NS && n < (size_t{1} << 24))
        n *= 2;
    return n;
}

void Row::round(size_t n, size_t first)
{
    for (size_t i = 0; i < sides_.size(); ++i) {
        Side& side = sides_[(first + i) % sides_.size()];
        side.times.push_back(time(side, n) / static_cast<double>(n) / units_);
    }
}

void Row::run()
{
    if (failed_)
        return;
    for (auto _ : state_) {
        const size_t n = batch_ != 0 ? batch_ : calibrate();
        round(n, 0); // warms up
        for (Side& side : sides_)
            side.times.clear();
        const auto end = Clock::now() + std::chrono::duration<double>(length_ * row_seconds());
        for (size_t i = 0; i < ROUNDS || Clock::now() < end; ++i)
            round(n, i);
    }
    report();
}

void Row::count(const Side& side)
{
    state_.counters[side.name] = median(side);
    state_.counters[side.name + ":min"] = quantile(side.times, 0);
    state_.counters[side.name + ":low"] = quantile(side.times, 0.25);
    state_.counters[side.name + ":high"] = quantile(side.times, 0.75);
}

void Row::report()
{
    const double own = median(sides_.front());
    figures()[name_] = own;
    double best = 0;
    for (const Side& side : sides_) {
        count(side);
        if (&side == &sides_.front())
            continue;
        state_.counters["ratio:" + side.name] = own / median(side);
        best = std::max(best, own / median(side));
        if (side.goal != NO_GOAL)
            state_.counters["goal:" + side.name] = side.goal;
    }
    if (best != 0) {
        state_.counters["ratio:best peer"] = best;
        if (best_goal_ != NO_GOAL)
            state_.counters["goal:best peer"] = best_goal_;
    }
    if (own_goal_ != NO_GOAL)
        state_.counters["goal:itself"] = own_goal_;
    if (figures().contains(grows_from_)) {
        state_.counters["ratio:" + grows_from_] = own / figures()[grows_from_];
        state_.counters["goal:" + grows_from_] = growth_goal_;
    }
}

void Row::fail(const std::string& why)
{
    failed_ = true;
    state_.SkipWithError(why.c_str());
}

Registered::Registered(const char* family, const std::string& name, const char* unit,
                       std::function<void(Row&)> body)
{
    const std::string path = std::string(family) + '/' + name;
    benchmark::RegisterBenchmark(path.c_str(), [path, unit,
                                                body = std::move(body)](benchmark::State& state) {
        state.SetLabel(unit);
        Row row(state, path);
        body(row);
    })->Iterations(1);
}

Server::Server()
{
    pthread_mutex_lock(&gate_);
    other_ = std::thread([this] {
        pthread_mutex_lock(&gate_);
        pthread_mutex_unlock(&gate_);
    });
    if (psp_init() != sOKAY)
        std::abort();
}

Server::~Server()
{
    psp_term();
    pthread_mutex_unlock(&gate_);
    other_.join();
}

} // namespace bench
