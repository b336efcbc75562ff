// The bounded byte buffer, field by field, and the output of strings to a callback.
#include "support/format_test.h"
#include "support/psp_test.h"

#include "psp/utf8.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

using namespace psptest;

namespace {

struct Fields {
    char* buff;
    std::size_t size, used, needed;
    ZYN_BOOL_T done;
};

void expect_fields(const ZYN_OUTPUT_BUFF& info, const Fields& wanted)
{
    EXPECT_EQ(info.buff, wanted.buff);
    EXPECT_EQ(info.size, wanted.size);
    EXPECT_EQ(info.used_elems, wanted.used);
    EXPECT_EQ(info.used_chars, wanted.used);
    EXPECT_EQ(info.needed_elems, wanted.needed);
    EXPECT_EQ(info.needed_chars, wanted.needed);
    EXPECT_EQ(info.done, wanted.done);
}

ZYN_OUTPUT_BUFF rubbish()
{
    ZYN_OUTPUT_BUFF info;
    std::memset(&info, 0x5A, sizeof info);
    return info;
}

static_assert(offsetof(ZYN_OUTPUT_BUFF, buff) == 0);
static_assert(offsetof(ZYN_OUTPUT_BUFF, size) == 8);
static_assert(offsetof(ZYN_OUTPUT_BUFF, used_elems) == 16);
static_assert(offsetof(ZYN_OUTPUT_BUFF, used_chars) == 24);
static_assert(offsetof(ZYN_OUTPUT_BUFF, needed_elems) == 32);
static_assert(offsetof(ZYN_OUTPUT_BUFF, needed_chars) == 40);
static_assert(offsetof(ZYN_OUTPUT_BUFF, done) == 48);

TEST(OutputBuffer, HoldsAByteBack)
{
    char room[8];
    for (const std::size_t size : {std::size_t{1}, std::size_t{2}, std::size_t{8}}) {
        ZYN_OUTPUT_BUFF info = rubbish();
        psp_utf8BuffInit(&info, room, size);
        expect_fields(info, {room, size - 1, 0, 0, ZYN_FALSE});
    }
}

TEST(OutputBuffer, WithoutRoomOrMemoryHasNeither)
{
    char room[1] = {'Z'};
    ZYN_OUTPUT_BUFF info = rubbish();
    psp_utf8BuffInit(&info, room, 0);
    expect_fields(info, {nullptr, 0, 0, 0, ZYN_FALSE});
    info = rubbish();
    psp_utf8BuffInit(&info, nullptr, 100);
    expect_fields(info, {nullptr, 0, 0, 0, ZYN_FALSE});
    info = rubbish();
    psp_utf8BuffInit(&info, nullptr, 0);
    expect_fields(info, {nullptr, 0, 0, 0, ZYN_FALSE});
}

TEST(OutputBuffer, StepByStep)
{
    char room[4] = {'Z', 'Z', 'Z', 'Z'};
    ZYN_OUTPUT_BUFF info = rubbish();
    psp_utf8BuffInit(&info, room, sizeof room);
    EXPECT_EQ(psp_emitCharAsUtf8(&info, 0x68), sOKAY);
    expect_fields(info, {room, 3, 1, 1, ZYN_FALSE});
    EXPECT_EQ(psp_emitCharAsUtf8(&info, 0x65), sOKAY);
    EXPECT_EQ(psp_emitCharAsUtf8(&info, 0x6C), sOKAY);
    expect_fields(info, {room, 3, 3, 3, ZYN_FALSE}); // full, but nothing is lost yet
    EXPECT_EQ(psp_emitCharAsUtf8(&info, 0x6C), sOKAY);
    expect_fields(info, {room, 3, 3, 4, ZYN_TRUE});
    EXPECT_EQ(psp_emitCharAsUtf8(&info, 0x6F), sOKAY);
    expect_fields(info, {room, 3, 3, 5, ZYN_TRUE});
    EXPECT_EQ(room[3], 'Z');
    psp_utf8BuffTerm(&info);
    expect_fields(info, {room, 4, 4, 6, ZYN_FALSE});
    EXPECT_EQ(std::string(room, 4), std::string("hel\0", 4));
}

TEST(OutputBuffer, EndsAtOnce)
{
    char room[2] = {'Z', 'Z'};
    ZYN_OUTPUT_BUFF info;
    psp_utf8BuffInit(&info, room, sizeof room);
    psp_utf8BuffTerm(&info);
    expect_fields(info, {room, 2, 1, 1, ZYN_FALSE});
    EXPECT_EQ(std::string(room, 2), std::string("\0Z", 2));
}

TEST(OutputBuffer, OfOneByteHoldsTheTerminator)
{
    char room[1] = {'Z'};
    ZYN_OUTPUT_BUFF info;
    psp_utf8BuffInit(&info, room, 1);
    psp_emitCharAsUtf8(&info, 'a');
    expect_fields(info, {room, 0, 0, 1, ZYN_TRUE});
    psp_utf8BuffTerm(&info);
    expect_fields(info, {room, 1, 1, 2, ZYN_FALSE});
    EXPECT_EQ(room[0], '\0');
}

TEST(OutputBuffer, WithoutMemoryOnlyCounts)
{
    ZYN_OUTPUT_BUFF info;
    psp_utf8BuffInit(&info, nullptr, 10);
    psp_emitCharAsUtf8(&info, 'a');
    expect_fields(info, {nullptr, 0, 0, 1, ZYN_TRUE});
    psp_emitCharAsUtf8(&info, 'b');
    expect_fields(info, {nullptr, 0, 0, 2, ZYN_TRUE});
    psp_utf8BuffTerm(&info);
    expect_fields(info, {nullptr, 0, 0, 3, ZYN_TRUE});
}

TEST(OutputBuffer, TakesTheLowEightBitsUnchanged)
{
    char room[8];
    ZYN_OUTPUT_BUFF info;
    psp_utf8BuffInit(&info, room, sizeof room);
    for (const uint32_t value : {0xE9u, 0x1E9u, 0x20ACu, 0xFFFFFF80u, 0x100u})
        EXPECT_EQ(psp_emitCharAsUtf8(&info, value), sOKAY);
    psp_utf8BuffTerm(&info);
    EXPECT_EQ(std::string(room, 6), std::string("\xE9\xE9\xAC\x80\0\0", 6));
}

TEST(OutputBuffer, IsWhatABoundedStringIsMadeWith)
{
    for (std::size_t size = 0; size < 20; size++) {
        std::string by_hand(24, 'Z'), at_once(24, 'Z');
        ZYN_OUTPUT_BUFF info;
        psp_utf8BuffInit(&info, by_hand.data(), size);
        EXPECT_EQ(psp_fnprintf(psp_emitCharAsUtf8, &info, "%s%5d%c", "\xE2\x82\xAC", 42, 'x'),
                  sOKAY);
        psp_utf8BuffTerm(&info);
        const int length = psp_snprintf(at_once.data(), size, "%s%5d%c", "\xE2\x82\xAC", 42, 'x');
        EXPECT_EQ(info.needed_elems - 1, static_cast<std::size_t>(length));
        EXPECT_EQ(by_hand, at_once);
    }
}

TEST(OutputString, PassesEachByteUnsigned)
{
    ByteSink sink;
    EXPECT_EQ(psp_outputString(ByteSink::take, &sink, "a\xE9\xFF\x80z"), sOKAY);
    EXPECT_EQ(sink.text, "a\xE9\xFF\x80z");
    EXPECT_EQ(sink.calls, 5u);
}

TEST(OutputString, OfNothingCallsNothing)
{
    ByteSink sink;
    EXPECT_EQ(psp_outputString(ByteSink::take, &sink, ""), sOKAY);
    EXPECT_EQ(sink.calls, 0u);
}

TEST(OutputString, ReturnsTheFirstOtherCodeWhateverItIs)
{
    for (const ZYN_RETCODE code : {+sNOTFOUND, +sNEEDDATA, +eBADWRITE, +eINVUNICODE, 1, -1}) {
        for (std::size_t n = 0; n < 3; n++) {
            ByteSink sink{.refused = n, .code = code};
            EXPECT_EQ(psp_outputString(ByteSink::take, &sink, "abc"), code);
            EXPECT_EQ(sink.calls, n + 1);
        }
    }
}

} // namespace
