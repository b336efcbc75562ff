// Opening, marking and writing text streams on UTF-8 files: modes, what reaches the file and when.
#include "support/text_test.h"

#include "psp.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

using namespace psptest;

namespace {

constexpr std::size_t cache_size = 1024;

class StreamOpen : public PspTest {};
class StreamBeforeStart : public RawTest {};
class StreamMark : public PspTest {};
class StreamWrite : public PspTest {};

std::size_t global_bytes()
{
    PSP_TAG_MEM_INFO info;
    psp_getTagMemInfo(PSP_GLOBAL_TAG, &info);
    return info.used.current;
}

// ---- Opening ----

TEST_F(StreamOpen, OfAMissingFileForReadingFails)
{
    const TempDir dir;
    const std::size_t before = global_bytes();
    for (const char* mode : {"r", "r+", "+", "", "rr", "+r"})
        EXPECT_EQ(psp_fopen((dir / "none").c_str(), mode, PSP_FILE_MODE_UTF8), nullptr) << mode;
    EXPECT_EQ(psp_fopen((dir / "none").c_str(), nullptr, PSP_FILE_MODE_UTF8), nullptr);
    EXPECT_FALSE(file_exists(dir / "none"));
    EXPECT_EQ(psp_fopen((dir / "none/x").c_str(), "w", PSP_FILE_MODE_UTF8), nullptr);
    EXPECT_EQ(psp_fopen(dir.c_str(), "w", PSP_FILE_MODE_UTF8), nullptr);
    EXPECT_EQ(global_bytes(), before);
}

TEST_F(StreamOpen, OfNoNameFails)
{
    const std::size_t before = global_bytes();
    EXPECT_EQ(psp_fopen(nullptr, "r", PSP_FILE_MODE_UTF8), nullptr);
    EXPECT_EQ(psp_fopen("", "r", PSP_FILE_MODE_UTF8), nullptr);
    EXPECT_EQ(psp_fopenStd(nullptr), nullptr);
    EXPECT_EQ(global_bytes(), before);
}

TEST_F(StreamOpen, LeavesTheReasonInErrno)
{
    const TempDir dir;
    EXPECT_EQ(psp_fopen((dir / "none").c_str(), "r", PSP_FILE_MODE_UTF8), nullptr);
    EXPECT_EQ(psp_errno(), ENOENT);
}

TEST_F(StreamOpen, WithAnUnknownModeCharacterFailsAndTouchesNoFile)
{
    const TempDir dir;
    write_file(dir / "f", "kept");
    for (const char* mode : {"b", "t", "rb", "rt", "wb", "wt", "ab", "r+b", "w+t", "rwb", "R", "W",
                             "A", "x", " r", "r ", "\xff", "w,"})
        EXPECT_EQ(psp_fopen((dir / "f").c_str(), mode, PSP_FILE_MODE_UTF8), nullptr) << mode;
    EXPECT_EQ(read_file(dir / "f"), "kept");
    EXPECT_EQ(psp_fopen((dir / "new").c_str(), "wb", PSP_FILE_MODE_UTF8), nullptr);
    EXPECT_FALSE(file_exists(dir / "new"));
}

TEST_F(StreamOpen, WithAnUnknownModeCharacterLeavesItsRecordToTheGlobalTag)
{
    const std::size_t before = global_bytes();
    EXPECT_EQ(psp_fopen("none", "rb", PSP_FILE_MODE_UTF8), nullptr);
    const std::size_t once = global_bytes();
    EXPECT_GT(once, before);
    EXPECT_EQ(psp_fopen("none", "rb", PSP_FILE_MODE_UTF8), nullptr);
    EXPECT_EQ(global_bytes() - once, once - before);
}

TEST_F(StreamOpen, LooksAtThreeModeCharactersOnly)
{
    const TempDir dir;
    write_file(dir / "f", "text");
    for (const char* mode : {"rrrb", "r++t", "+++x", "rr+!"}) {
        Stream stream(dir / "f", mode);
        EXPECT_EQ(read_all(stream), "text") << mode;
    }
    Stream(dir / "f", "w++b").close();
    EXPECT_EQ(read_file(dir / "f"), "");
}

TEST_F(StreamOpen, WithoutAModeReads)
{
    const TempDir dir;
    write_file(dir / "f", "text");
    for (const char* mode : {static_cast<const char*>(nullptr), ""}) {
        Stream stream(dir / "f", mode);
        EXPECT_EQ(read_all(stream), "text");
        EXPECT_EQ(psp_fputs("lost", stream), 4);
        stream.close();
        EXPECT_EQ(read_file(dir / "f"), "text");
    }
}

TEST_F(StreamOpen, ForWritingCreatesAndTruncates)
{
    const TempDir dir;
    for (int round = 0; round < 2; round++) {
        Stream stream(dir / "f", "w");
        EXPECT_EQ(read_file(dir / "f"), "");
        EXPECT_EQ(psp_fputs("abc", stream), 3);
        stream.close();
        EXPECT_EQ(read_file(dir / "f"), "abc");
    }
}

TEST_F(StreamOpen, CreatesForAllWhomTheMaskLetsIn)
{
    const TempDir dir;
    const mode_t mask = umask(027);
    Stream(dir / "f", "w").close();
    umask(mask);
    struct stat st;
    ASSERT_EQ(stat((dir / "f").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777u, 0640u);
}

TEST_F(StreamOpen, ForAppendingKeepsWhatIsThere)
{
    const TempDir dir;
    for (const char* expected : {"one", "oneone", "oneoneone"}) {
        Stream stream(dir / "f", "a");
        EXPECT_EQ(psp_fputs("one", stream), 3);
        stream.close();
        EXPECT_EQ(read_file(dir / "f"), expected);
    }
}

TEST_F(StreamOpen, ForAppendingWritesBehindWhatOthersAppend)
{
    const TempDir dir;
    write_file(dir / "f", "1");
    Stream stream(dir / "f", "a+");
    append_to(dir / "f", "2");
    psp_fputs("3", stream);
    psp_fflush(stream);
    append_to(dir / "f", "4");
    psp_fputs("5", stream);
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), "12345");
}

TEST_F(StreamOpen, WithPlusReadsAndWrites)
{
    const TempDir dir;
    for (const char* mode : {"r+", "+", "r++", "++"}) {
        write_file(dir / "f", "abcdef");
        Stream stream(dir / "f", mode);
        EXPECT_EQ(read_all(stream), "abcdef");
        psp_fputs("gh", stream);
        stream.close();
        EXPECT_EQ(read_file(dir / "f"), "abcdefgh") << mode; // the file goes on where it was
    }
}

TEST_F(StreamOpen, WithALaterLetterForgetsTheEarlierFlags)
{
    const TempDir dir;
    const auto after = [&](const char* mode) {
        write_file(dir / "f", "old");
        Stream stream(dir / "f", mode);
        psp_fputs("new", stream);
        stream.close();
        return read_file(dir / "f");
    };
    EXPECT_EQ(after("rw"), "new");
    EXPECT_EQ(after("wr"), "old"); // opened for reading: nothing is truncated or written
    EXPECT_EQ(after("ra"), "oldnew");
    EXPECT_EQ(after("aw"), "new");
    EXPECT_EQ(after("wa"), "oldnew");
    EXPECT_EQ(after("+w"), "new");
    EXPECT_EQ(after("+r"), "old");
}

TEST_F(StreamOpen, WithAnOverriddenWriteLetterStillSkipsTheLookForAMark)
{
    const TempDir dir;
    write_file(dir / "f", "\xEF\xBB\xBFx");
    Stream stream(dir / "f", "wr");
    EXPECT_EQ(read_values(stream, 5), (std::vector<int32_t>{signed_byte(0xEF), signed_byte(0xBB),
                                                            signed_byte(0xBF), 'x', -1}));
}

TEST_F(StreamOpen, ReadsBackNothingFromAFileJustTruncated)
{
    const TempDir dir;
    write_file(dir / "f", "gone");
    Stream stream(dir / "f", "w+");
    EXPECT_EQ(psp_fgetc(stream), -1);
    psp_fputs("abc", stream);
    EXPECT_EQ(psp_fgetc(stream), -1); // the position is behind what was written
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), "abc");
}

TEST_F(StreamOpen, WithExtraFlagsWorksTheSame)
{
    const TempDir dir;
    Stream out(psp_fopenEx((dir / "f").c_str(), "w", PSP_FILE_MODE_UNKNOWN, 0x200));
    EXPECT_EQ(psp_fputs("x", out), 1);
    EXPECT_EQ(psp_fsync(out), 0);
    EXPECT_EQ(read_file(dir / "f"), "x");
}

TEST_F(StreamOpen, GivesBackAllItsMemoryAndItsDescriptorOnClose)
{
    const TempDir dir;
    Stream(dir / "f", "w").close(); // the file layer makes its state
    const std::size_t memory = global_bytes();
    const std::size_t descriptors = open_descriptors();
    for (const char* mode : {"w", "r", "a", "r+", "w+"}) {
        Stream stream(dir / "f", mode);
        EXPECT_EQ(open_descriptors(), descriptors + 1);
        psp_fprintf(stream, "%2000s", "staged");
        EXPECT_GT(global_bytes(), memory + 2000);
        stream.close();
        EXPECT_EQ(open_descriptors(), descriptors);
        EXPECT_EQ(global_bytes(), memory);
    }
}

TEST_F(StreamOpen, IsRefusedByTheSwitchesOfTheProcess)
{
    const TempDir dir;
    write_file(dir / "f", "text");
    const int status = run_in_child([&] {
        psp_rdonly();
        EXPECT_EQ(psp_fopen((dir / "f").c_str(), "w", PSP_FILE_MODE_UTF8), nullptr);
        EXPECT_EQ(psp_fopen((dir / "f").c_str(), "a", PSP_FILE_MODE_UTF8), nullptr);
        EXPECT_EQ(psp_fopen((dir / "f").c_str(), "r+", PSP_FILE_MODE_UTF8), nullptr);
        EXPECT_EQ(read_all(Stream(dir / "f", "r")), "text");
        psp_nodisk();
        EXPECT_EQ(psp_fopen((dir / "f").c_str(), "r", PSP_FILE_MODE_UTF8), nullptr);
        Stream out("stdout", "w");
        return 0;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read_file(dir / "f"), "text");
}

TEST_F(StreamBeforeStart, NothingOpens)
{
    const TempDir dir;
    EXPECT_EQ(psp_fopen((dir / "f").c_str(), "w", PSP_FILE_MODE_UTF8), nullptr);
    EXPECT_EQ(psp_fopenEx("stdout", "w", PSP_FILE_MODE_UTF8, 0), nullptr);
    EXPECT_EQ(psp_fopenStd("stdout"), nullptr);
    EXPECT_EQ(psp_fopenStdEx("stdin", 0), nullptr);
    EXPECT_FALSE(file_exists(dir / "f"));
}

// ---- The mark at the start of a file ----

TEST_F(StreamMark, OfUtf8IsSkipped)
{
    const TempDir dir;
    for (const PSP_FILE_MODE fmode :
         {PSP_FILE_MODE_UNKNOWN, PSP_FILE_MODE_UTF8, PSP_FILE_MODE_UTF16}) {
        write_file(dir / "f", "\xEF\xBB\xBFtext");
        EXPECT_EQ(read_all(Stream(dir / "f", "r", fmode)), "text");
        write_file(dir / "f", "\xEF\xBB\xBF");
        EXPECT_EQ(read_all(Stream(dir / "f", "r", fmode)), "");
    }
}

TEST_F(StreamMark, ThatIsNoneBelongsToTheText)
{
    const TempDir dir;
    // clang-format off
    const std::string texts[] = {"text", "\xEFtext", "\xEF\xBBtext", "\xEF\xBB\xBE", "\xEF\xBB\xEF",
                                 "\xEF\xEF\xBB\xBF", "\xEFx", "\xFEx", "x\xFE", "x\xEF\xBB\xBF", "\xBB\xBF"};
    // clang-format on
    for (const std::string& text : texts)
        for (const PSP_FILE_MODE fmode : {PSP_FILE_MODE_UNKNOWN, PSP_FILE_MODE_UTF16}) {
            write_file(dir / "f", text);
            for (const char* mode : {"r", "r+"}) {
                Stream stream(dir / "f", mode, fmode);
                for (const char byte : text)
                    EXPECT_EQ(psp_fgetc(stream), signed_byte(static_cast<unsigned char>(byte)));
                EXPECT_EQ(psp_fgetc(stream), -1);
            }
        }
}

TEST_F(StreamMark, StartedWithFFIsTextToo)
{
    const TempDir dir;
    write_file(dir / "f", "\xFFz");
    Stream stream(dir / "f", "r", PSP_FILE_MODE_UTF16);
    EXPECT_EQ(read_values(stream, 3), (std::vector<int32_t>{-1, 'z', -1}));
}

TEST_F(StreamMark, CutShortKeepsTheCallersMode)
{
    const TempDir dir;
    for (const std::string cut : {"\xEF", "\xEF\xBB", "\xFF", "\xFE"}) {
        write_file(dir / "f", cut);
        // Those bytes are lost to the reader; only an undecided stream gives zeros instead of the
        // end.
        EXPECT_EQ(psp_fgetc(Stream(dir / "f", "r", PSP_FILE_MODE_UTF8)), -1);
        EXPECT_EQ(psp_fgetc(Stream(dir / "f", "r", PSP_FILE_MODE_UTF16)), -1);
        EXPECT_EQ(read_values(Stream(dir / "f", "r", PSP_FILE_MODE_UNKNOWN), 3),
                  (std::vector<int32_t>{0, 0, 0}));
    }
}

TEST_F(StreamMark, CutShortShowsInWhatTheStreamWrites)
{
    const TempDir dir;
    write_file(dir / "f", "\xEF");
    Stream stream(dir / "f", "r+", PSP_FILE_MODE_UTF16);
    EXPECT_EQ(psp_fputs("A", stream), 1);
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), std::string("\xEF"
                                                "A\0",
                                                3));
}

TEST_F(StreamMark, IsNotWrittenToUtf8)
{
    const TempDir dir;
    for (const PSP_FILE_MODE fmode : {PSP_FILE_MODE_UNKNOWN, PSP_FILE_MODE_UTF8})
        for (const char* mode : {"w", "w+", "a", "a+"}) {
            std::filesystem::remove(dir / "f");
            Stream stream(dir / "f", mode, fmode);
            EXPECT_EQ(psp_fputs("\xC3\xA9", stream), 2);
            stream.close();
            EXPECT_EQ(read_file(dir / "f"), "\xC3\xA9");
        }
}

TEST_F(StreamMark, OfAnEmptyFileMakesItUtf8)
{
    const TempDir dir;
    write_file(dir / "f", "");
    Stream stream(dir / "f", "r+", PSP_FILE_MODE_UTF16);
    EXPECT_EQ(psp_fgetc(stream), -1);
    psp_fputs("\xC3\xA9", stream);
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), "\xC3\xA9"); // as it is: no units, no mark
}

// ---- Writing ----

TEST_F(StreamWrite, TakesTheLowByte)
{
    const TempDir dir;
    Stream stream(dir / "f", "w");
    for (const int32_t c : {0x141, -0xBE, 0, 0xFF, -1, 0x1000043})
        EXPECT_EQ(psp_fputc(c, stream), 1);
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), std::string("AB\0\xFF\xFF"
                                                "C",
                                                6));
}

TEST_F(StreamWrite, OfAStringGivesItsLength)
{
    const TempDir dir;
    Stream stream(dir / "f", "w");
    EXPECT_EQ(psp_fputs("", stream), 0);
    EXPECT_EQ(psp_fputs("abc", stream), 3);
    EXPECT_EQ(psp_fputs("\x80\xC3\xFF", stream), 3); // nothing is checked
    EXPECT_EQ(psp_fputs(pattern(5000).c_str(), stream), 5000);
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), "abc\x80\xC3\xFF" + pattern(5000));
}

TEST_F(StreamWrite, ReachesTheFileACacheAtATime)
{
    const TempDir dir;
    Stream stream(dir / "f", "w");
    std::size_t written = 0;
    for (; written < 3 * cache_size; written++) {
        ASSERT_EQ(psp_fputc('x', stream), 1);
        const std::size_t before_this_byte = written / cache_size * cache_size;
        ASSERT_EQ(std::filesystem::file_size(dir / "f"), before_this_byte) << written;
    }
    psp_fflush(stream);
    EXPECT_EQ(std::filesystem::file_size(dir / "f"), written);
}

TEST_F(StreamWrite, ReachesTheFileOnAFlushASyncAndAClose)
{
    const TempDir dir;
    Stream stream(dir / "f", "w");
    psp_fputs("a", stream);
    EXPECT_EQ(read_file(dir / "f"), "");
    EXPECT_EQ(psp_fflush(stream), 0);
    EXPECT_EQ(read_file(dir / "f"), "a");
    EXPECT_EQ(psp_fflush(stream), 0);
    psp_fputs("b", stream);
    EXPECT_EQ(psp_fsync(stream), 0);
    EXPECT_EQ(read_file(dir / "f"), "ab");
    psp_fputs("c", stream);
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), "abc");
}

TEST_F(StreamWrite, ToAFullDiskIsNotNoticed)
{
    if (!file_exists("/dev/full"))
        GTEST_SKIP() << "no /dev/full";
    Stream stream(std::string("/dev/full"), "w");
    EXPECT_EQ(psp_fputs(pattern(5000).c_str(), stream), 5000);
    EXPECT_EQ(psp_fputc('x', stream), 1);
    EXPECT_EQ(psp_fflush(stream), 0);
    EXPECT_EQ(psp_fsync(stream), 0);
    EXPECT_EQ(psp_fprintf(stream, "%d", 12345), 5);
}

TEST_F(StreamWrite, ToAReaderIsTakenAndLost)
{
    const TempDir dir;
    write_file(dir / "f", "text");
    Stream stream(dir / "f", "r");
    EXPECT_EQ(psp_fputs(pattern(3000).c_str(), stream), 3000);
    EXPECT_EQ(psp_fflush(stream), 0);
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), "text");
}

TEST_F(StreamWrite, ToAPipeWithoutReaderIsNotNoticed)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    {
        const Redirected out(1, ends[1]);
        close(ends[0]);
        Stream stream(psp_fopenStd("stdout"));
        EXPECT_EQ(psp_fputs("x", stream), 1);
        EXPECT_EQ(psp_fflush(stream), 0); // and the process lives
    }
    close(ends[1]);
}

} // namespace
