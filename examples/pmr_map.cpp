// A standard container that lives in a memory tag and goes with it at once.
//
//     pmr_map FILE [COUNT]
//
// counts the words of FILE and prints the COUNT (10) most frequent ones. Four things to take away:
//
// - Owners come from the C++ face (psp.hpp): the library's start, the tag, the stream, the line.
//   Whatever way a function ends, each is released.
// - The map and all that it holds lie in one tag, the map's own record included.
// - Nobody destroys the map. The tag is freed instead, in a few steps however many words there are.
// - A container that runs out of memory throws; the C++ face itself does not.
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <map>
#include <memory_resource>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "psp.hpp"

namespace {

// Made in the tag, with the way to it.
struct Words {
    explicit Words(const psp::tag& tag) : resource(tag), counts(&resource) {}

    psp::memory_resource resource;
    std::pmr::map<std::pmr::string, unsigned, std::less<>> counts;
};

void count(Words& words, std::string_view word)
{
    const auto found = words.counts.find(word);
    if (found != words.counts.end())
        ++found->second;
    else
        words.counts.emplace(word, 1); // the key is copied into the tag
}

// A word is letters and digits; case does not count.
void count_line(Words& words, char* line)
{
    for (char* at = line; *at != '\0';) {
        char* const begin = at;
        for (; std::isalnum(static_cast<unsigned char>(*at)) != 0; ++at)
            *at = static_cast<char>(std::tolower(static_cast<unsigned char>(*at)));
        if (at != begin)
            count(words, {begin, static_cast<std::size_t>(at - begin)});
        else
            ++at;
    }
}

// The rows that are printed lie in the same tag.
void print_most_frequent(Words& words, std::size_t limit)
{
    using Row = const std::pair<const std::pmr::string, unsigned>*;
    std::pmr::vector<Row> rows(&words.resource);
    for (const auto& row : words.counts)
        rows.push_back(&row);
    limit = std::min(limit, rows.size());
    const auto end = rows.begin() + static_cast<std::ptrdiff_t>(limit);
    std::partial_sort(rows.begin(), end, rows.end(), [](Row a, Row b) {
        return a->second != b->second ? a->second > b->second : a->first < b->first;
    });
    for (auto row = rows.begin(); row != end; ++row)
        psp_printf("%7u %s\n", (*row)->second, (*row)->first.c_str());
}

ZYN_RETCODE run(const char* path, std::size_t limit)
{
    psp::stream in = psp::stream::open(path, "r");
    if (!in)
        return eFILEOPEN;
    psp::tag tag = psp::tag::create();
    if (!tag)
        return eNOMEMORY;
    auto* const words = tag.make<Words>(tag);
    if (words == nullptr)
        return eNOMEMORY;
    psp::line_buffer room(tag.native());
    while (char* line = in.read_line(room))
        count_line(*words, line);
    print_most_frequent(*words, limit);
    const std::size_t different = words->counts.size();
    room = psp::line_buffer(); // it must not outlive its tag

    const std::size_t used = tag.info().used.current;
    tag.reset(); // here the map goes, with every node and every string
    psp_printf("%zu different words took %zu bytes in the tag\n", different, used);
    return sOKAY;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 3) {
        psp_errPrint("usage: pmr_map FILE [COUNT]");
        return 2;
    }
    ZYN_RETCODE rc;
    const psp::library started = psp::library::start(&rc);
    try {
        if (started)
            rc = run(argv[1], argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 10);
    } catch (const std::bad_alloc&) {
        rc = eNOMEMORY;
    }
    if (rc != sOKAY)
        psp_log_err("pmr_map: %s\n", psp::error(rc).message().c_str());
    return rc == sOKAY ? 0 : 1;
}
