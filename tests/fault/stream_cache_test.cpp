// The cache of a text stream, seen from both sides: the calls that reach the descriptor, their
// sizes and their order, and the fields of the records, for random use of streams in every mode;
// with transfers that fail, are short or are interrupted.
#include "support/fault_test.h"
#include "support/stream_model.h"
#include "support/text_test.h"

#include "psp.h"
#include "psp_file_int.h"
#include "psp_stream_int.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <random>
#include <string>
#include <vector>

#include <sys/syscall.h>
#include <unistd.h>

extern "C" uint32_t __real_psp_fileWrite(PSP_FH handle, const void* data, uint32_t size);

using namespace psptest;

namespace {

// ---- The descriptor under watch ----

int watched = -1;
Script script;
std::vector<Transfer> transfers;
int syncs = 0;

// Notes a call and plays the next outcome; the number of bytes to move, or -1 with errno set.
ssize_t play(char op, std::size_t size)
{
    transfers.push_back({op, size});
    const Outcome outcome = script.next();
    if (outcome.kind == Outcome::FAILED || outcome.kind == Outcome::INTERRUPTED) {
        errno = outcome.kind == Outcome::INTERRUPTED ? EINTR : EIO;
        return -1;
    }
    return static_cast<ssize_t>(outcome.kind == Outcome::SHORT ? std::min(size, outcome.most)
                                                               : size);
}

ssize_t watched_read(int fd, void* data, size_t size)
{
    if (fd != watched)
        return syscall(SYS_read, fd, data, size);
    const ssize_t count = play('r', size);
    return count < 0 ? count : syscall(SYS_read, fd, data, static_cast<size_t>(count));
}

ssize_t watched_write(int fd, const void* data, size_t size)
{
    if (fd != watched)
        return syscall(SYS_write, fd, data, size);
    const ssize_t count = play('w', size);
    return count < 0 ? count : syscall(SYS_write, fd, data, static_cast<size_t>(count));
}

int watched_fsync(int)
{
    syncs++;
    return 0;
}

class StreamCache : public FaultTest {
  protected:
    void SetUp() override
    {
        FaultTest::SetUp();
        transfers.clear();
        script.coming.clear();
        syncs = 0;
        watched = -1;
        Fault::replace("read", watched_read);
        Fault::replace("write", watched_write);
        Fault::replace("fsync", watched_fsync);
    }

    // Opens a file that the next new descriptor will be for.
    PSP_FILE_STREAM open(const char* mode, PSP_FILE_MODE fmode = PSP_FILE_MODE_UNKNOWN)
    {
        watched = dup(0);
        ::close(watched); // the lowest free number, which the open gets
        PSP_FILE_STREAM stream = psp_fopen(path_.c_str(), mode, fmode);
        EXPECT_NE(stream, nullptr);
        if (stream != nullptr) {
            const int fd = static_cast<int>(reinterpret_cast<intptr_t>(stream->fh->fh->handle));
            EXPECT_EQ(fd, watched);
        }
        return stream;
    }

    const TempDir dir_;
    const std::string path_ = dir_ / "f";
};

using Calls = std::vector<Transfer>;

void expect_state(PSP_FILE_STREAM stream, const StreamModel& model)
{
    ASSERT_EQ(stream->fh->buff_off, model.buff_off);
    ASSERT_EQ(stream->fh->off, model.off);
    ASSERT_EQ(stream->fh->size, model.size);
    ASSERT_EQ(stream->fh->bytes, model.bytes);
    ASSERT_EQ(stream->fh->modified, model.modified ? 1u : 0u);
    ASSERT_EQ(stream->fmode, model.mode);
    ASSERT_EQ(stream->swap, model.swap ? 1 : 0);
    ASSERT_EQ(stream->bom_off, model.bom_off);
    ASSERT_EQ(stream->pboff, model.pushed.size());
    ASSERT_EQ(stream->bytesleft, model.bytesleft);
}

// ---- By hand ----

TEST_F(StreamCache, ReadsAWholeCacheAtATime)
{
    write_file(path_, std::string(2500, 'x'));
    Stream stream(open("r"));
    EXPECT_EQ(transfers, (Calls{{'r', 1024}})); // the look for a mark
    EXPECT_EQ(read_all(stream).size(), 2500u);
    EXPECT_EQ(transfers, (Calls{{'r', 1024}, {'r', 1024}, {'r', 1024}})); // no fourth at the end
}

TEST_F(StreamCache, AsksNoMoreThanTheLengthThatItKnows)
{
    write_file(path_, std::string(1024, 'x'));
    Stream stream(open("r"));
    EXPECT_EQ(read_all(stream).size(), 1024u);
    EXPECT_EQ(psp_fgetc(stream), -1);
    EXPECT_EQ(transfers, (Calls{{'r', 1024}}));
}

TEST_F(StreamCache, AsksAgainAtEachEndOfAnUnknownLength)
{
    write_file(path_, "");
    Stream stream(open("r"));
    EXPECT_EQ(psp_fgetc(stream), -1);
    EXPECT_EQ(psp_fgetc(stream), -1);
    EXPECT_EQ(transfers, (Calls{{'r', 1024}, {'r', 1024}, {'r', 1024}}));
}

TEST_F(StreamCache, WritesWhenTheWindowIsFullAndTheNextByteComes)
{
    Stream stream(open("w"));
    for (int i = 0; i < 1024; i++)
        psp_fputc('x', stream);
    EXPECT_EQ(transfers, Calls{});
    psp_fputc('x', stream);
    EXPECT_EQ(transfers, (Calls{{'w', 1024}}));
    psp_fflush(stream);
    psp_fflush(stream);
    EXPECT_EQ(transfers, (Calls{{'w', 1024}, {'w', 1}}));
    stream.close();
    EXPECT_EQ(transfers.size(), 2u);
}

TEST_F(StreamCache, WritesALongStringByTheWindow)
{
    Stream stream(open("w"));
    EXPECT_EQ(psp_fputs("abc", stream), 3);
    EXPECT_EQ(psp_fputs(std::string(3000, 'x').c_str(), stream), 3000);
    EXPECT_EQ(transfers, (Calls{{'w', 1024}, {'w', 1024}}));
    stream.close();
    EXPECT_EQ(transfers, (Calls{{'w', 1024}, {'w', 1024}, {'w', 955}}));
}

TEST_F(StreamCache, SyncsBehindTheFlush)
{
    Stream stream(open("w"));
    psp_fputs("abc", stream);
    EXPECT_EQ(psp_fsync(stream), 0);
    EXPECT_EQ(transfers, (Calls{{'w', 3}}));
    EXPECT_EQ(syncs, 1);
    EXPECT_EQ(psp_fsync(stream), 0);
    EXPECT_EQ(transfers.size(), 1u);
    EXPECT_EQ(syncs, 2);
}

TEST_F(StreamCache, SyncsEvenWhenTheFlushFailed)
{
    Stream stream(open("w"));
    psp_fputs("abc", stream);
    script.coming = {{Outcome::FAILED}};
    EXPECT_EQ(psp_fsync(stream), 0); // a failure reads like success
    EXPECT_EQ(syncs, 1);
    stream.close();
    EXPECT_EQ(read_file(path_), "abc");
}

TEST_F(StreamCache, DoesNotSyncWithTheFlagAgainstIt)
{
    Stream stream(psp_fopenEx(path_.c_str(), "w", PSP_FILE_MODE_UTF8, 0x200));
    psp_fputs("abc", stream);
    EXPECT_EQ(psp_fsync(stream), 0);
    EXPECT_EQ(syncs, 0);
    EXPECT_EQ(read_file(path_), "abc");
}

TEST_F(StreamCache, KeepsBytesThatAFlushCouldNotWrite)
{
    Stream stream(open("w"));
    psp_fputs("abc", stream);
    script.coming = {{Outcome::FAILED}};
    EXPECT_EQ(psp_fflush(stream), 0);
    EXPECT_EQ(stream->fh->modified, 1u);
    psp_fputs("def", stream);
    psp_fflush(stream);
    EXPECT_EQ(transfers, (Calls{{'w', 3}, {'w', 6}}));
    EXPECT_EQ(read_file(path_), "abcdef");
}

TEST_F(StreamCache, LosesAWindowThatCannotBeWrittenWithoutAWord)
{
    Stream stream(open("w"));
    EXPECT_EQ(psp_fputs(std::string(1024, 'x').c_str(), stream), 1024);
    script.coming = {{Outcome::FAILED}};
    EXPECT_EQ(psp_fputc('y', stream), 1);
    stream.close();
    EXPECT_EQ(transfers, (Calls{{'w', 1024}, {'w', 1}}));
    EXPECT_EQ(read_file(path_), "y");
}

TEST_F(StreamCache, GoesOnAfterShortAndInterruptedWrites)
{
    Stream stream(open("w"));
    psp_fputs("abcdefgh", stream);
    script.coming = {
        {Outcome::INTERRUPTED}, {Outcome::SHORT, 3}, {Outcome::INTERRUPTED}, {Outcome::SHORT, 1}};
    psp_fflush(stream);
    EXPECT_EQ(transfers, (Calls{{'w', 8}, {'w', 8}, {'w', 5}, {'w', 5}, {'w', 4}}));
    EXPECT_EQ(stream->fh->modified, 0u);
    EXPECT_EQ(read_file(path_), "abcdefgh");
}

// A handle that takes half of what it is given, which none of the library's own does.
uint32_t take_half(PSP_FH, const void*, uint32_t size)
{
    return size / 2;
}

TEST_F(StreamCache, RefusesBytesWhileItsHandleTakesAPart)
{
    Stream stream(open("w"));
    EXPECT_EQ(psp_fputs(std::string(1020, 'x').c_str(), stream), 1020);
    Fault::replace("psp_fileWrite", take_half);
    EXPECT_EQ(psp_fputs("12345", stream), -1) << "there is room for four";
    EXPECT_EQ(psp_fputc('6', stream), 0);
    EXPECT_EQ(psp_fprintf(stream, "%d", 7), -1);
    EXPECT_EQ(psp_fflush(stream), 0);
    EXPECT_EQ(psp_fsync(stream), 0);
    EXPECT_EQ(syncs, 0) << "no sync of a part";
    EXPECT_EQ(stream->fh->off, 1024u);
    EXPECT_EQ(stream->fh->modified, 1u);
    Fault::replace("psp_fileWrite", __real_psp_fileWrite);
    EXPECT_EQ(psp_fputc('8', stream), 1);
    stream.close();
    EXPECT_EQ(transfers, (Calls{{'w', 1024}, {'w', 1}}));
    EXPECT_EQ(read_file(path_), std::string(1020, 'x') + "12348");
}

TEST_F(StreamCache, EndsWhileItsHandleTakesAPart)
{
    const std::string text = pattern(4000);
    write_file(path_, text);
    Stream stream(open("r+"));
    EXPECT_EQ(psp_fgetc(stream), text[0]);
    EXPECT_EQ(psp_fputc('X', stream), 1);
    char rest[1024];
    EXPECT_EQ(psp_fgets(rest, 1023, stream), rest); // to the end of the window
    Fault::replace("psp_fileWrite", take_half);
    EXPECT_EQ(psp_fgetc(stream), -1);
    EXPECT_EQ(psp_fgetc(stream), -1);
    EXPECT_EQ(stream->fh->modified, 1u);
    Fault::replace("psp_fileWrite", __real_psp_fileWrite);
    EXPECT_EQ(psp_fgetc(stream), text[2048]) << "the window went behind the one that was read";
    EXPECT_EQ(transfers, (Calls{{'r', 1024}, {'w', 1024}, {'r', 1024}}));
}

TEST_F(StreamCache, RefusesUnitsWhileItsHandleTakesAPart)
{
    for (const int free_units : {0, 1}) {
        Stream stream(open("w", PSP_FILE_MODE_UTF16));
        for (int units = 1 + free_units; units < 512; units++) // the mark is the first
            EXPECT_EQ(psp_fputc('x', stream), 1);
        Fault::replace("psp_fileWrite", take_half);
        for (const int byte : {0xF0, 0x9F, 0x98})
            EXPECT_EQ(psp_fputc(byte, stream), 1);
        EXPECT_EQ(psp_fputc(0x80, stream), 0);
        EXPECT_EQ(stream->val, free_units == 0 ? 0x1F600u : 0xDE00u) << "which was refused";
        EXPECT_EQ(stream->fh->off, 1024u);
        EXPECT_EQ(psp_fputc('y', stream), 0);
        EXPECT_EQ(psp_fputs("y", stream), -1);
        Fault::replace("psp_fileWrite", __real_psp_fileWrite);
        EXPECT_EQ(psp_fputc('y', stream), 1);
        stream.close();
        const std::string bytes = read_file(path_);
        ASSERT_EQ(bytes.size(), 1026u);
        EXPECT_EQ(bytes.substr(1022),
                  free_units == 0 ? std::string("x\0y\0", 4) : std::string("\x3D\xD8y\0", 4));
    }
}

TEST_F(StreamCache, GoesOnAfterShortAndInterruptedReads)
{
    write_file(path_, "abcdefgh");
    script.coming = {
        {Outcome::INTERRUPTED}, {Outcome::SHORT, 3}, {Outcome::INTERRUPTED}, {Outcome::SHORT, 1}};
    Stream stream(open("r"));
    EXPECT_EQ(read_all(stream), "abcdefgh");
    EXPECT_EQ(transfers, Calls(5, {'r', 1024}));
}

TEST_F(StreamCache, TakesAFailedReadForTheEndAndTriesAgain)
{
    write_file(path_, std::string(1024, 'x') + "ab");
    Stream stream(open("r"));
    for (int i = 0; i < 1024; i++)
        EXPECT_EQ(psp_fgetc(stream), 'x');
    script.coming = {{Outcome::FAILED}};
    EXPECT_EQ(psp_fgetc(stream), -1);
    EXPECT_EQ(psp_fgetc(stream), 'a');
    char line[4];
    EXPECT_EQ(psp_fgets(line, 4, stream), line);
    EXPECT_STREQ(line, "b");
}

TEST_F(StreamCache, FindsAMarkThatArrivesAByteAtATime)
{
    for (const std::string mark : {"\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF"}) {
        write_file(path_, mark);
        script.coming = {{Outcome::SHORT, 1}, {Outcome::SHORT, 1}, {Outcome::SHORT, 1}};
        Stream stream(open("r"));
        EXPECT_EQ(stream->bom_off, mark.size());
        EXPECT_EQ(psp_fgetc(stream), -1);
    }
}

TEST_F(StreamCache, ReadsWhatLiesInTheWindowAfterAWriteThere)
{
    write_file(path_, "abcdef");
    Stream stream(open("r+"));
    EXPECT_EQ(psp_fgetc(stream), 'a');
    psp_fputc('X', stream); // takes the place of b in the window
    EXPECT_EQ(psp_fgetc(stream), 'c');
    stream.close();
    // The first bytes of the window, up to the position, go behind what was read from the file.
    EXPECT_EQ(transfers, (Calls{{'r', 1024}, {'w', 3}}));
    EXPECT_EQ(read_file(path_), "abcdefaXc");
}

TEST_F(StreamCache, KnowsTheLengthOfAllButTheOutputsOpenedByName)
{
    CapturedFd captured(1);
    ASSERT_EQ(write(1, "12345", 5), 5);
    {
        Stream file(path_, "w");
        EXPECT_EQ(file->fh->size, 0u);
        Stream named("stdout", "w");
        EXPECT_EQ(named->fh->size, 0u);
        Stream other_case("stdOUT", "w"); // the descriptor, but not the name that counts here
        EXPECT_EQ(other_case->fh->size, 5u);
        Stream standard(psp_fopenStd("stdout"));
        EXPECT_EQ(standard->fh->size, 5u);
        EXPECT_EQ(standard->fmode, PSP_FILE_MODE_UTF8);
        EXPECT_EQ(standard->bom_off, 0u);
        EXPECT_EQ(standard->fh->is_console, ZYN_FALSE);
    }
    captured.finish();
}

TEST_F(StreamCache, StagesFormattedTextInABufferOfItsExactSize)
{
    Stream stream(open("w"));
    EXPECT_EQ(stream->buf, nullptr);
    EXPECT_EQ(psp_fprintf(stream, "%s", ""), 0);
    EXPECT_EQ(stream->buf, nullptr);
    constexpr std::pair<int, uint32_t> steps[] = {
        {10, 11}, {5, 11}, {11, 12}, {300, 301}, {1, 301}};
    for (const auto& [width, size] : steps) {
        EXPECT_EQ(psp_fprintf(stream, "%*d", width, 1), width);
        EXPECT_EQ(stream->bufsize, size);
    }
}

// ---- At random, beside the model ----

class RandomUse {
  public:
    RandomUse(uint32_t seed, bool faulty) : random_(seed), faulty_(faulty) {}

    std::string text(std::size_t most)
    {
        std::string text(random_() % (most + 1), '\0');
        for (char& byte : text)
            byte = byte_of(random_() % 6);
        return text;
    }
    std::string file()
    {
        static const std::string marks[] = {"",          "\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF",
                                            "\xEF",      "\xEF\xBB",     "\xFF",     "\xFE",
                                            "\xEF\xBBx", "\xFEx"};
        const std::string mark = marks[random_() % std::size(marks)];
        return random_() % 4 == 0 ? mark : mark + text(4000);
    }
    char byte_of(uint32_t kind)
    {
        const uint32_t any = random_();
        return static_cast<char>(kind == 0   ? '\n'
                                 : kind == 1 ? 0x80 + any % 0x40
                                 : kind == 2 ? 0xC0 + any % 0x40
                                 : kind == 3 ? 1 + any % 0xFF
                                             : 'a' + any % 26);
    }
    // The same outcomes for both sides.
    void plan(StreamModel& model)
    {
        if (!faulty_)
            return;
        script.coming.clear();
        for (int i = 0; i < 4; i++) {
            Outcome outcome;
            outcome.kind = static_cast<Outcome::Kind>(random_() % 4);
            outcome.most = 1 + random_() % 1100;
            script.coming.push_back(outcome);
        }
        model.file.script = script;
    }
    uint32_t operator()(uint32_t below)
    {
        return static_cast<uint32_t>(random_()) % below;
    }

  private:
    std::mt19937 random_;
    bool faulty_;
};

void step(PSP_FILE_STREAM stream, StreamModel& model, RandomUse& random)
{
    switch (random(12)) {
    case 0:
    case 1:
        for (uint32_t count = random(300); count > 0; count--)
            ASSERT_EQ(psp_fgetc(stream), model.fgetc());
        break;
    case 2: {
        char line[200];
        std::string expected;
        const auto room = static_cast<int32_t>(random(200));
        const bool some = model.fgets(room, &expected);
        ASSERT_EQ(psp_fgets(line, room, stream), some ? line : nullptr);
        if (some) {
            ASSERT_EQ(std::string(line, expected.size()), expected);
            ASSERT_EQ(line[expected.size()], '\0');
        }
        break;
    }
    case 3:
    case 4: {
        const std::string text = random.text(random(8) == 0 ? 3000 : 100);
        ASSERT_EQ(psp_fputs(text.c_str(), stream), model.fputs(text));
        break;
    }
    case 5:
    case 6: {
        const auto byte = static_cast<uint8_t>(random.byte_of(random(6)));
        ASSERT_EQ(psp_fputc(byte, stream), model.fputc(byte) ? 1 : 0);
        break;
    }
    case 7: {
        const auto c = static_cast<int32_t>(random(300)) - 20;
        for (uint32_t count = random(4); count > 0; count--)
            ASSERT_EQ(psp_fungetc(c, stream), model.fungetc(c));
        break;
    }
    case 8:
        ASSERT_EQ(psp_fflush(stream), 0);
        model.flush();
        break;
    case 9:
        ASSERT_EQ(psp_fsync(stream), 0);
        model.flush();
        break;
    case 10: {
        const std::string text = random.text(200);
        ASSERT_EQ(psp_fprintf(stream, "%s", text.c_str()), model.fputs(text));
        break;
    }
    default: // a run over several windows
        for (uint32_t count = random(1500); count > 0; count--)
            ASSERT_EQ(psp_fputc('q', stream), model.fputc('q') ? 1 : 0);
    }
}

class StreamCacheAtRandom : public StreamCache {
  protected:
    void run(bool faulty)
    {
        for (uint32_t seed = 1; seed <= 40; seed++)
            for (const OpenMode& mode : open_modes) {
                SCOPED_TRACE(std::string(mode.mode) + " with seed " + std::to_string(seed));
                run_one(mode, seed, faulty);
                if (HasFatalFailure())
                    return;
            }
    }

  private:
    void run_one(const OpenMode& mode, uint32_t seed, bool faulty)
    {
        RandomUse random(seed, faulty);
        StreamModel model;
        const std::string before = random.file();
        std::filesystem::remove(path_); // a new file is cheaper than one that is cut
        write_file(path_, before);
        transfers.clear();
        const int fmode = static_cast<int>(random(3));
        random.plan(model);
        model.open(mode, before, fmode);
        Stream stream(open(mode.mode, static_cast<PSP_FILE_MODE>(fmode)));
        ASSERT_NO_FATAL_FAILURE(expect_state(stream, model));
        for (uint32_t count = random(25); count > 0; count--) {
            random.plan(model);
            ASSERT_NO_FATAL_FAILURE(step(stream, model, random));
            ASSERT_NO_FATAL_FAILURE(expect_state(stream, model));
            ASSERT_EQ(transfers, model.file.transfers);
        }
        random.plan(model);
        stream.close();
        model.flush();
        ASSERT_EQ(transfers, model.file.transfers);
        ASSERT_EQ(read_file(path_), model.file.bytes);
    }
};

TEST_F(StreamCacheAtRandom, BehavesLikeTheModel)
{
    run(false);
}

TEST_F(StreamCacheAtRandom, BehavesLikeTheModelWhenTransfersFail)
{
    run(true);
}

} // namespace
