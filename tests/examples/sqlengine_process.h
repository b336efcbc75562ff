// Runs the example sqlengine, and asks databases through it.
#pragma once

#include "program.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#ifndef SQLENGINE_PATH
#error "SQLENGINE_PATH names the program under test"
#endif

namespace sqltest {

using psptest::not_started;
using psptest::Result;

// A running sqlengine.
class Engine : public psptest::Program {
  public:
    Engine(const psptest::TempDir& dir, const std::string& tag, std::vector<std::string> arguments,
           const std::string& input, const Setup& setup = {})
        : Program(SQLENGINE_PATH, dir, tag, std::move(arguments), input, setup)
    {
    }

    // With an input that the test feeds through say().
    Engine(const psptest::TempDir& dir, const std::string& tag, std::vector<std::string> arguments,
           const Setup& setup = {})
        : Program(SQLENGINE_PATH, dir, tag, std::move(arguments), setup)
    {
    }
};

// Runs sqlengine to its end.
inline Result run_engine(const psptest::TempDir& dir, std::vector<std::string> arguments,
                         const std::string& input = "", const Engine::Setup& setup = {})
{
    return psptest::run_program(SQLENGINE_PATH, dir, std::move(arguments), input, setup);
}

// Every value that a query of one column gives, as printed, without head and row count.
inline std::vector<std::string> query_column(const psptest::TempDir& dir, const std::string& db,
                                             const std::string& sql)
{
    const Result result = run_engine(dir, {db}, sql + ";\n");
    EXPECT_EQ(result.status, 0) << result.err;
    std::vector<std::string> lines;
    std::size_t at = 0;
    while (at < result.out.size()) {
        const std::size_t end = result.out.find('\n', at);
        if (end == std::string::npos)
            break;
        lines.push_back(result.out.substr(at, end - at));
        at = end + 1;
    }
    if (lines.size() < 3) {
        ADD_FAILURE() << "no table: " << result.out;
        return {};
    }
    return {lines.begin() + 2, lines.end() - 1}; // head, rule … count
}

// The one value that a query gives, without the blanks that align it.
inline std::string query_value(const psptest::TempDir& dir, const std::string& db,
                               const std::string& sql)
{
    const std::vector<std::string> column = query_column(dir, db, sql);
    if (column.size() != 1) {
        ADD_FAILURE() << sql << " gave " << column.size() << " rows";
        return "";
    }
    return column[0].substr(std::min(column[0].find_first_not_of(' '), column[0].size()));
}

inline void expect_sound(const psptest::TempDir& dir, const std::string& db)
{
    EXPECT_EQ(query_value(dir, db, "PRAGMA integrity_check"), "ok");
}

} // namespace sqltest
