// Runs the rows and prints them as a table in Markdown; `--benchmark_out=FILE` writes them as JSON
// as well, `--benchmark_filter=REGEX` picks some.

#include <cstdio>
#include <map>
#include <string>

#include <benchmark/benchmark.h>
#include <malloc.h>

namespace {

using Counters = benchmark::UserCounters;

bool is_side(const std::string& counter)
{
    return counter.find(':') == std::string::npos;
}

double figure(const Counters& counters, const std::string& name)
{
    return counters.at(name).value;
}

std::string rounded(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, value < 10 ? "%.2f" : value < 100 ? "%.1f" : "%.0f", value);
    return text;
}

// "glibc 9.51, mimalloc 8.02"
std::string peers_of(const Counters& counters)
{
    std::string text;
    for (const auto& [name, counter] : counters) {
        if (!is_side(name) || name == "psp")
            continue;
        text += (text.empty() ? "" : ", ") + name + ' ' + rounded(counter.value);
    }
    return text;
}

// "0.68 of glibc (0.70)", and "missed" where it is
std::string goals_of(const Counters& counters)
{
    std::string text;
    for (const auto& [name, counter] : counters) {
        if (name.rfind("goal:", 0) != 0)
            continue;
        const std::string against = name.substr(5);
        const bool itself = against == "itself";
        const double reached = figure(counters, itself ? "psp" : "ratio:" + against);
        text += (text.empty() ? "" : "; ") + rounded(reached);
        text += itself ? " (" : " of " + against + " (";
        text += rounded(counter.value) + (reached > counter.value ? ") **missed**" : ")");
    }
    return text;
}

class Table : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context& context) override
    {
        PrintBasicContext(&GetErrorStream(), context);
        std::puts("| row | unit | library | peers | by the best peer | goals |\n"
                  "|---|---|---|---|---|---|");
        return true;
    }

    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs)
            print(run);
        std::fflush(stdout);
    }

  private:
    static void print(const Run& run)
    {
        const std::string name = run.run_name.function_name;
        if (run.error_occurred || !run.counters.contains("psp")) {
            std::printf("| %s | | | %s | | |\n", name.c_str(), run.error_message.c_str());
            return;
        }
        const Counters& counters = run.counters;
        const bool compared = counters.contains("ratio:best peer");
        std::printf("| %s | %s | %s | %s | %s | %s |\n", name.c_str(), run.report_label.c_str(),
                    rounded(figure(counters, "psp")).c_str(), peers_of(counters).c_str(),
                    compared ? rounded(figure(counters, "ratio:best peer")).c_str() : "",
                    goals_of(counters).c_str());
    }
};

// Makes the heap keep what is freed, as it does anyway in a process with other memory in use above.
// Otherwise it hands its empty end to the system, and the system's time for pages is all that would
// be seen. It cannot be undone, so all rows have it: one that is picked measures what it does among
// the others.
void keep_heap()
{
    mallopt(M_MMAP_THRESHOLD, 32 * 1024 * 1024);
    mallopt(M_TRIM_THRESHOLD, 1024 * 1024 * 1024);
}

} // namespace

int main(int argc, char** argv)
{
    keep_heap();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    Table table;
    benchmark::RunSpecifiedBenchmarks(&table);
    return 0;
}
