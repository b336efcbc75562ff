// Text streams when memory runs out, files cannot be opened and transfers fail: what the caller is
// told, that nothing is lost and that all works again afterwards. And files of another kind.
#include "support/text_fault.h"

#include "psp.h"
#include "psp_file_int.h"
#include "psp_stream_int.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

extern "C" PSP_FH __real_psp_fileOpenStd(const char* name, uint32_t flags, uint16_t xflags,
                                         ZYN_BOOL_T* is_console);

using namespace psptest;

namespace {

class StreamFault : public TextFault {};

// ---- Streams ----

TEST_F(StreamFault, OpeningJumpsOutOfTheGlobalTagWithNothingLost)
{
    const std::size_t descriptors = open_descriptors();
    int jumped = 0;
    const int runs = fail_every_call("tag_alloc", false, [&](Fault& fault, int) {
        PSP_FILE_STREAM stream = nullptr;
        jumped += jumps(PSP_GLOBAL_TAG,
                        [&] { stream = psp_fopen(path_.c_str(), "w", PSP_FILE_MODE_UTF8); });
        fault.disarm();
        EXPECT_EQ(stream == nullptr, fault.failures() > 0);
        if (stream != nullptr)
            psp_fclose(stream);
        expect_nothing_lost();
        EXPECT_EQ(open_descriptors(), descriptors);
    });
    EXPECT_EQ(jumped, 2) << "of " << runs << ": the stream and its cache live in the global tag";
}

TEST_F(StreamFault, OpeningAStandardStreamJumpsOutOfTheGlobalTagOnlyWithoutMemory)
{
    int jumped = 0;
    const int runs = fail_every_call("tag_alloc", false, [&](Fault& fault, int) {
        PSP_FILE_STREAM stream = nullptr;
        jumped += jumps(PSP_GLOBAL_TAG, [&] { stream = psp_fopenStd("stdout"); });
        fault.disarm();
        EXPECT_EQ(stream == nullptr, fault.failures() > 0);
        if (stream != nullptr)
            psp_fclose(stream);
        expect_nothing_lost();
    });
    EXPECT_EQ(jumped, 2) << "of " << runs << ": the stream and its cache live in the global tag";
}

TEST_F(StreamFault, OpeningInAModeThatIsNoneIsAFileThatCannotBeOpened)
{
    PSP_FILE_STREAM stream = nullptr;
    EXPECT_EQ(psp_streamOpen(path_.c_str(), "q", PSP_FILE_MODE_UTF8, 0, &stream), eFILEOPEN);
    EXPECT_EQ(stream, nullptr);
}

TEST_F(StreamFault, ALineThatCannotStartIsNone)
{
    write_file(path_, "text\n");
    Stream stream(path_, "r");
    char* buf = nullptr;
    uint32_t len = 0;
    {
        Fault fault("tag_alloc", 1);
        EXPECT_EQ(psp_fGetLine(stream, &buf, &len, PSP_GLOBAL_TAG), nullptr);
        EXPECT_EQ(fault.failures(), 1);
    }
    EXPECT_EQ(buf, nullptr);
    EXPECT_EQ(psp_fGetLine(stream, &buf, &len, PSP_GLOBAL_TAG), buf); // and nothing was read
    EXPECT_STREQ(buf, "text\n");
    psp_freeMem(buf, PSP_GLOBAL_TAG, __FILE__, __LINE__);
}

TEST_F(StreamFault, ALineThatCannotGrowIsGivenInParts)
{
    const std::string text = std::string(333, 'x') + "\n";
    for (const bool jump : {false, true}) {
        write_file(path_, text);
        const int runs = fail_every_call("tag_alloc", false, [&](Fault&, int) {
            Stream stream(psp_fopen(path_.c_str(), "r", PSP_FILE_MODE_UTF8));
            if (stream == nullptr)
                return; // this run failed the opening
            char* buf = nullptr;
            uint32_t len = 0;
            std::string read;
            while (read.size() < text.size()) {
                const auto get_line = [&] { psp_fGetLine(stream, &buf, &len, PSP_GLOBAL_TAG); };
                if (jump)
                    jumps(PSP_GLOBAL_TAG, get_line);
                else
                    get_line();
                if (buf == nullptr)
                    continue; // it failed at once
                EXPECT_GE(len, 100u);
                read += buf;
                buf[0] = '\0';
            }
            EXPECT_EQ(read, text);
            psp_freeMem(buf, PSP_GLOBAL_TAG, __FILE__, __LINE__);
        });
        EXPECT_GE(runs, 7);
        expect_nothing_lost();
    }
}

TEST_F(StreamFault, PrintingWithoutMemoryWritesNothing)
{
    Stream stream(path_, "w");
    EXPECT_EQ(psp_fprintf(stream, "%s", "short"), 5);
    {
        Fault fault("tag_alloc", 1, true);
        EXPECT_EQ(psp_fprintf(stream, "%100d", 1), -1);
        EXPECT_EQ(psp_fprintf(stream, "%s", "same5"), 5); // there is room for this one
        EXPECT_TRUE(jumps(PSP_GLOBAL_TAG, [&] { psp_fprintf(stream, "%100d", 1); }));
    }
    EXPECT_EQ(psp_fprintf(stream, "%100d", 1), 100);
    stream.close();
    EXPECT_EQ(read_file(path_), "shortsame5" + std::string(99, ' ') + "1");
    expect_nothing_lost();
}

// ---- Files of another kind ----

// A table of operations for this test, on the descriptor of an ordinary file.
class OtherFile {
  public:
    explicit OtherFile(PSP_FILE_STREAM stream)
        : file_(stream->fh->fh), saved_(file_->fcns), fcns(*saved_)
    {
        file_->fcns = &fcns;
    }
    ~OtherFile()
    {
        file_->fcns = saved_;
    }
    OtherFile(const OtherFile&) = delete;
    OtherFile& operator=(const OtherFile&) = delete;

  private:
    PSPFTAB* file_;
    const PSP_FILE_FCNS* saved_;

  public:
    PSP_FILE_FCNS fcns;
};

ZYN_BOOL_T echo_seen = 77;

TEST_F(StreamFault, ATableWithoutTerminalOperationsIsAnsweredForByTheStream)
{
    Stream stream(path_, "w");
    OtherFile other(stream);
    other.fcns.is_tty = nullptr;
    other.fcns.set_echo = nullptr;
    ZYN_BOOL_T is_tty = 77;
    EXPECT_EQ(psp_fIsATTY(stream, &is_tty), eNOTIMPLEMENTED);
    EXPECT_EQ(is_tty, 77);
    EXPECT_EQ(psp_fSetEcho(stream, ZYN_TRUE), sOKAY);
}

TEST_F(StreamFault, TheCodesOfTerminalOperationsArePassedOn)
{
    Stream stream(path_, "w");
    OtherFile other(stream);
    other.fcns.is_tty = [](PSP_HANDLE, ZYN_BOOL_T* is_tty) -> ZYN_RETCODE {
        *is_tty = 5;
        return eBADREAD;
    };
    other.fcns.set_echo = [](PSP_HANDLE, ZYN_BOOL_T echo) -> ZYN_RETCODE {
        echo_seen = echo;
        return eBADWRITE;
    };
    ZYN_BOOL_T is_tty = 77;
    EXPECT_EQ(psp_fIsATTY(stream, &is_tty), eBADREAD);
    EXPECT_EQ(is_tty, 5);
    EXPECT_EQ(psp_fSetEcho(stream, ZYN_FALSE), eBADWRITE);
    EXPECT_EQ(echo_seen, ZYN_FALSE);
    EXPECT_EQ(psp_fSetEcho(stream, ZYN_TRUE), eBADWRITE);
    EXPECT_EQ(echo_seen, ZYN_TRUE);
}

PSP_FH open_console(const char* name, uint32_t flags, uint16_t xflags, ZYN_BOOL_T* is_console)
{
    const PSP_FH handle = __real_psp_fileOpenStd(name, flags, xflags, is_console);
    *is_console = ZYN_TRUE;
    return handle;
}

TEST_F(StreamFault, AConsoleSpeaksUtf16WithoutAMark)
{
    Fault::replace("psp_fileOpenStd", open_console);
    Stream stream(psp_fopenStd("stdout"));
    EXPECT_EQ(stream->fmode, PSP_FILE_MODE_UTF16);
    EXPECT_EQ(stream->fh->is_console, ZYN_TRUE);
    EXPECT_EQ(stream->bom_off, 0u);
    EXPECT_EQ(stream->fh->modified, 0u);
}

std::string console_text;

TEST_F(StreamFault, AConsoleIsReachedByItsOwnOperations)
{
    console_text.clear();
    Stream stream(path_, "w+");
    OtherFile other(stream);
    other.fcns.console_write = [](PSP_HANDLE, const void* data, size_t size) -> ZYN_RETCODE {
        console_text.append(static_cast<const char*>(data), size);
        return sOKAY;
    };
    other.fcns.console_read = [](PSP_HANDLE, void* data, size_t size,
                                 size_t* count) -> ZYN_RETCODE {
        EXPECT_EQ(size, 1024u);
        std::memcpy(data, "typed", 5);
        *count = 5;
        return sOKAY;
    };
    stream->fh->is_console = ZYN_TRUE;
    EXPECT_EQ(psp_fputs("shown", stream), 5);
    psp_fflush(stream);
    EXPECT_EQ(console_text, "shown");
    stream->fh->size = 0; // a console has no length
    EXPECT_EQ(read_values(stream, 5), (std::vector<int32_t>{'t', 'y', 'p', 'e', 'd'}));
    other.fcns.console_write = nullptr; // what cannot be written stays modified
    psp_fputs("lost", stream);
    EXPECT_EQ(psp_fflush(stream), 0);
    EXPECT_EQ(stream->fh->modified, 1u);
    stream->fh->modified = 0;
    stream->fh->is_console = ZYN_FALSE;
    EXPECT_EQ(console_text, "shown");
}

} // namespace
