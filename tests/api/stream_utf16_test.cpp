// Text streams on UTF-16 files, against plain whole-text converters: units to UTF-8 for reading,
// UTF-8 to units for writing, malformed text included.
#include "support/text_test.h"

#include "psp.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

using namespace psptest;

namespace {

class Utf16Read : public PspTest {};
class Utf16Write : public PspTest {};

// ---- The converters that the streams are held against ----

using Units = std::vector<uint16_t>;

std::string file_of(const Units& units, bool big_endian = false)
{
    std::string bytes;
    for (const uint16_t unit : units) {
        const char low = static_cast<char>(unit & 0xFF);
        const char high = static_cast<char>(unit >> 8);
        bytes.push_back(big_endian ? high : low);
        bytes.push_back(big_endian ? low : high);
    }
    return bytes;
}

std::string utf8_of(uint32_t code)
{
    std::string bytes;
    const auto add = [&](uint32_t value) { bytes.push_back(static_cast<char>(value)); };
    if (code < 0x80) {
        add(code);
    } else if (code < 0x800) {
        add(0xC0 + code / 64);
        add(0x80 + code % 64);
    } else if (code < 0x10000) {
        add(0xE0 + code / 4096);
        add(0x80 + code / 64 % 64);
        add(0x80 + code % 64);
    } else {
        add(0xF0 + code / 262144);
        add(0x80 + code / 4096 % 64);
        add(0x80 + code / 64 % 64);
        add(0x80 + code % 64);
    }
    return bytes;
}

// What a reader makes of units. The second one of a pair is taken as it lies in the file, which in
// a big-endian file means with its bytes exchanged, and whatever it is.
std::string decoded(const Units& units, bool big_endian)
{
    std::string text;
    for (std::size_t i = 0; i < units.size(); i++) {
        const uint32_t unit = units[i];
        if (unit >= 0xDC00 && unit <= 0xDFFF) {
            text += ".";
        } else if (unit >= 0xD800 && unit <= 0xDBFF) {
            if (++i == units.size())
                break; // the end, instead of half a pair
            uint32_t low = units[i];
            if (big_endian)
                low = low / 256 + low % 256 * 256;
            text += utf8_of(0x10000 + unit % 1024 * 1024 + low % 1024);
        } else {
            text += utf8_of(unit);
        }
    }
    return text;
}

// A writer of UTF-8 with its memory of a character begun: what a byte adds, and whether it is
// taken.
struct Encoder {
    Units units{};
    std::vector<uint32_t> pending{}; // the bytes of the character so far
    std::size_t wanted = 0;          // how many it has in all

    bool put(uint8_t byte)
    {
        if (pending.empty()) {
            if (byte < 0x80) {
                units.push_back(byte);
                return true;
            }
            if (byte < 0xC2 || byte > 0xF4)
                return false;
            wanted = byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
            pending = {byte};
            return true;
        }
        if (byte < 0x80 || byte > 0xBF)
            return false;
        pending.push_back(byte);
        if (pending.size() == wanted)
            finish();
        return true;
    }
    void finish()
    {
        constexpr uint32_t lead_values[] = {0, 0, 32, 16, 8}; // so many values a lead byte has
        uint32_t code = pending[0] % lead_values[wanted];
        for (std::size_t i = 1; i < wanted; i++)
            code = code * 64 + pending[i] - 0x80;
        pending.clear();
        if (code < 0x10000) {
            units.push_back(static_cast<uint16_t>(code));
            return;
        }
        units.push_back(static_cast<uint16_t>(0xD800 + (code - 0x10000) / 1024 % 1024));
        units.push_back(static_cast<uint16_t>(0xDC00 + code % 1024));
    }
};

std::string with_mark(const Units& units)
{
    Units marked = {0xFEFF};
    marked.insert(marked.end(), units.begin(), units.end());
    return file_of(marked);
}

void expect_text(PSP_FILE_STREAM stream, const std::string& expected)
{
    for (std::size_t i = 0; i < expected.size(); i++)
        ASSERT_EQ(psp_fgetc(stream), signed_byte(static_cast<unsigned char>(expected[i]))) << i;
    EXPECT_EQ(psp_fgetc(stream), -1);
    EXPECT_EQ(psp_fgetc(stream), -1);
}

std::string read_units(const TempDir& dir, const Units& units, bool big_endian)
{
    Units marked = {0xFEFF};
    marked.insert(marked.end(), units.begin(), units.end());
    write_file(dir / "f", file_of(marked, big_endian));
    return read_all(Stream(dir / "f", "r"));
}

// ---- Reading ----

TEST_F(Utf16Read, GivesUtf8AsSignedBytes)
{
    const TempDir dir;
    write_file(dir / "f", std::string("\xFF\xFE\x41\x00\xE9\x00", 6));
    Stream stream(dir / "f", "r");
    EXPECT_EQ(read_values(stream, 5), (std::vector<int32_t>{0x41, -61, -87, -1, -1}));
}

TEST_F(Utf16Read, IsDecidedByTheMarkAlone)
{
    const TempDir dir;
    for (const PSP_FILE_MODE fmode :
         {PSP_FILE_MODE_UNKNOWN, PSP_FILE_MODE_UTF8, PSP_FILE_MODE_UTF16})
        for (const char* mode : {"r", "r+"}) {
            write_file(dir / "f", std::string("\xFF\xFEz\0", 4));
            EXPECT_EQ(read_all(Stream(dir / "f", mode, fmode)), "z");
            write_file(dir / "f", std::string("\xFE\xFF\0z", 4));
            EXPECT_EQ(read_all(Stream(dir / "f", mode, fmode)), "z");
            write_file(dir / "f", std::string("z\0", 2));
            EXPECT_EQ(read_values(Stream(dir / "f", mode, fmode), 3),
                      (std::vector<int32_t>{'z', 0, -1}));
        }
}

TEST_F(Utf16Read, OfAMarkAloneIsEmpty)
{
    const TempDir dir;
    EXPECT_EQ(read_units(dir, {}, false), "");
    EXPECT_EQ(read_units(dir, {}, true), "");
}

TEST_F(Utf16Read, CoversEveryLengthOfACharacter)
{
    const TempDir dir;
    const Units units = {0x0001, 0x007F, 0x0080, 0x07FF, 0x0800, 0xD7FF, 0xE000, 0xFFFD,
                         0xFFFE, 0xFFFF, 0xD800, 0xDC00, 0xD83D, 0xDE00, 0xDBFF, 0xDFFF};
    const std::string text = "\x01\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80"
                             "\xEF\xBF\xBD\xEF\xBF\xBE\xEF\xBF\xBF\xF0\x90\x80\x80"
                             "\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF";
    EXPECT_EQ(read_units(dir, units, false), text);
}

TEST_F(Utf16Read, GivesADotForALowSurrogateOnItsOwn)
{
    const TempDir dir;
    for (const uint16_t unit : {0xDC00, 0xDDDD, 0xDFFF})
        for (const bool big_endian : {false, true})
            EXPECT_EQ(read_units(dir, {'a', unit, 'b'}, big_endian), "a.b");
}

TEST_F(Utf16Read, PairsAHighSurrogateWithWhateverFollows)
{
    const TempDir dir;
    // D800 and 0041: the ten low bits of 41 count.
    EXPECT_EQ(read_units(dir, {0xD800, 0x0041, 'b'}, false), "\xF0\x90\x81\x81"
                                                             "b");
    EXPECT_EQ(read_units(dir, {0xD801, 0xD802, 'b'}, false), "\xF0\x90\x90\x82"
                                                             "b");
}

TEST_F(Utf16Read, DoesNotSwapTheSecondUnitOfAPair)
{
    const TempDir dir;
    // D83D DE00 in a big-endian file lies as D8 3D DE 00; its second unit is read as 00DE.
    EXPECT_EQ(read_units(dir, {0xD83D, 0xDE00, 'b'}, true), "\xF0\x9F\x93\x9E"
                                                            "b");
    EXPECT_EQ(read_units(dir, {0xD83D, 0x00DE, 'b'}, true), "\xF0\x9F\x98\x80"
                                                            "b");
}

TEST_F(Utf16Read, EndsInsideAPair)
{
    const TempDir dir;
    for (const std::string tail : {"", "\x00", "\xDE"}) {
        write_file(dir / "f", std::string("\xFF\xFE\x61\x00\x3D\xD8", 6) + tail);
        Stream stream(dir / "f", "r");
        EXPECT_EQ(read_values(stream, 3), (std::vector<int32_t>{'a', -1, -1}));
    }
}

TEST_F(Utf16Read, TakesHalfAUnitAtTheEndForACharacter)
{
    const TempDir dir;
    write_file(dir / "f", std::string("\xFF\xFE\x61\x00\x62", 5));
    Stream stream(dir / "f", "r");
    EXPECT_EQ(psp_fgetc(stream), 'a');
    EXPECT_NE(psp_fgetc(stream), -1); // one byte arrived: a character, of some kind
    while (psp_fgetc(stream) != -1) {
    }
}

TEST_F(Utf16Read, PutsPushedBackValuesBeforeTheRestOfACharacter)
{
    const TempDir dir;
    write_file(dir / "f", std::string("\xFF\xFE\x3D\xD8\x00\xDE", 6)); // F0 9F 98 80
    Stream stream(dir / "f", "r");
    EXPECT_EQ(psp_fgetc(stream), signed_byte(0xF0));
    EXPECT_EQ(psp_fungetc('x', stream), 'x');
    for (int i = 0; i < 16; i++)
        EXPECT_EQ(psp_fungetc('y', stream), 'y');
    EXPECT_EQ(psp_fungetc('z', stream), -1); // three bytes of the character take room, too
    for (int i = 0; i < 16; i++)
        EXPECT_EQ(psp_fgetc(stream), 'y');
    EXPECT_EQ(
        read_values(stream, 5),
        (std::vector<int32_t>{'x', signed_byte(0x9F), signed_byte(0x98), signed_byte(0x80), -1}));
}

TEST_F(Utf16Read, WorksLineByLine)
{
    const TempDir dir;
    Units units = {0xFEFF};
    for (int line = 0; line < 100; line++) {
        for (int i = 0; i < line; i++)
            units.push_back(0x20AC);
        units.push_back('\n');
    }
    for (const bool big_endian : {false, true}) {
        write_file(dir / "f", file_of(units, big_endian));
        Stream stream(dir / "f", "r");
        char* buf = nullptr;
        uint32_t len = 0;
        for (int line = 0; line < 100; line++) {
            std::string expected;
            for (int i = 0; i < line; i++)
                expected += "\xE2\x82\xAC";
            ASSERT_NE(psp_fGetLine(stream, &buf, &len, PSP_GLOBAL_TAG), nullptr);
            EXPECT_EQ(buf, expected + "\n");
        }
        EXPECT_EQ(psp_fGetLine(stream, &buf, &len, PSP_GLOBAL_TAG), nullptr);
        psp_freeMem(buf, PSP_GLOBAL_TAG, __FILE__, __LINE__);
    }
}

TEST_F(Utf16Read, CutsALineInsideACharacterWhenTheRoomEnds)
{
    const TempDir dir;
    write_file(dir / "f", std::string("\xFF\xFE\xAC\x20\x0A\x00", 6));
    Stream stream(dir / "f", "r");
    char line[8];
    EXPECT_EQ(psp_fgets(line, 3, stream), line);
    EXPECT_STREQ(line, "\xE2\x82");
    EXPECT_EQ(psp_fgets(line, 8, stream), line);
    EXPECT_STREQ(line, "\xAC\n");
}

TEST_F(Utf16Read, OfEveryUnitIsRight)
{
    const TempDir dir;
    for (const bool big_endian : {false, true}) {
        Units units;
        for (uint32_t unit = 0; unit < 0x10000; unit++)
            if (unit < 0xD800 || unit > 0xDBFF)
                units.push_back(static_cast<uint16_t>(unit));
        Units marked = {0xFEFF};
        marked.insert(marked.end(), units.begin(), units.end());
        write_file(dir / "f", file_of(marked, big_endian));
        expect_text(Stream(dir / "f", "r"), decoded(units, big_endian));
    }
}

TEST_F(Utf16Read, OfRandomUnitsIsRight)
{
    const TempDir dir;
    std::mt19937 random(22);
    for (int round = 0; round < 60; round++) {
        Units units;
        for (std::size_t count = random() % 1500; units.size() < count;) {
            const uint32_t kind = random() % 8;
            const uint32_t value = random() % 0x10000;
            units.push_back(static_cast<uint16_t>(kind == 0   ? 0xD800 + value % 0x800
                                                  : kind == 1 ? 0xD800 + value % 0x400
                                                  : kind < 5  ? value % 0x80
                                                              : value));
        }
        const bool big_endian = random() % 2 != 0;
        Units marked = {0xFEFF};
        marked.insert(marked.end(), units.begin(), units.end());
        write_file(dir / "f", file_of(marked, big_endian));
        expect_text(Stream(dir / "f", "r"), decoded(units, big_endian));
    }
}

// ---- Writing ----

TEST_F(Utf16Write, BeginsWithAMarkInEveryMode)
{
    const TempDir dir;
    for (const char* mode : {"w", "w+", "a", "a+", "rw"}) {
        std::filesystem::remove(dir / "f");
        write_file(dir / "f", "");
        Stream(dir / "f", mode, PSP_FILE_MODE_UTF16).close();
        EXPECT_EQ(read_file(dir / "f"), "\xFF\xFE") << mode;
    }
}

TEST_F(Utf16Write, MarksEveryAppending)
{
    const TempDir dir;
    for (int i = 0; i < 2; i++)
        psp_fputs("A", Stream(dir / "f", "a", PSP_FILE_MODE_UTF16));
    EXPECT_EQ(read_file(dir / "f"), std::string("\xFF\xFE"
                                                "A\0\xFF\xFE"
                                                "A\0",
                                                8));
}

TEST_F(Utf16Write, LeavesTheMarkInTheCacheAtFirst)
{
    const TempDir dir;
    Stream stream(dir / "f", "w", PSP_FILE_MODE_UTF16);
    EXPECT_EQ(read_file(dir / "f"), "");
    psp_fflush(stream);
    EXPECT_EQ(read_file(dir / "f"), "\xFF\xFE");
}

TEST_F(Utf16Write, MakesASurrogatePair)
{
    const TempDir dir;
    Stream stream(dir / "f", "w", PSP_FILE_MODE_UTF16);
    EXPECT_EQ(psp_fputs("\xF0\x9F\x98\x80", stream), 4);
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), std::string("\xFF\xFE\x3D\xD8\x00\xDE", 6));
}

TEST_F(Utf16Write, HoldsTheBytesOfACharacterBackUntilItsLast)
{
    const TempDir dir;
    Stream stream(dir / "f", "w", PSP_FILE_MODE_UTF16);
    for (const int byte : {0xE2, 0x82}) {
        EXPECT_EQ(psp_fputc(byte, stream), 1);
        psp_fflush(stream);
        EXPECT_EQ(read_file(dir / "f"), "\xFF\xFE");
    }
    EXPECT_EQ(psp_fputc(0xAC, stream), 1);
    psp_fflush(stream);
    EXPECT_EQ(read_file(dir / "f"), "\xFF\xFE\xAC\x20");
}

TEST_F(Utf16Write, DropsACharacterThatIsNeverFinished)
{
    const TempDir dir;
    Stream stream(dir / "f", "w", PSP_FILE_MODE_UTF16);
    EXPECT_EQ(psp_fputs("\xF0\x9F\x98", stream), 3);
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), "\xFF\xFE");
}

TEST_F(Utf16Write, RefusesBytesThatBeginNothing)
{
    const TempDir dir;
    Stream stream(dir / "f", "w", PSP_FILE_MODE_UTF16);
    for (int byte = 0x80; byte <= 0xFF; byte++)
        if (byte < 0xC2 || byte > 0xF4) {
            EXPECT_EQ(psp_fputc(byte, stream), 0) << byte;
            EXPECT_EQ(psp_fputc(byte - 256, stream), 0) << byte; // the same byte, signed
        }
    EXPECT_EQ(psp_fputc('A', stream), 1);
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), std::string("\xFF\xFE"
                                                "A\0",
                                                4));
}

TEST_F(Utf16Write, RefusesAnInterruptionAndKeepsTheCharacter)
{
    const TempDir dir;
    Stream stream(dir / "f", "w", PSP_FILE_MODE_UTF16);
    EXPECT_EQ(psp_fputc(0xE2, stream), 1);
    for (const int byte : {0x00, 0x41, 0x7F, 0xC0, 0xC3, 0xE2, 0xF0, 0xFF})
        EXPECT_EQ(psp_fputc(byte, stream), 0) << byte;
    EXPECT_EQ(psp_fputc(0x82, stream), 1);
    EXPECT_EQ(psp_fputc('A', stream), 0);
    EXPECT_EQ(psp_fputc(0xAC, stream), 1);
    EXPECT_EQ(psp_fputc('A', stream), 1);
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), std::string("\xFF\xFE\xAC\x20"
                                                "A\0",
                                                6));
}

TEST_F(Utf16Write, OfAStringStopsAtTheFirstRefusedByte)
{
    const TempDir dir;
    Stream stream(dir / "f", "w", PSP_FILE_MODE_UTF16);
    EXPECT_EQ(psp_fputs("", stream), 0);
    EXPECT_EQ(psp_fputs("ab\xFF"
                        "cd",
                        stream),
              -1);
    EXPECT_EQ(psp_fputs("e\xC3", stream), 2);
    EXPECT_EQ(psp_fputs("f", stream), -1);
    EXPECT_EQ(psp_fputs("\xA9", stream), 1);
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), with_mark({'a', 'b', 'e', 0xE9}));
}

TEST_F(Utf16Write, RefusesThroughFormattedOutputToo)
{
    const TempDir dir;
    Stream stream(dir / "f", "w", PSP_FILE_MODE_UTF16);
    EXPECT_EQ(psp_fprintf(stream, "%s%d", "\xC3\xA9", 12), 4);
    EXPECT_EQ(psp_fprintf(stream, "x%cy", 0xFF), -1);
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), with_mark({0xE9, '1', '2', 'x'}));
}

TEST_F(Utf16Write, PassesOverlongFormsAndSurrogates)
{
    const TempDir dir;
    Stream stream(dir / "f", "w", PSP_FILE_MODE_UTF16);
    EXPECT_EQ(psp_fputs("\xE0\x81\x81", stream), 3);     // 'A' in three bytes
    EXPECT_EQ(psp_fputs("\xED\xA0\x80", stream), 3);     // D800
    EXPECT_EQ(psp_fputs("\xED\xBF\xBF", stream), 3);     // DFFF
    EXPECT_EQ(psp_fputs("\xF0\x80\x81\x81", stream), 4); // 'A' in four bytes
    EXPECT_EQ(psp_fputs("\xEF\xBF\xBF", stream), 3);     // FFFF
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), with_mark({'A', 0xD800, 0xDFFF, 'A', 0xFFFF}));
}

TEST_F(Utf16Write, CutsValuesAboveTheLastCodePointToTheirLowBits)
{
    const TempDir dir;
    Stream stream(dir / "f", "w", PSP_FILE_MODE_UTF16);
    EXPECT_EQ(psp_fputs("\xF4\x90\x80\x80", stream), 4); // 110000: a pair from ten bits each
    EXPECT_EQ(psp_fputs("\xF4\xBF\xBF\xBF", stream), 4); // 13FFFF
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), with_mark({0xD800, 0xDC00, 0xD8BF, 0xDFFF}));
}

TEST_F(Utf16Write, IntoABigEndianFileIsLittleEndianAllTheSame)
{
    const TempDir dir;
    write_file(dir / "f", std::string("\xFE\xFF\0a", 4));
    Stream stream(dir / "f", "r+");
    EXPECT_EQ(read_all(stream), "a");
    EXPECT_EQ(psp_fputs("b", stream), 1);
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), std::string("\xFE\xFF\0ab\0", 6));
}

TEST_F(Utf16Write, AcrossTheCachesIsWhole)
{
    const TempDir dir;
    Units units;
    Stream stream(dir / "f", "w", PSP_FILE_MODE_UTF16);
    EXPECT_EQ(psp_fputs("x", stream), 1);
    units.push_back('x');
    for (int i = 0; i < 3000; i++) {
        EXPECT_EQ(psp_fputs("\xF0\x9F\x98\x80", stream), 4);
        units.insert(units.end(), {0xD83D, 0xDE00});
    }
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), with_mark(units));
}

TEST_F(Utf16Write, ComesBackAsItWas)
{
    const TempDir dir;
    std::string text;
    for (uint32_t code = 1; code < 0x110000; code += code < 0x10000 ? 1 : 61)
        if (code < 0xD800 || code > 0xDFFF)
            text += utf8_of(code);
    Stream out(dir / "f", "w", PSP_FILE_MODE_UTF16);
    EXPECT_EQ(psp_fputs(text.c_str(), out), static_cast<int32_t>(text.size()));
    out.close();
    expect_text(Stream(dir / "f", "r"), text);
}

TEST_F(Utf16Write, OfRandomBytesIsRight)
{
    const TempDir dir;
    std::mt19937 random(23);
    for (int round = 0; round < 40; round++) {
        Stream stream(dir / "f", "w", PSP_FILE_MODE_UTF16);
        Encoder encoder;
        for (int i = 0; i < 2000; i++) {
            const uint32_t kind = random() % 8;
            const auto any = static_cast<uint8_t>(random());
            const auto byte = static_cast<uint8_t>(kind < 4   ? 0x80 + any % 0x40
                                                   : kind < 6 ? 0xC0 + any % 0x40
                                                              : any);
            ASSERT_EQ(psp_fputc(byte, stream), encoder.put(byte) ? 1 : 0);
        }
        stream.close();
        ASSERT_EQ(read_file(dir / "f"), with_mark(encoder.units));
    }
}

} // namespace
