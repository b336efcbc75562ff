// Lines and strings go through a stream in runs as long as its window, a vector at a time: beside
// the plain model, which takes one byte a step, with every kind of byte that ends a run at every
// place, and in rooms that end where a page ends.
#include "support/guarded.h"
#include "support/stream_model.h"
#include "support/text_test.h"

#include "psp.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>

using namespace psptest;

namespace {

constexpr std::size_t window = 1024;
constexpr std::size_t vector_size = 16;

// A file, the stream that reads or writes it, and the model beside it.
class Sides {
  public:
    Sides(const std::string& path, const char* mode, const std::string& before, int fmode)
        : stream_(made(path, mode, before), mode, static_cast<PSP_FILE_MODE>(fmode))
    {
        for (const OpenMode& how : open_modes)
            if (std::strcmp(how.mode, mode) == 0)
                model_.open(how, before, fmode);
    }

    // A line into a room behind a newline and in front of the end of a page; what lies behind the
    // text must stay. True when there was one.
    bool line(int32_t room)
    {
        const std::string untouched(static_cast<std::size_t>(room), '#');
        char* const dest = const_cast<char*>(room_.place('\n' + untouched)) + 1;
        std::string expected;
        const bool some = model_.fgets(room, &expected);
        EXPECT_EQ(psp_fgets(dest, room, stream_), some ? dest : nullptr);
        if (some)
            expected.push_back('\0');
        expected += untouched.substr(expected.size());
        EXPECT_EQ(std::string(dest, expected.size()), expected);
        return some;
    }
    bool growing_line()
    {
        const bool some = model_.get_line(&grown_);
        const char* const got = psp_fGetLine(stream_, &buf_, &len_, PSP_GLOBAL_TAG);
        EXPECT_EQ(got, some ? buf_ : nullptr);
        EXPECT_EQ(len_, grown_.size());
        if (some) {
            EXPECT_STREQ(buf_, grown_.c_str());
        }
        return some;
    }
    void character()
    {
        EXPECT_EQ(psp_fgetc(stream_), model_.fgetc());
    }
    void push_back(int32_t c)
    {
        EXPECT_EQ(psp_fungetc(c, stream_), model_.fungetc(c));
    }
    void put(const std::string& text)
    {
        const char* const source = room_.place(std::string_view(text.c_str(), text.size() + 1));
        EXPECT_EQ(psp_fputs(source, stream_), model_.fputs(text.c_str()));
    }
    // What the file holds in the end, on both sides.
    void finish(const std::string& path)
    {
        psp_freeMem(buf_, PSP_GLOBAL_TAG, __FILE__, __LINE__);
        stream_.close();
        model_.flush();
        EXPECT_EQ(read_file(path), model_.file.bytes);
    }

  private:
    static const std::string& made(const std::string& path, const char* mode,
                                   const std::string& before)
    {
        unlink(path.c_str()); // a new file is cheaper than one that is cut
        if (*mode == 'r')
            write_file(path, before);
        return path;
    }

    Stream stream_;
    StreamModel model_{};
    GuardedRoom room_{4 * window};
    char* buf_ = nullptr;
    uint32_t len_ = 0;
    std::string grown_{};
};

class StreamRuns : public PspTest {
  protected:
    const TempDir dir_;
    const std::string path_ = dir_ / "f";
};

// The text as a UTF-16 file with a mark; every byte is a unit.
std::string widened(const std::string& text, bool big_endian)
{
    std::string bytes = big_endian ? "\xFE\xFF" : "\xFF\xFE";
    for (const char byte : text) {
        if (big_endian)
            bytes.push_back('\0');
        bytes.push_back(byte);
        if (!big_endian)
            bytes.push_back('\0');
    }
    return bytes;
}

void read_all_lines(Sides& sides, int32_t room)
{
    for (int left = 20; left > 0 && sides.line(room); left--)
        continue;
}

// ---- One byte that ends a run ----

TEST_F(StreamRuns, OfBytesEndAtEveryPlace)
{
    for (const char stop : {'\n', '\0', '\xFF', '\t', '\v', '\x80', '\xFE'})
        for (const std::size_t from : {std::size_t{0}, window - vector_size - 2})
            for (std::size_t at = from; at < from + 2 * vector_size + 4; at++) {
                SCOPED_TRACE(std::to_string(static_cast<int>(stop)) + " at " + std::to_string(at));
                std::string text = pattern(window + 100);
                text[at] = stop;
                Sides sides(path_, "r", text, 0);
                read_all_lines(sides, 700);
                sides.finish(path_);
            }
}

TEST_F(StreamRuns, OfUnitsEndAtEveryPlace)
{
    for (const bool big_endian : {false, true})
        for (const uint16_t stop : {0x000A, 0x0000, 0x0080, 0x0A00, 0x07FF, 0x0800, 0xFFFF, 0xD83D,
                                    0xDE00, 0x000B, 0x007F})
            for (const std::size_t from : {std::size_t{0}, window / 2 - vector_size / 2 - 2})
                for (std::size_t at = from; at < from + vector_size + 4; at++) {
                    SCOPED_TRACE(std::to_string(stop) + " at " + std::to_string(at));
                    std::string bytes = widened(pattern(window / 2 + 100), big_endian);
                    bytes[2 + 2 * at + (big_endian ? 1 : 0)] = static_cast<char>(stop & 0xFF);
                    bytes[2 + 2 * at + (big_endian ? 0 : 1)] = static_cast<char>(stop >> 8);
                    Sides sides(path_, "r", bytes, 0);
                    read_all_lines(sides, 350);
                    sides.finish(path_);
                }
}

TEST_F(StreamRuns, EndWithTheRoom)
{
    const std::string bytes = pattern(3 * window);
    const std::string units = widened("\xE9" + pattern(window) + "\xE9\xE9\xE9", false);
    for (int32_t room = 1; room < 70; room++) {
        SCOPED_TRACE(room);
        for (const std::string& before : {bytes, units}) {
            Sides sides(path_, "r", before, 0);
            read_all_lines(sides, room);
            sides.finish(path_);
        }
    }
}

TEST_F(StreamRuns, IntoUnitsEndAtEveryPlace)
{
    for (const char* const stop : {"\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\x80", "\xC3"})
        for (const std::size_t from : {std::size_t{0}, window / 2 - vector_size / 2 - 2})
            for (std::size_t at = from; at < from + vector_size + 4; at++) {
                SCOPED_TRACE(testing::PrintToString(stop) + " at " + std::to_string(at));
                std::string text = pattern(window / 2 + 50);
                text.insert(at, stop);
                Sides sides(path_, "w", "", 2);
                sides.put(text);
                sides.put(text);
                sides.finish(path_);
            }
}

// ---- At random ----

class RandomText {
  public:
    explicit RandomText(unsigned seed) : random_(seed) {}

    unsigned below(unsigned limit)
    {
        return static_cast<unsigned>(random_() % limit);
    }
    // Long or short runs between the bytes that end them.
    std::string operator()(std::size_t size)
    {
        const unsigned rarity = 4u << below(8);
        std::string text = pattern(size);
        for (char& byte : text)
            if (below(rarity) == 0)
                byte = special();
        return text;
    }

  private:
    char special()
    {
        constexpr char some[] = {'\n', '\n', '\n', '\0', '\xFF', '\xC3', '\xE2', '\xF0', '\x80'};
        return below(2) == 0 ? some[below(sizeof some)] : static_cast<char>(0x80 + below(0x40));
    }

    std::mt19937 random_;
};

TEST_F(StreamRuns, ReadAtRandomLikeTheModel)
{
    for (unsigned seed = 1; seed <= 300 && !HasFailure(); seed++) {
        SCOPED_TRACE(seed);
        RandomText random(seed);
        const std::string text = random(random.below(4 * window));
        const unsigned kind = random.below(4);
        Sides sides(path_, "r",
                    kind == 0   ? widened(text, false)
                    : kind == 1 ? widened(text, true)
                    : kind == 2 ? "\xFF\xFE" + text
                                : text,
                    0);
        for (int left = 60; left > 0; left--) {
            const unsigned what = random.below(10);
            if (what == 0)
                sides.character();
            else if (what == 1)
                sides.push_back(static_cast<int32_t>(random.below(300)) - 20);
            else if (what < 4)
                sides.growing_line();
            else
                sides.line(static_cast<int32_t>(1 + random.below(what == 4 ? 2000 : 120)));
        }
        sides.finish(path_);
    }
}

TEST_F(StreamRuns, WriteAtRandomLikeTheModel)
{
    for (unsigned seed = 1; seed <= 300 && !HasFailure(); seed++) {
        SCOPED_TRACE(seed);
        RandomText random(seed);
        const bool mixed = random.below(3) == 0;
        const std::string before = mixed ? widened(random(random.below(window)), false) + "x" : "";
        Sides sides(path_, mixed ? "r+" : "w", before, 2);
        for (int left = 20; left > 0; left--) {
            if (mixed && random.below(6) == 0)
                sides.line(static_cast<int32_t>(1 + random.below(600)));
            sides.put(random(random.below(random.below(4) == 0 ? 3000 : 120)));
        }
        sides.finish(path_);
    }
}

} // namespace
