// Runs the example recordlog on a log of its own, looks at its files, and knows what it prints.
#pragma once

#include "program.h"
#include "recordlog_model.h"

#include <filesystem>
#include <string>
#include <vector>

#ifndef RECORDLOG_PATH
#error "RECORDLOG_PATH names the program under test"
#endif

namespace logtest {

using logmodel::Record;
using psptest::Result;
using psptest::TempDir;

constexpr int torn = 3; // exit status of verify

// A log in its directory.
class Log {
  public:
    explicit Log(const TempDir& dir, const char* name = "log") : dir_(dir), home_(dir / name) {}

    // `setup` runs in the child before it becomes the program.
    Result append(const std::string& lines, const psptest::Program::Setup& setup = {}) const
    {
        return psptest::run_program(RECORDLOG_PATH, dir_, {"append", home_}, lines, setup);
    }
    Result dump() const
    {
        return psptest::run_program(RECORDLOG_PATH, dir_, {"dump", home_});
    }
    Result verify() const
    {
        return psptest::run_program(RECORDLOG_PATH, dir_, {"verify", home_});
    }

    const std::string& home() const
    {
        return home_;
    }
    std::string path(unsigned number) const
    {
        char name[32];
        std::snprintf(name, sizeof name, "/segment-%08X.log", number);
        return home_ + name;
    }
    // Makes the file of a segment.
    void put(unsigned number, const std::string& bytes) const
    {
        std::filesystem::create_directories(home_);
        psptest::write_file(path(number), bytes);
    }

    // The bytes of all segments from the first on.
    std::vector<std::string> segments() const
    {
        std::vector<std::string> all;
        while (psptest::file_exists(path(static_cast<unsigned>(all.size()) + 1)))
            all.push_back(psptest::read_file(path(static_cast<unsigned>(all.size()) + 1)));
        return all;
    }
    // The complete records of all segments.
    std::vector<Record> records() const
    {
        std::vector<Record> all;
        for (const std::string& bytes : segments()) {
            const auto segment = logmodel::parse_segment(bytes);
            all.insert(all.end(), segment.records.begin(), segment.records.end());
        }
        return all;
    }

  private:
    const TempDir& dir_;
    std::string home_;
};

inline std::string appended(std::size_t count, std::size_t last)
{
    return "appended " + std::to_string(count) + " records up to number " + std::to_string(last) +
           "\n";
}

inline std::string segment_line(const Log& log, unsigned number, std::size_t records,
                                std::size_t bytes)
{
    return log.path(number) + ": " + std::to_string(records) + " records in " +
           std::to_string(bytes) + " bytes\n";
}

inline std::string torn_line(const Log& log, unsigned number, std::size_t lost, std::size_t end)
{
    return log.path(number) + ": torn tail of " + std::to_string(lost) + " bytes behind byte " +
           std::to_string(end) + "\n";
}

inline std::string total_line(std::size_t records, std::size_t segments)
{
    return std::to_string(records) + " records in " + std::to_string(segments) + " segments\n";
}

} // namespace logtest
