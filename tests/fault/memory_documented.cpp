// What the headers say of a function's codes and jumps is what the table of failing memory knows.
#include "memory_rows.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

namespace psptest {
namespace {

struct Documented {
    bool gives_code = false;
    std::set<std::string> codes; // each @retval
    std::string jumps;           // text of @jumps
};

std::string content(const std::filesystem::path& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

Documented from(const std::string& comment, const std::string& declaration)
{
    static const std::regex retval(R"(@retval (\w+))");
    static const std::regex jumps(R"(@jumps\{([^}]*)\})");
    Documented found;
    found.gives_code = declaration.find("ZYN_RETCODE") < declaration.find('(');
    for (std::sregex_iterator it(comment.begin(), comment.end(), retval), end; it != end; ++it)
        found.codes.insert((*it)[1]);
    if (std::smatch match; std::regex_search(comment, match, jumps))
        found.jumps = match[1];
    return found;
}

// A comment, and behind it a function's declaration up to its end.
void read_header(const std::string& text, std::map<std::string, Documented>& functions)
{
    static const std::regex name(R"((\w+)\()");
    for (std::size_t at = text.find("/**"); at != std::string::npos;
         at = text.find("/**", at + 3)) {
        std::size_t end = text.find("*/", at);
        if (text.compare(end + 2, 4, "\n/* ") == 0) // a remark for whoever changes the header
            end = text.find("*/", end + 2);
        const std::string declaration = text.substr(end + 2, text.find(';', end) - end - 2);
        std::smatch match;
        if (declaration.starts_with("\nPSP_API") && std::regex_search(declaration, match, name))
            functions[match[1]] = from(text.substr(at, end - at), declaration);
    }
}

std::map<std::string, Documented> read_headers()
{
    std::map<std::string, Documented> functions;
    for (const auto& entry : std::filesystem::directory_iterator(PSP_INCLUDE "/psp"))
        read_header(content(entry.path()), functions);
    return functions;
}

const char* name_of(ZYN_RETCODE code)
{
    switch (code) {
#define PSPTEST_ROW(id, value, text)                                                               \
    case id:                                                                                       \
        return #id;
        ZYN_RETCODE_LIST(PSPTEST_ROW)
#undef PSPTEST_ROW
    }
    return "?";
}

class Documentation : public testing::Test {
  protected:
    // Calls `look` with every function of the table and its row.
    template <class Look>
    void each(const Look& look) const
    {
        for (const auto& rows : {memory_rows(), file_rows(), text_rows(), value_rows()})
            for (const Row& row : rows) {
                std::istringstream names(row.functions);
                for (std::string function; names >> function;) {
                    ASSERT_TRUE(headers.contains(function)) << function;
                    look(function, headers.at(function), row);
                }
            }
    }
    const std::map<std::string, Documented> headers = read_headers();
};

TEST_F(Documentation, NamesEveryCodeThatARefusalOfMemoryGives)
{
    each([](const std::string& function, const Documented& documented, const Row& row) {
        for (const ZYN_RETCODE code : row.refusals)
            if (documented.gives_code) {
                EXPECT_TRUE(documented.codes.contains(name_of(code)))
                    << function << " gives " << name_of(code);
            }
    });
}

TEST_F(Documentation, SaysOfEveryFunctionWhetherItJumps)
{
    std::map<std::string, bool> jumping; // a function may have rows of both kinds
    each([&](const std::string& function, const Documented&, const Row& row) {
        jumping[function] |= row.jumps != Jumps::never;
    });
    for (const auto& [function, jumps] : jumping)
        EXPECT_NE(headers.at(function).jumps.starts_with("never"), jumps)
            << function << " jumps: " << headers.at(function).jumps;
    for (const NeverAllocates& row : never_allocating()) {
        const std::string& jumps = headers.at(row.function).jumps;
        EXPECT_TRUE(jumps.starts_with("never") || jumps.starts_with("only through"))
            << row.function << " jumps: " << jumps;
    }
}

} // namespace
} // namespace psptest
