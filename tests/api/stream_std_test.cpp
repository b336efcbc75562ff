// Text streams on the standard descriptors and on terminals.
#include "support/text_test.h"

#include "psp.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

using namespace psptest;

namespace {

class StreamStd : public PspTest {};
class StreamTerminal : public PspTest {};

class StdinFrom {
  public:
    explicit StdinFrom(const std::string& path) : fd_(open(path.c_str(), O_RDWR)), there_(0, fd_) {}
    ~StdinFrom()
    {
        close(fd_);
    }

  private:
    int fd_;
    Redirected there_;
};

// ---- Standard streams ----

TEST_F(StreamStd, WriteToTheDescriptors)
{
    for (const auto& [name, fd] : {std::pair{"stdout", 1}, std::pair{"stderr", 2}}) {
        CapturedFd captured(fd);
        Stream stream(psp_fopenStd(name));
        ASSERT_NE(stream, nullptr);
        EXPECT_EQ(psp_fIsStdIn(stream), ZYN_FALSE);
        EXPECT_EQ(psp_fputs("h\xC3\xA9llo", stream), 6);
        EXPECT_EQ(captured.text(), "");
        psp_fflush(stream);
        EXPECT_EQ(captured.text(), "h\xC3\xA9llo"); // no mark, no units
        EXPECT_EQ(psp_fgetc(stream), -1);
        psp_fputs("!", stream);
        stream.close();
        EXPECT_EQ(write(fd, "+", 1), 1); // the descriptor is the process's own
        EXPECT_EQ(captured.finish(), "h\xC3\xA9llo!+");
    }
}

TEST_F(StreamStd, OpenByTheOrdinaryFunctionToo)
{
    CapturedFd captured(1);
    Stream stream("stdout", "w");
    EXPECT_EQ(psp_fputs("text", stream), 4);
    EXPECT_EQ(psp_fIsStdIn(stream), ZYN_FALSE);
    stream.close();
    Stream wide("stdout", "w", PSP_FILE_MODE_UTF16);
    EXPECT_EQ(psp_fputs("A", wide), 1);
    wide.close();
    EXPECT_EQ(captured.finish(), std::string("text\xFF\xFE"
                                             "A\0",
                                             8));
}

TEST_F(StreamStd, InputIsReadWithoutALookForAMark)
{
    const TempDir dir;
    write_file(dir / "f", "\xEF\xBB\xBFx");
    const StdinFrom input(dir / "f");
    {
        Stream stream(psp_fopenStd("stdin"));
        ASSERT_NE(stream, nullptr);
        EXPECT_EQ(psp_fIsStdIn(stream), ZYN_TRUE);
        EXPECT_EQ(read_all(stream), "\xEF\xBB\xBFx");
        EXPECT_EQ(psp_fputs("lost", stream), 4);
    }
    EXPECT_EQ(fcntl(0, F_GETFD), 0);
    EXPECT_EQ(lseek(0, 0, SEEK_SET), 0);
    Stream stream("stdin", "r"); // this one looks
    EXPECT_EQ(psp_fIsStdIn(stream), ZYN_FALSE);
    EXPECT_EQ(read_all(stream), "x");
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), "\xEF\xBB\xBFx");
}

TEST_F(StreamStd, InputFromAPipeGoesOnToItsEnd)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::string text = pattern(5000);
    ASSERT_EQ(write(ends[1], text.data(), text.size()), 5000);
    close(ends[1]);
    {
        const Redirected input(0, ends[0]);
        Stream stream(psp_fopenStdEx("stdin", 0));
        EXPECT_EQ(read_all(stream), text);
    }
    close(ends[0]);
}

TEST_F(StreamStd, NamesCountInLowerCaseOnly)
{
    const TempDir dir;
    const int status = run_in_child([&] {
        EXPECT_EQ(chdir(dir.c_str()), 0);
        EXPECT_EQ(psp_fopenStd("STDIN"), nullptr); // an ordinary file that is not there
        EXPECT_EQ(psp_fopenStd("Stdout"), nullptr);
        write_file("STDOUT", "\xEF\xBB\xBF"
                             "file");
        Stream file(psp_fopenStd("STDOUT"));
        EXPECT_EQ(read_all(file), "\xEF\xBB\xBF"
                                  "file");
        EXPECT_EQ(psp_fputs("lost", file), 4);
        file.close();
        EXPECT_EQ(read_file("STDOUT"), "\xEF\xBB\xBF"
                                       "file");
        // The file layer knows these names in any case behind "std", the stream does not: it opens
        // them for reading and takes none for the input.
        Stream input(psp_fopenStd("stdIN"));
        EXPECT_NE(input, nullptr);
        EXPECT_EQ(psp_fIsStdIn(input), ZYN_FALSE);
        CapturedFd captured(1);
        Stream output(psp_fopenStd("stdOUT"));
        EXPECT_EQ(psp_fputs("lost", output), 4);
        output.close();
        EXPECT_EQ(captured.finish(), "");
        return 0;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(StreamStd, FilesAreNotTheInput)
{
    const TempDir dir;
    Stream stream(dir / "f", "w");
    EXPECT_EQ(psp_fIsStdIn(stream), ZYN_FALSE);
}

// ---- Terminals ----

TEST_F(StreamTerminal, FilesAreNone)
{
    const TempDir dir;
    Stream stream(dir / "f", "w");
    ZYN_BOOL_T is_tty = 77;
    EXPECT_EQ(psp_fIsATTY(stream, &is_tty), sOKAY);
    EXPECT_EQ(is_tty, ZYN_FALSE);
    EXPECT_EQ(psp_fSetEcho(stream, ZYN_FALSE), sOKAY);
    EXPECT_EQ(psp_fSetEcho(stream, ZYN_TRUE), sOKAY);
}

TEST_F(StreamTerminal, IsAskedForWithAStreamAndAPlaceForTheAnswer)
{
    const TempDir dir;
    Stream stream(dir / "f", "w");
    ZYN_BOOL_T is_tty = 77;
    EXPECT_EQ(psp_fIsATTY(nullptr, &is_tty), eINVNULLARG);
    EXPECT_EQ(is_tty, 77);
    EXPECT_EQ(psp_fIsATTY(stream, nullptr), eINVNULLARG);
    EXPECT_EQ(psp_fSetEcho(nullptr, ZYN_TRUE), eINVNULLARG);
}

TEST_F(StreamTerminal, EchoIsSwitchedOffAndOn)
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0)
        GTEST_SKIP() << "no pseudo-terminals";
    const int terminal = open(ptsname(master), O_RDWR | O_NOCTTY);
    ASSERT_GE(terminal, 0);
    {
        const Redirected input(0, terminal);
        Stream stream(psp_fopenStd("stdin"));
        ZYN_BOOL_T is_tty = 77;
        EXPECT_EQ(psp_fIsATTY(stream, &is_tty), sOKAY);
        EXPECT_EQ(is_tty, ZYN_TRUE);
        struct termios modes;
        EXPECT_EQ(psp_fSetEcho(stream, ZYN_FALSE), sOKAY);
        ASSERT_EQ(tcgetattr(terminal, &modes), 0);
        EXPECT_EQ(modes.c_lflag & ECHO, 0u);
        EXPECT_EQ(psp_fSetEcho(stream, ZYN_TRUE), sOKAY);
        ASSERT_EQ(tcgetattr(terminal, &modes), 0);
        EXPECT_NE(modes.c_lflag & ECHO, 0u);
        EXPECT_EQ(psp_fSetEcho(stream, 2), sOKAY); // only ZYN_TRUE switches it on
        ASSERT_EQ(tcgetattr(terminal, &modes), 0);
        EXPECT_EQ(modes.c_lflag & ECHO, 0u);
        // A line typed on the terminal is there with its newline.
        ASSERT_EQ(write(master, "typed\n", 6), 6);
        char line[20];
        EXPECT_EQ(psp_fgets(line, sizeof line, stream), line);
        EXPECT_STREQ(line, "typed\n");
    }
    close(terminal);
    close(master);
}

} // namespace
