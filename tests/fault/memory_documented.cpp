// What the headers say of a function's codes and jumps is what the table of failing memory knows.
#include "memory_rows.h"

#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <map>
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

// The identifier at a place in the text.
std::string word_at(const std::string& text, std::size_t at)
{
    std::size_t end = at;
    while (end < text.size() &&
           (std::isalnum(static_cast<unsigned char>(text[end])) || text[end] == '_'))
        ++end;
    return text.substr(at, end - at);
}

Documented from(const std::string& comment, const std::string& declaration)
{
    static const std::string retval = "@retval ";
    static const std::string jumps = "@jumps{";
    Documented found;
    found.gives_code = declaration.find("ZYN_RETCODE") < declaration.find('(');
    for (std::size_t at = comment.find(retval); at != std::string::npos;
         at = comment.find(retval, at + 1))
        found.codes.insert(word_at(comment, at + retval.size()));
    if (const std::size_t at = comment.find(jumps); at != std::string::npos) {
        const std::size_t begin = at + jumps.size();
        found.jumps = comment.substr(begin, comment.find('}', begin) - begin);
    }
    return found;
}

// The function's name: what stands before its arguments.
std::string name_in(const std::string& declaration)
{
    const std::size_t open = declaration.find('(');
    if (open == std::string::npos)
        return {}; // a data object
    const std::size_t before = declaration.find_last_of(" *\n", open);
    return word_at(declaration, before + 1);
}

// A comment, and behind it a function's declaration up to its end.
void read_header(const std::string& text, std::map<std::string, Documented>& functions)
{
    for (std::size_t at = text.find("/**"); at != std::string::npos;
         at = text.find("/**", at + 3)) {
        std::size_t end = text.find("*/", at);
        if (text.compare(end + 2, 4, "\n/* ") == 0) // a remark for whoever changes the header
            end = text.find("*/", end + 2);
        const std::string declaration = text.substr(end + 2, text.find(';', end) - end - 2);
        if (declaration.starts_with("\nPSP_API"))
            functions[name_in(declaration)] = from(text.substr(at, end - at), declaration);
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
