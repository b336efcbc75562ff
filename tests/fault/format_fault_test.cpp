// The string builders and the wide conversions when memory is refused at every point: the failure
// that is told, by value and by jump; nothing lost, no lock held, and everything usable afterwards.
#include "support/fault_test.h"
#include "support/mem_test.h"

#include "psp/format.h"
#include "psp/utf8.h"

#include <gtest/gtest.h>

#include <csetjmp>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace psptest;

namespace {

#define HERE __FILE__, __LINE__

// Where memory is refused; the heap is met by strings that need a chunk of their own.
struct RefusedAt {
    const char* name;
    int length; // of the first string
    int least;  // refusals that building everything must meet
};
constexpr RefusedAt points[] = {{"tag_alloc", 5000, 8}, {"malloc", 5000000, 1}};

class FormatFault : public HeapFaultTest {};

// Another thread can use the tags: nobody holds a lock.
void expect_usable(PSP_MEMTAG tag)
{
    std::thread([tag] {
        for (const PSP_MEMTAG used : {tag, PSP_GLOBAL_TAG, PSP_THREAD_TAG}) {
            char* text = psp_makeStrVA(HERE, used, "%s", "usable");
            EXPECT_STREQ(text, "usable");
            psp_freeMem(text, used, HERE);
        }
    }).join();
}

// What is built in one run, by all the functions. A result is NULL or right, and nothing between.
struct Built {
    char* made = nullptr;
    char* made_rc = nullptr;
    char* grown = nullptr;
    char* grown_rc = nullptr;
    wchar_t* wide = nullptr;
    wchar_t* wide_rc = nullptr;
};

// `result` is looked at after the call that gave the code.
template <class Char>
void expect_code(ZYN_RETCODE code, Char* const& result)
{
    EXPECT_EQ(code, result != nullptr ? sOKAY : eNOMEMORY);
}

Built build_all(PSP_MEMTAG tag, int length)
{
    Built b;
    b.made = psp_makeStrVA(HERE, tag, "%0*d", length, 1);
    expect_code(psp_makeStrVA_rc(HERE, &b.made_rc, tag, "%s-%d", "text", 2), b.made_rc);
    b.grown = psp_appendStrVA(HERE, tag, nullptr, "%s", "first");
    if (char* more = psp_appendStrVA(HERE, tag, b.grown, "%09000d", 3))
        b.grown = more;
    expect_code(psp_appendStrVA_rc(HERE, &b.grown_rc, tag, nullptr, "%s", "second"), b.grown_rc);
    char* const before = b.grown_rc;
    if (psp_appendStrVA_rc(HERE, &b.grown_rc, tag, before, "%d", 4) != sOKAY) {
        EXPECT_EQ(b.grown_rc, before);
    }
    b.wide = psp_convToWchar("\xE2\x82\xAC uro", PSP_UTF8_ERROR_BREAK, tag);
    b.wide_rc = reinterpret_cast<wchar_t*>(8);
    const ZYN_RETCODE code = psp_convToWchar_rc("wide", PSP_UTF8_ERROR_BREAK, &b.wide_rc, tag);
    expect_code(code, b.wide_rc);
    return b;
}

bool one_of(const char* text, const std::vector<std::string>& wanted)
{
    for (const std::string& candidate : wanted)
        if (text == candidate)
            return true;
    return false;
}

int count_missing(const Built& b, int length)
{
    const std::string number = std::string(static_cast<std::size_t>(length) - 1, '0') + "1";
    const std::string longer = std::string(8999, '0') + "3";
    EXPECT_TRUE(b.made == nullptr || b.made == number);
    EXPECT_TRUE(b.made_rc == nullptr || one_of(b.made_rc, {"text-2"}));
    EXPECT_TRUE(b.grown == nullptr || one_of(b.grown, {"first", longer, "first" + longer}));
    EXPECT_TRUE(b.grown_rc == nullptr || one_of(b.grown_rc, {"second", "4", "second4"}));
    EXPECT_TRUE(b.wide == nullptr || std::wcscmp(b.wide, L"\u20AC uro") == 0);
    EXPECT_TRUE(b.wide_rc == nullptr || std::wcscmp(b.wide_rc, L"wide") == 0);
    return (b.made == nullptr) + (b.made_rc == nullptr) + (b.grown == nullptr) +
           (b.grown_rc == nullptr) + (b.wide == nullptr) + (b.wide_rc == nullptr);
}

TEST_F(FormatFault, IsToldByTheResult)
{
    for (const RefusedAt& point : points) {
        for (const PSP_ALLOCATOR_TYPE type : all_types) {
            for (const bool forever : {false, true}) {
                const int runs = fail_every_call(point.name, forever, [&](Fault& fault, int n) {
                    fault.disarm();
                    PSP_MEMTAG tag = make_tag(type);
                    ASSERT_NE(tag, nullptr);
                    Fault::fail_nth(point.name, n, forever);
                    const Built built = build_all(tag, point.length);
                    fault.disarm();
                    const int missing = count_missing(built, point.length);
                    EXPECT_LE(missing, forever ? 6 : 1) << point.name << ' ' << n;
                    if (forever && n == 1 && point.least == 8) {
                        EXPECT_EQ(missing, 6);
                    }
                    expect_usable(tag);
                    destroy_tag(tag);
                });
                EXPECT_GE(runs, point.least) << point.name << ' ' << type;
            }
        }
    }
}

TEST_F(FormatFault, OfTheSpecialTagsIsToldByTheResult)
{
    for (const PSP_MEMTAG tag : {PSP_THREAD_TAG, PSP_GLOBAL_TAG}) {
        const int runs = fail_every_call("tag_alloc", true, [&](Fault& fault, int) {
            const Built built = build_all(tag, 5000);
            fault.disarm();
            count_missing(built, 5000);
            for (const void* block :
                 {static_cast<void*>(built.made), static_cast<void*>(built.made_rc),
                  static_cast<void*>(built.grown), static_cast<void*>(built.grown_rc),
                  static_cast<void*>(built.wide), static_cast<void*>(built.wide_rc)})
                if (block != nullptr)
                    psp_freeMem(block, tag, HERE);
        });
        EXPECT_EQ(runs, 8);
    }
}

// ---- Jumps ----

TEST_F(FormatFault, JumpsWhereTheTagSaysSo)
{
    for (const RefusedAt& point : points) {
        for (const PSP_ALLOCATOR_TYPE type : {BLOCK_ALLOCATOR, LIST_ALLOCATOR, LEGACY_ALLOCATOR}) {
            volatile int jumps = 0;
            const int runs = fail_every_call(point.name, true, [&](Fault& fault, int n) {
                fault.disarm();
                jmp_buf jump;
                PSP_MEMTAG tag = make_tag(type, 0, &jump);
                const int jumped = setjmp(jump);
                if (jumped == 0) {
                    Fault::fail_nth(point.name, n, true);
                    const Built built = build_all(tag, point.length);
                    fault.disarm();
                    EXPECT_EQ(fault.failures(), 0) << "no jump at " << point.name << ' ' << n;
                    EXPECT_EQ(count_missing(built, point.length), 0);
                } else {
                    fault.disarm();
                    EXPECT_EQ(jumped, 1);
                    EXPECT_EQ(fault.failures(), 1);
                    jumps = jumps + 1;
                    psp_resetTag(nullptr, tag);
                    expect_usable(tag);
                }
                destroy_tag(tag);
            });
            EXPECT_EQ(jumps, runs);
            EXPECT_GE(runs, point.least) << point.name << ' ' << type;
        }
    }
}

// ---- What the engine itself asks for ----

TEST_F(FormatFault, NeverMeetsTheEngine)
{
    Fault malloc_fault("malloc", 1, true), calloc_fault("calloc", 1, true),
        realloc_fault("realloc", 1, true), tag_fault("tag_alloc", 1, true);
    char room[100];
    EXPECT_EQ(psp_snprintf(room, sizeof room, "%s %d %f %Lg %p %d", "text", 1, 1.5, 1.5L,
                           static_cast<void*>(nullptr), 7),
              27);
    EXPECT_STREQ(room, "text 1 1.500000 1.5 (nil) 7");
    wchar_t wide[10];
    EXPECT_EQ(psp_utf8_to_wchar(wide, "abc", 10, PSP_UTF8_ERROR_BREAK), 4u);
    EXPECT_EQ(psp_countUTF8chars("abc", 3, PSP_UTF8_ERROR_BREAK), 3u);
    EXPECT_EQ(
        malloc_fault.calls() + calloc_fault.calls() + realloc_fault.calls() + tag_fault.calls(), 0);
}

// Malformed text is found before memory is asked for.
TEST_F(FormatFault, DoesNotComeToTextsAndFormatsThatFailBefore)
{
    Fault fault("tag_alloc");
    char* text = nullptr;
    wchar_t* wide = nullptr;
    EXPECT_EQ(psp_makeStrVA(HERE, PSP_GLOBAL_TAG, "%f", 1e20), nullptr);
    EXPECT_EQ(psp_makeStrVA_rc(HERE, &text, PSP_GLOBAL_TAG, "%f", 1e20), eNOMEMORY);
    EXPECT_EQ(psp_appendStrVA(HERE, PSP_GLOBAL_TAG, nullptr, "%f", 1e20), nullptr);
    EXPECT_EQ(psp_convToWchar("\xFF", PSP_UTF8_ERROR_BREAK, PSP_GLOBAL_TAG), nullptr);
    EXPECT_EQ(psp_convToWchar_rc("\xFF", PSP_UTF8_ERROR_BREAK, &wide, PSP_GLOBAL_TAG), eNOMEMORY);
    EXPECT_EQ(fault.calls(), 0);
}

} // namespace
