// Strings, text streams, binary streams and random generators.
#include "support/mem_test.h"

#include "psp/binstream.hpp"
#include "psp/format.hpp"
#include "psp/mem.hpp"
#include "psp/random.hpp"
#include "psp/stream.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

using namespace psptest;

namespace {

class FaceValue : public PspTest {};

// ---- Strings ----

TEST_F(FaceValue, StringIsFormattedIntoATagAndGoesByItself)
{
    psp::tag tag = psp::tag::create();
    {
        const psp::string text = psp::string::format(tag.native(), "%s %d", "number", 7);
        ASSERT_TRUE(text);
        EXPECT_STREQ(text.c_str(), "number 7");
        EXPECT_EQ(text.size(), 8u);
        EXPECT_EQ(text.view(), "number 7");
        EXPECT_GT(tag.info().used.current, 0u);
    }
    EXPECT_EQ(tag.info().used.current, 0u);
}

TEST_F(FaceValue, StringGrowsAtItsEnd)
{
    psp::tag tag = psp::tag::create(LIST_ALLOCATOR);
    psp::string text = psp::string::copy(tag.native(), "");
    std::string expected;
    for (int i = 0; i < 200; i++) {
        EXPECT_TRUE(text.append("%d, ", i));
        expected += std::to_string(i) + ", ";
    }
    EXPECT_EQ(text.view(), expected);
    EXPECT_TRUE(text.append("%s", ""));
    EXPECT_EQ(text.view(), expected);
    psp::string begun(tag.native(), nullptr);
    EXPECT_TRUE(begun.append("from %s", "nothing"));
    EXPECT_EQ(begun.view(), "from nothing");
}

TEST_F(FaceValue, StringThatCannotGrowStaysAsItIs)
{
    psp::tag stack = psp::tag::create(STACK_ALLOCATOR);
    psp::string text = psp::string::copy(stack.native(), "abc");
    EXPECT_FALSE(text.append("%d", 5));
    EXPECT_FALSE(text.append("%f", 1e30)) << "no format";
    EXPECT_EQ(text.view(), "abc");
    psp::string none;
    EXPECT_FALSE(none.append("text"));
    EXPECT_FALSE(none);
    EXPECT_EQ(none.size(), 0u);
    EXPECT_EQ(none.view(), "");
    EXPECT_EQ(none.c_str(), nullptr);
    EXPECT_FALSE(psp::string::format(stack.native(), "%f", 1e30));
}

TEST_F(FaceValue, StringMovesWithItsTag)
{
    psp::tag tag = psp::tag::create();
    psp::tag other = psp::tag::create();
    psp::string first = psp::string::copy(tag.native(), "first");
    psp::string second = psp::string::copy(other.native(), "second");
    second = std::move(first);
    EXPECT_EQ(other.info().used.current, 0u);
    EXPECT_FALSE(first); // NOLINT: what is left behind is told
    psp::string& itself = second;
    second = std::move(itself);
    EXPECT_EQ(second.view(), "first");
    EXPECT_TRUE(second.append("%s", " and more"));
    char* const text = second.release();
    EXPECT_STREQ(text, "first and more");
    EXPECT_FALSE(second);
    tag.deallocate(text);
    EXPECT_EQ(tag.info().used.current, 0u);
}

// ---- Text streams ----

TEST_F(FaceValue, StreamWritesAndReadsText)
{
    TempDir dir;
    const std::string name = dir / "text";
    {
        psp::stream out = psp::stream::open(name.c_str(), "w");
        ASSERT_TRUE(out);
        EXPECT_EQ(out.print("%d%c", 12, '\n'), 3);
        EXPECT_EQ(out.write("line\n"), 5);
        EXPECT_EQ(out.write_byte('x'), 1);
        EXPECT_EQ(out.flush(), 0);
        EXPECT_EQ(out.sync(), 0);
        EXPECT_FALSE(out.is_terminal());
        EXPECT_EQ(out.set_echo(false), sOKAY);
        EXPECT_EQ(out.write("y"), 1); // still in the cache when the stream goes
    }
    EXPECT_EQ(read_file(name), "12\nline\nxy");
    psp::stream in = psp::stream::open(name.c_str(), "r");
    char text[10];
    EXPECT_STREQ(in.read_line(text, sizeof text), "12\n");
    EXPECT_EQ(in.read_byte(), 'l');
    EXPECT_EQ(in.unread_byte('m'), 'm');
    EXPECT_STREQ(in.read_line(text, sizeof text), "mine\n");
    EXPECT_STREQ(in.read_line(text, sizeof text), "xy");
    EXPECT_EQ(in.read_line(text, sizeof text), nullptr);
    EXPECT_EQ(in.read_byte(), -1);
}

TEST_F(FaceValue, StreamReadsLinesOfAnyLength)
{
    TempDir dir;
    const std::string name = dir / "text";
    write_file(name, "short\n" + std::string(5000, 'x') + "\nlast");
    psp::tag tag = psp::tag::create();
    {
        psp::stream in = psp::stream::open(name.c_str(), "r");
        psp::line_buffer room(tag.native());
        EXPECT_STREQ(in.read_line(room), "short\n");
        EXPECT_EQ(in.read_line(room), std::string(5000, 'x') + "\n");
        psp::line_buffer moved = std::move(room);
        EXPECT_STREQ(in.read_line(moved), "last");
        EXPECT_EQ(in.read_line(moved), nullptr);
        room = std::move(moved);
        EXPECT_EQ(in.read_line(room), nullptr);
        EXPECT_GT(tag.info().used.current, 5000u);
    }
    EXPECT_EQ(tag.info().used.current, 0u);
}

TEST_F(FaceValue, LineBufferKnowsItsSizeAfterAMove)
{
    TempDir dir;
    const std::string name = dir / "text";
    const std::string line = std::string(5000, 'x') + "\n";
    write_file(name, line + "short\n" + line);
    psp::tag tag = psp::tag::create();
    psp::stream in = psp::stream::open(name.c_str(), "r");
    psp::line_buffer large(tag.native());
    psp::line_buffer small(tag.native());
    EXPECT_EQ(in.read_line(large), line);
    EXPECT_STREQ(in.read_line(small), "short\n");
    large = std::move(small);
    EXPECT_LT(tag.info().used.current, 5000u) << "the large room is freed";
    EXPECT_EQ(in.read_line(large), line);
    EXPECT_GT(tag.info().used.current, 5000u) << "the small one grew";
}

TEST_F(FaceValue, StreamWritesUtf16AndReadsItAsUtf8)
{
    TempDir dir;
    const std::string name = dir / "text";
    psp::stream::open(name.c_str(), "w", PSP_FILE_MODE_UTF16).write("\xC3\xA4");
    EXPECT_EQ(read_file(name).size(), 4u) << "a mark and one unit";
    psp::stream in = psp::stream::open(name.c_str(), "r");
    EXPECT_EQ(in.read_byte(), static_cast<signed char>(0xC3));
    EXPECT_EQ(in.read_byte(), static_cast<signed char>(0xA4));
}

TEST_F(FaceValue, EmptyStreamRefusesEverything)
{
    psp::stream stream = psp::stream::open("/nowhere/file", "r");
    EXPECT_FALSE(stream);
    char text[10];
    psp::line_buffer room;
    EXPECT_EQ(stream.read_byte(), -1);
    EXPECT_EQ(stream.read_line(text, 10), nullptr);
    EXPECT_EQ(stream.read_line(room), nullptr);
    EXPECT_EQ(stream.write("text"), -1);
    EXPECT_EQ(stream.print("%d", 1), -1);
    EXPECT_FALSE(stream.is_terminal());
    EXPECT_EQ(stream.set_echo(true), eINVNULLARG);
}

TEST_F(FaceValue, StandardStreamIsWrittenTo)
{
    CapturedFd captured(2);
    psp::stream::open_standard("stderr").print("%s", "told");
    EXPECT_EQ(captured.finish(), "told");
}

// ---- Binary streams ----

struct Bytes {
    std::string written;
    std::size_t at = 0;

    ZYN_RETCODE operator()(const void* data, std::uint32_t size) noexcept
    {
        written.append(static_cast<const char*>(data), size);
        return sOKAY;
    }
    ZYN_RETCODE operator()(void* buf, std::uint32_t size, std::uint32_t* len) noexcept
    {
        *len = static_cast<std::uint32_t>(written.copy(static_cast<char*>(buf), size, at));
        at += *len;
        return *len == 0 ? ZYN_RETCODE{eEOD} : ZYN_RETCODE{sOKAY};
    }
};

void put_all(psp::binary_writer& out)
{
    EXPECT_EQ(out.put_char('c'), sOKAY);
    EXPECT_EQ(out.put_int16(-2), sOKAY);
    EXPECT_EQ(out.put_int32(-3), sOKAY);
    EXPECT_EQ(out.put_int64(-4), sOKAY);
    EXPECT_EQ(out.put_float(0.5F), sOKAY);
    EXPECT_EQ(out.put_double(0.25), sOKAY);
    EXPECT_EQ(out.put_bytes("raw", 3), sOKAY);
    EXPECT_EQ(out.put_string("text"), sOKAY);
    EXPECT_EQ(out.put_string(nullptr), sOKAY);
    EXPECT_EQ(out.flush(), sOKAY);
    EXPECT_EQ(out.send("end", 3), sOKAY);
}

void get_all(psp::binary_reader& in)
{
    char c = 0;
    std::int16_t i16 = 0;
    std::int32_t i32 = 0;
    std::int64_t i64 = 0;
    float f = 0;
    double d = 0;
    char raw[4] = "";
    EXPECT_EQ(in.get_char(c), sOKAY);
    EXPECT_EQ(c, 'c');
    EXPECT_EQ(in.get_int16(i16), sOKAY);
    EXPECT_EQ(i16, -2);
    EXPECT_EQ(in.get_int32(i32), sOKAY);
    EXPECT_EQ(i32, -3);
    EXPECT_EQ(in.get_int64(i64), sOKAY);
    EXPECT_EQ(i64, -4);
    EXPECT_EQ(in.get_float(f), sOKAY);
    EXPECT_EQ(f, 0.5F);
    EXPECT_EQ(in.get_double(d), sOKAY);
    EXPECT_EQ(d, 0.25);
    EXPECT_EQ(in.get_bytes(raw, 3), sOKAY);
    EXPECT_STREQ(raw, "raw");
    psp::string text;
    EXPECT_EQ(in.get_string(PSP_THREAD_TAG, text), sOKAY);
    EXPECT_EQ(text.view(), "text");
    EXPECT_EQ(in.get_string(PSP_THREAD_TAG, text), sOKAY);
    EXPECT_FALSE(text);
    EXPECT_EQ(in.get_bytes(nullptr, 3), sOKAY);
    EXPECT_EQ(in.get_char(c), eEOD);
    text = psp::string::copy(PSP_THREAD_TAG, "kept");
    EXPECT_EQ(in.get_string(PSP_THREAD_TAG, text), eEOD);
    EXPECT_EQ(text.view(), "kept");
}

TEST_F(FaceValue, BinaryReaderGetsWhatTheWriterPut)
{
    std::string written[2];
    for (const psp::byte_order order : {psp::byte_order::host, psp::byte_order::reversed}) {
        Bytes bytes;
        ZYN_RETCODE rc = ePSP_FAILURE;
        psp::binary_writer out = psp::binary_writer::create(bytes, order, &rc);
        EXPECT_EQ(rc, sOKAY);
        put_all(out);
        psp::binary_reader in = psp::binary_reader::create(bytes, order, &rc);
        EXPECT_EQ(rc, sOKAY);
        get_all(in);
        written[order == psp::byte_order::host ? 0 : 1] = bytes.written;
    }
    EXPECT_EQ(written[0].substr(1, 2), std::string("\xFE\xFF", 2));
    EXPECT_EQ(written[1].substr(1, 2), std::string("\xFF\xFE", 2));
    EXPECT_EQ(written[0].size(), written[1].size());
}

TEST_F(FaceValue, BinaryWriterLosesWhatWasNotFlushed)
{
    Bytes bytes;
    psp::binary_writer::create(bytes).put_int32(1);
    EXPECT_EQ(bytes.written, "");
}

TEST_F(FaceValue, BinaryStreamsHandTheTransportsFailureOn)
{
    auto full = [](const void*, std::uint32_t) noexcept -> ZYN_RETCODE { return eBADWRITE; };
    psp::binary_writer out = psp::binary_writer::create(full);
    EXPECT_EQ(out.put_int32(1), sOKAY);
    EXPECT_EQ(out.flush(), eBADWRITE);
    auto broken = [](void*, std::uint32_t, std::uint32_t*) noexcept -> ZYN_RETCODE {
        return eBADREAD;
    };
    psp::binary_reader in = psp::binary_reader::create(broken);
    std::int32_t value = 0;
    EXPECT_EQ(in.get_int32(value), eBADREAD);
}

TEST_F(FaceValue, BinaryReaderForgetsWhatItReadAhead)
{
    Bytes bytes;
    bytes.written = "abc";
    psp::binary_reader in = psp::binary_reader::create(bytes);
    char c = 0;
    EXPECT_EQ(in.get_char(c), sOKAY);
    bytes.at = 0;
    in.forget();
    EXPECT_EQ(in.get_char(c), sOKAY);
    EXPECT_EQ(c, 'a');
}

// ---- Random generators ----

TEST_F(FaceValue, GeneratorGivesTheNumbersOfTheStandardTwister)
{
    psp::random random = psp::random::create(12345);
    ASSERT_TRUE(random);
    std::mt19937 model(12345);
    for (int i = 0; i < 2000; i++)
        ASSERT_EQ(random(), model());
    const std::uint64_t high = model();
    EXPECT_EQ(random.next64(), high << 32 | model());
    EXPECT_EQ(random.fraction(), std::ldexp(static_cast<double>(model()), -32));
    random.seed(77);
    model.seed(77);
    EXPECT_EQ(random(), model());
}

TEST_F(FaceValue, GeneratorServesDistributionsAndAlgorithms)
{
    static_assert(
        std::is_same_v<decltype(std::declval<psp::random&>()()), psp::random::result_type>);
    static_assert(psp::random::min() == 0 && psp::random::max() == UINT32_MAX);
    psp::random random = psp::random::create(1);
    std::mt19937 model(1);
    std::uniform_int_distribution<int> dice(1, 6);
    for (int i = 0; i < 100; i++)
        EXPECT_EQ(dice(random), dice(model)) << "the standard library sees a generator of 32 bits";
    std::vector<int> cards(52);
    std::iota(cards.begin(), cards.end(), 0);
    std::vector<int> sorted = cards;
    std::shuffle(cards.begin(), cards.end(), random);
    EXPECT_NE(cards, sorted);
    std::sort(cards.begin(), cards.end());
    EXPECT_EQ(cards, sorted);
}

} // namespace
