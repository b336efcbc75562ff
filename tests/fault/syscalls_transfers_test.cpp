// Reads and writes that the system interrupts, cuts short, moves nothing in or refuses, in every
// order: scripts of what the next calls do, beside a model of the file.
#include "support/call_faults.h"
#include "support/scale.h"
#include "support/text_test.h"

#include "psp/fileutil.h"
#include "psp/stream.h"

#include <algorithm>
#include <string>
#include <vector>

using namespace psptest;

extern "C" {
ssize_t __real_read(int fd, void* data, size_t size);
ssize_t __real_write(int fd, const void* data, size_t size);
ssize_t __real_pread(int fd, void* data, size_t size, off_t at);
ssize_t __real_pwrite(int fd, const void* data, size_t size, off_t at);
}

namespace {

// ---- Scripts ----

// What one call does: moves at most so many bytes, is interrupted, or fails.
constexpr long interrupted = -1;
constexpr long refused = -2;
constexpr std::size_t whole = 1 << 20;

using Script = std::vector<long>;

Script script;
std::size_t next_step = 0;

// The next step; calls beyond the script move all.
long step()
{
    return next_step < script.size() ? script[next_step++] : static_cast<long>(whole);
}

void play(const Script& steps)
{
    script = steps;
    next_step = 0;
}

template <auto real>
struct Scripted;
template <class Data, class... At, ssize_t (*real)(int, Data, size_t, At...)>
struct Scripted<real> {
    static ssize_t call(int fd, Data data, size_t size, At... at)
    {
        const long now = step();
        if (now >= 0)
            return real(fd, data, std::min(size, static_cast<size_t>(now)), at...);
        errno = now == interrupted ? EINTR : EIO;
        return -1;
    }
};

std::string told(const Script& steps)
{
    std::string text = "script";
    for (const long now : steps)
        text += now == interrupted ? " EINTR" : now == refused ? " EIO" : " " + std::to_string(now);
    return text;
}

// Runs body(script) for every script of up to `depth` of these steps.
template <class Body>
void for_every_script(const Script& steps, std::size_t depth, Body body)
{
    Script now;
    const auto extend_with = [&](const auto& self) -> void {
        {
            SCOPED_TRACE(told(now));
            body(now);
        }
        if (now.size() == depth || ::testing::Test::HasFailure())
            return;
        for (const long next : steps) {
            now.push_back(next);
            self(self);
            now.pop_back();
        }
    };
    extend_with(extend_with);
}

// ---- The model of a file that is read and written in sequence ----

class File {
  public:
    explicit File(std::string bytes, const Script& steps) : bytes_(std::move(bytes)), steps_(steps)
    {
    }
    // One read: the bytes, and whether it was refused.
    std::string read(std::size_t size, bool* failed = nullptr)
    {
        long now = take();
        while (now == interrupted)
            now = take();
        if (failed != nullptr)
            *failed = now == refused;
        if (now == refused)
            return "";
        const std::string got = bytes_.substr(std::min(at_, bytes_.size()),
                                              std::min(size, static_cast<std::size_t>(now)));
        at_ += got.size();
        return got;
    }
    // A write of everything: false when it was refused, maybe after some of it.
    bool write(std::string_view data)
    {
        while (true) {
            const long now = take();
            if (now == interrupted)
                continue;
            if (now == refused)
                return false;
            const std::string_view part = data.substr(0, static_cast<std::size_t>(now));
            if (!part.empty()) // nothing does not even lengthen the file
                bytes_.resize(std::max(bytes_.size(), at_ + part.size()));
            bytes_.replace(std::min(at_, bytes_.size()), part.size(), part);
            at_ += part.size();
            data.remove_prefix(part.size());
            if (data.empty())
                return true;
        }
    }
    void seek(std::size_t at)
    {
        at_ = at;
    }
    const std::string& bytes() const
    {
        return bytes_;
    }

  private:
    long take()
    {
        return done_ < steps_.size() ? steps_[done_++] : static_cast<long>(whole);
    }

    std::string bytes_;
    const Script& steps_;
    std::size_t done_ = 0;
    std::size_t at_ = 0;
};

class Transfers : public FaultTest {
  protected:
    void SetUp() override
    {
        FaultTest::SetUp();
        Fault::replace("read", Scripted<__real_read>::call);
        Fault::replace("write", Scripted<__real_write>::call);
        Fault::replace("pread", Scripted<__real_pread>::call);
        Fault::replace("pwrite", Scripted<__real_pwrite>::call);
        play({});
        Stream(path_, "w").close(); // whatever is made once is made now
        release(get(8, PSP_THREAD_TAG), PSP_THREAD_TAG);
        before_ = Footprint::now();
    }
    void TearDown() override
    {
        EXPECT_EQ(Footprint::now(), before_);
        expect_nothing_held();
        script = {};
        script.shrink_to_fit();
        FaultTest::TearDown();
    }
    static std::string random_text(std::size_t size)
    {
        std::string text;
        std::mt19937 random(7);
        while (text.size() < size)
            text += static_cast<char>('a' + random() % 26);
        return text;
    }

    TempDir dir_;
    const std::string path_ = dir_ / "file";
    const std::string other_ = dir_ / "other";
    Footprint before_;
};

constexpr std::string_view digits = "0123456789";

const std::size_t depth = in_long_run<std::size_t>(3, 5);

// ---- Handles: every script over the lengths of a small transfer ----

const Script small_steps = {interrupted, refused, 0, 1, 3, 7, 8};

TEST_F(Transfers, OfAHandleReadWhatTheModelReads)
{
    write_file(path_, digits);
    for_every_script(small_steps, depth, [&](const Script& steps) {
        const Handle handle(path_);
        File sequential(std::string(digits), steps);
        play(steps);
        for (int i = 0; i < 3; i++) { // the position moves on with what was read
            bool failed = false;
            char bytes[8];
            errno = 0;
            const std::uint32_t count = psp_fileRead(handle, bytes, 8);
            const int error = errno;
            EXPECT_EQ(std::string(bytes, count), sequential.read(8, &failed));
            EXPECT_EQ(error, failed ? EIO : 0);
        }
        File positioned(std::string(digits), steps);
        play(steps);
        for (const std::size_t at : {4u, 9u, 10u}) {
            char bytes[8];
            positioned.seek(at);
            const std::uint32_t count = psp_fileSeekRead(handle, at, bytes, 8);
            EXPECT_EQ(std::string(bytes, count), positioned.read(8));
        }
    });
}

TEST_F(Transfers, OfAHandleWriteWhatTheModelWrites)
{
    put_file(path_, digits);
    for_every_script(small_steps, depth, [&](const Script& steps) {
        for (const bool positioned : {false, true}) {
            const Handle handle(path_, O_RDWR);
            EXPECT_EQ(psp_fileSetSize(handle, 0), sOKAY);
            File file("", steps);
            play(steps);
            for (const std::string_view data : {"abcdefgh", "ABCDEFG"}) {
                const auto size = static_cast<std::uint32_t>(data.size());
                file.seek(positioned ? size % 5 : file.bytes().size());
                errno = 0;
                const std::uint32_t count =
                    positioned ? psp_fileSeekWrite(handle, size % 5, data.data(), size)
                               : psp_fileWrite(handle, data.data(), size);
                const int error = errno;
                const bool taken = file.write(data);
                EXPECT_EQ(count, taken ? size : 0u);
                EXPECT_EQ(error, taken ? 0 : EIO);
            }
            EXPECT_EQ(read_file(path_), file.bytes());
        }
    });
}

TEST_F(Transfers, OfEveryLengthAddUp)
{
    const std::string text = random_text(64);
    put_file(path_, text);
    put_file(other_, "");
    for (long most = 1; most <= 65; most++) {
        const Handle in(path_);
        const Handle out(other_, O_RDWR);
        const Script steps(70, most);
        char bytes[64];
        play(steps);
        EXPECT_EQ(psp_fileRead(in, bytes, 64), static_cast<std::uint32_t>(std::min(most, 64L)));
        EXPECT_EQ(std::string_view(bytes, 1), text.substr(0, 1));
        EXPECT_EQ(psp_fileSetSize(out, 0), sOKAY);
        play(steps);
        EXPECT_EQ(psp_fileWrite(out, text.data(), 64), 64u);
        EXPECT_EQ(read_file(other_), text) << most;
        const auto calls = static_cast<std::size_t>((63 + most) / most);
        EXPECT_EQ(next_step, calls) << most;
    }
}

// ---- Streams: lengths around the ends of their cache ----

constexpr std::size_t window = 1024;
const Script stream_steps = {interrupted, refused, 0, 1, 1023, 1024};

// The bytes that a stream gives until it ends for the third time. Its look at the byte-order mark
// takes the first window; a window of nothing is an end, and the next character asks again.
std::string streamed(File& file)
{
    std::string got = file.read(window);
    for (int ends = 0; ends < 3;) {
        const std::size_t known = 2500; // the length of the file: nothing is asked for beyond it
        const std::string part = got.size() < known ? file.read(window) : "";
        got += part;
        ends += part.empty();
    }
    return got;
}

TEST_F(Transfers, OfAStreamReadWhatTheModelReads)
{
    const std::string text = random_text(2500);
    write_file(path_, text);
    for_every_script(stream_steps, depth + 1, [&](const Script& steps) {
        play(steps);
        Stream stream(path_, "r");
        std::string got;
        for (int ends = 0; ends < 3;) {
            const int c = psp_fgetc(stream);
            if (c == -1)
                ends++;
            else
                got += static_cast<char>(c);
        }
        File file(text, steps);
        EXPECT_TRUE(got == streamed(file)) << got.size();
    });
}

// A window that is refused when the next one begins is gone, with what came of it so far.
TEST_F(Transfers, OfAStreamWriteWhatTheModelWrites)
{
    const std::string text = random_text(2500);
    for_every_script(stream_steps, depth + 1, [&](const Script& steps) {
        play(steps);
        Stream stream(path_, "w");
        EXPECT_EQ(psp_fputs(text.c_str(), stream), 2500);
        stream.close();
        File file("", steps);
        for (std::size_t at = 0; at < text.size(); at += window)
            file.write(std::string_view(text).substr(at, window));
        EXPECT_TRUE(read_file(path_) == file.bytes());
    });
}

// What a flush could not pass on stays, and the next one passes on all of it: what had been taken
// of it before is there twice then.
TEST_F(Transfers, OfAFlushAreMadeAnewByTheNextOne)
{
    const Script steps_of_flush = {interrupted, refused, 0, 1, 3};
    for_every_script(steps_of_flush, depth + 1, [&](const Script& steps) {
        play(steps);
        Stream stream(path_, "w");
        File file("", steps);
        std::string waiting;
        for (const char* part : {"abcd", "efg"}) {
            psp_fputs(part, stream);
            waiting += part;
            EXPECT_EQ(psp_fflush(stream), 0);
            if (file.write(waiting))
                waiting.clear();
            EXPECT_EQ(read_file(path_), file.bytes());
        }
        stream.close();
        if (!waiting.empty())
            file.write(waiting);
        EXPECT_EQ(read_file(path_), file.bytes());
    });
}

// ---- Copying: pieces of any length, in either file ----

TEST_F(Transfers, OfACopyOfAnyLengthMakeItWhole)
{
    const std::string text = random_text(2500);
    write_file(path_, text);
    for (const long most : {1L, 2L, 511L, 512L, 1023L, 1024L, 1025L})
        for (std::size_t from = 0; from < 8; from++)
            for (const std::size_t count : {std::size_t{1}, std::size_t{6000}}) {
                SCOPED_TRACE(std::to_string(most) + " from " + std::to_string(from));
                put_file(other_, text.substr(0, 1500) + "old");
                Script steps(from, static_cast<long>(whole));
                steps.insert(steps.end(), count, most);
                play(steps);
                EXPECT_EQ(psp_fileCopy(path_.c_str(), other_.c_str()), sOKAY);
                EXPECT_TRUE(read_file(other_) == text);
            }
}

// A short read of the first file is a shorter block, of the second one a difference.
TEST_F(Transfers, OfAComparisonThatAreShortAreADifferenceInTheSecondFileOnly)
{
    const std::string text = random_text(2500);
    write_file(path_, text);
    write_file(other_, text);
    for (std::size_t call = 0; call < 6; call++)
        for (const long most : {1L, 451L}) {
            Script steps(call, static_cast<long>(whole));
            steps.push_back(most);
            play(steps);
            EXPECT_EQ(psp_fileCmp(path_.c_str(), other_.c_str()),
                      call % 2 == 0 ? sOKAY : ePSP_FAILURE)
                << call << " " << most;
        }
    play(Script(9000, 1)); // a byte at a time in both
    EXPECT_EQ(psp_fileCmp(path_.c_str(), other_.c_str()), sOKAY);
}

} // namespace
