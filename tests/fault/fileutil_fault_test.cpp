// Copying, comparing and asking when the system or the memory refuses, and every read and write
// that they make, which a model predicts.
#include "file_trace.h"
#include "support/fault_test.h"
#include "support/file_test.h"

#include "psp/fileutil.h"
#include "psp/tmpdir.h"

#include <algorithm>
#include <random>
#include <string>
#include <vector>

using namespace psptest;

namespace {

using Lines = Trace::Lines;

constexpr std::size_t block = 1024;

std::string transfer(const char* call, const char* file, std::size_t size, std::size_t at)
{
    return std::string(call) + " " + file + " " + std::to_string(size) + " at " +
           std::to_string(at);
}

// The calls of a copy of `src` onto a file that holds `dest`.
Lines calls_of_copy(const std::string& src, const std::string& dest)
{
    Lines lines = {"open src 0x0 00", "open dest 0x42 0666", "fstat src", "fstat dest"};
    for (std::size_t at = 0; at < src.size(); at += block) {
        lines.push_back(transfer("pread", "src", block, at));
        const std::size_t size = std::min(block, src.size() - at);
        const bool there = at + size <= dest.size();
        if (there)
            lines.push_back(transfer("pread", "dest", size, at));
        if (!there || dest.compare(at, size, src, at, size) != 0)
            lines.push_back(transfer("pwrite", "dest", size, at));
    }
    if (src.size() != dest.size())
        lines.push_back("ftruncate dest " + std::to_string(src.size()));
    lines.insert(lines.end(), {"close dest", "close src"});
    return lines;
}

// The calls of a comparison.
Lines calls_of_compare(const std::string& src, const std::string& dest)
{
    Lines lines = {"open src 0x0 00", "open dest 0x0 00"};
    for (std::size_t at = 0;; at += block) {
        lines.push_back(transfer("pread", "src", block, at));
        if (at >= src.size()) {
            lines.push_back(transfer("pread", "dest", 1, at));
            break;
        }
        const std::size_t size = std::min(block, src.size() - at);
        lines.push_back(transfer("pread", "dest", size, at));
        if (at + size > dest.size() || dest.compare(at, size, src, at, size) != 0)
            break;
        if (size < block) { // the next read goes on where this one ended
            lines.push_back(transfer("pread", "src", block, at + size));
            lines.push_back(transfer("pread", "dest", 1, at + size));
            break;
        }
    }
    lines.insert(lines.end(), {"close dest", "close src"});
    return lines;
}

class FileUtilFault : public FaultTest {
  protected:
    void SetUp() override
    {
        FaultTest::SetUp();
        release(get(1, PSP_THREAD_TAG), PSP_THREAD_TAG); // made now, not while calls are counted
        descriptors_ = open_descriptors();
    }
    ZYN_RETCODE copy(const std::string& src, const std::string& dest)
    {
        put_file(src_, src);
        put_file(dest_, dest);
        return copy();
    }
    ZYN_RETCODE copy()
    {
        const ZYN_RETCODE rc = psp_fileCopy(src_.c_str(), dest_.c_str());
        EXPECT_EQ(open_descriptors(), descriptors_);
        return rc;
    }
    ZYN_RETCODE compare()
    {
        const ZYN_RETCODE rc = psp_fileCmp(src_.c_str(), dest_.c_str());
        EXPECT_EQ(open_descriptors(), descriptors_);
        return rc;
    }

    TempDir dir_;
    const std::string src_ = dir_ / "src";
    const std::string dest_ = dir_ / "dest";
    std::size_t descriptors_ = 0;
};

// ---- The calls ----

TEST_F(FileUtilFault, CopyingReadsFirstAndWritesWhatDiffers)
{
    const std::string bytes(2500, 'x');
    Trace trace;
    EXPECT_EQ(copy(bytes, bytes), sOKAY);
    EXPECT_EQ(trace.take(),
              (Lines{"open src 0x0 00", "open dest 0x42 0666", "fstat src", "fstat dest",
                     "pread src 1024 at 0", "pread dest 1024 at 0", "pread src 1024 at 1024",
                     "pread dest 1024 at 1024", "pread src 1024 at 2048", "pread dest 452 at 2048",
                     "close dest", "close src"}));
    EXPECT_EQ(copy("", bytes), sOKAY);
    EXPECT_EQ(trace.take(), (Lines{"open src 0x0 00", "open dest 0x42 0666", "fstat src",
                                   "fstat dest", "ftruncate dest 0", "close dest", "close src"}));
    EXPECT_EQ(copy("", ""), sOKAY);
    EXPECT_EQ(trace.take().size(), 6u);
}

TEST_F(FileUtilFault, CopyingMakesExactlyTheCallsOfTheModel)
{
    std::mt19937 random(45);
    Trace trace;
    for (int i = 0; i < 300; i++) {
        // Lengths around the blocks' ends; the old file shares some blocks.
        const auto length = [&] {
            return random() % 5 * block + random() % 3 * 511 + random() % 3;
        };
        const std::string src = random_bytes(random, length());
        std::string dest = src;
        dest.resize(length(), 'x');
        for (std::size_t change = random() % 3; change > 0 && !dest.empty(); change--)
            dest[random() % dest.size()] ^= 1;
        ASSERT_EQ(copy(src, dest), sOKAY);
        ASSERT_EQ(trace.take(), calls_of_copy(src, dest)) << src.size() << " " << dest.size();
        ASSERT_EQ(read_file(dest_), src);
    }
}

TEST_F(FileUtilFault, ComparingMakesExactlyTheCallsOfTheModel)
{
    std::mt19937 random(46);
    Trace trace;
    for (int i = 0; i < 300; i++) {
        const std::string src = random_bytes(random, random() % 4 * block + random() % 3);
        std::string dest = src;
        if (random() % 2 == 0)
            dest.resize(random() % 4 * block + random() % 3, 'x');
        if (random() % 3 == 0 && !dest.empty())
            dest[random() % dest.size()] ^= 1;
        put_file(src_, src);
        put_file(dest_, dest);
        ASSERT_EQ(compare(), src == dest ? sOKAY : ePSP_FAILURE);
        ASSERT_EQ(trace.take(), calls_of_compare(src, dest)) << src.size() << " " << dest.size();
    }
}

TEST_F(FileUtilFault, AFileThatDoesNotOpenEndsTheCall)
{
    Trace trace;
    EXPECT_EQ(copy(), ePSP_FAILURE);
    EXPECT_EQ(trace.take(), Lines{"open src 0x0 00"});
    EXPECT_EQ(compare(), ePSP_NOSOURCE);
    EXPECT_EQ(trace.take(), Lines{"open src 0x0 00"});
    write_file(src_, "text");
    ASSERT_EQ(mkdir(dest_.c_str(), 0777), 0); // opens for reading only
    trace.take();
    EXPECT_EQ(copy(), ePSP_FAILURE);
    EXPECT_EQ(trace.take(), (Lines{"open src 0x0 00", "open dest 0x42 0666", "close src"}));
    ASSERT_EQ(rmdir(dest_.c_str()), 0);
    trace.take();
    EXPECT_EQ(compare(), ePSP_NODEST);
    EXPECT_EQ(trace.take(), (Lines{"open src 0x0 00", "open dest 0x0 00", "close src"}));
}

TEST_F(FileUtilFault, RemovingAndAskingAreOneCall)
{
    write_file(src_, "text");
    Trace trace;
    EXPECT_EQ(psp_fileValidate(src_.c_str()), ZYN_TRUE);
    EXPECT_EQ(psp_fileModTimeStat(src_.c_str(), 0, nullptr), sOKAY);
    EXPECT_EQ(psp_fileRemove(src_.c_str()), sOKAY);
    EXPECT_EQ(trace.take(), (Lines{"stat src", "stat src", "remove src"}));
    EXPECT_EQ(run_in_child([&] {
                  psp_rdonly();
                  EXPECT_EQ(psp_fileRemove(src_.c_str()), ePSP_FAILURE);
                  EXPECT_EQ(trace.take(), Lines());
                  psp_nodisk();
                  EXPECT_EQ(psp_fileValidate(src_.c_str()), ZYN_FALSE);
                  EXPECT_EQ(psp_fileModTimeStat(src_.c_str(), 0, nullptr), eFILEOPEN);
                  EXPECT_EQ(trace.take(), Lines());
                  return 0;
              }),
              0);
}

// ---- Failing transfers ----

TEST_F(FileUtilFault, CopyingWritesABlockThatCouldNotBeCompared)
{
    const std::string src(2048, 'x');
    const Fault writes("pwrite");
    Fault::fail_nth("pread", 2); // the first block of the destination
    EXPECT_EQ(copy(src, src), sOKAY);
    EXPECT_EQ(writes.calls(), 1);
    Fault::shorten_nth("pread", 4, 100); // only a part of the second
    EXPECT_EQ(copy(src, src), sOKAY);
    EXPECT_EQ(writes.calls(), 2);
    EXPECT_EQ(read_file(dest_), src);
}

TEST_F(FileUtilFault, CopyingFailsWhenTheSourceShrinks)
{
    Fault::shorten_nth("pread", 2, 0); // the end, where its length says that there is more
    EXPECT_EQ(copy(std::string(2000, 'x'), ""), ePSP_FAILURE);
    EXPECT_EQ(read_file(dest_), std::string(1024, 'x'));
}

TEST_F(FileUtilFault, CopyingWithoutTheDestinationsLengthWritesAll)
{
    const std::string src(2000, 'x');
    const Fault lengths("fstat", 2);
    const Fault writes("pwrite");
    EXPECT_EQ(copy(src, src + "tail"), sOKAY);
    EXPECT_EQ(writes.calls(), 2);
    EXPECT_EQ(read_file(dest_), src);
}

// ---- Memory ----

TEST_F(FileUtilFault, CopyingSurvivesEveryRefusedAllocation)
{
    const int refused = fail_every_call("tag_alloc", false, [&](const Fault& fault, int n) {
        const ZYN_RETCODE rc = copy("new", "old");
        EXPECT_EQ(rc, fault.failures() > 0 ? ePSP_FAILURE : sOKAY) << n;
        EXPECT_EQ(read_file(dest_), fault.failures() > 0 ? "old" : "new") << n;
    });
    EXPECT_EQ(refused, 6); // a record and a name for each file, two buffers
    for (int n = 1; n <= 6; n++)
        expect_no_growth([&] {
            const Fault fault("tag_alloc", n);
            EXPECT_EQ(psp_fileCopy(src_.c_str(), dest_.c_str()), ePSP_FAILURE);
        });
}

TEST_F(FileUtilFault, ComparingTellsWhichAllocationWasRefused)
{
    write_file(src_, "text");
    write_file(dest_, "text");
    const ZYN_RETCODE expected[] = {ePSP_NOSOURCE, ePSP_NOSOURCE, ePSP_NODEST,
                                    ePSP_NODEST,   eNOMEMORY,     eNOMEMORY};
    const int refused = fail_every_call("tag_alloc", false, [&](const Fault& fault, int n) {
        const ZYN_RETCODE rc = compare();
        EXPECT_EQ(rc, fault.failures() > 0 ? expected[n - 1] : sOKAY) << n;
    });
    EXPECT_EQ(refused, 6);
    for (int n = 1; n <= 6; n++)
        expect_no_growth([&] {
            const Fault fault("tag_alloc", n);
            EXPECT_NE(psp_fileCmp(src_.c_str(), dest_.c_str()), sOKAY);
        });
}

TEST_F(FileUtilFault, TemporaryNamesSurviveEveryRefusedAllocation)
{
    psp_setTmpDir(dir_.c_str());
    taken(psp_tmpdir(PSP_THREAD_TAG), PSP_THREAD_TAG); // chosen now
    const PSP_MEMTAG tag = make_tag(LEGACY_ALLOCATOR);
    const long blocks = live_heap_blocks();
    std::uint32_t counter = 0;
    const int refused = fail_every_call("tag_alloc", false, [&](const Fault&, int n) {
        const std::string name = taken(psp_fileCreateTmpName(&counter, "b", "e", 0, tag), tag);
        // Without its directory the name lies in the root; without its own memory there is none.
        const std::string start = n == 1 ? "/b_0x" : dir_ / "b_0x";
        EXPECT_EQ(name.substr(0, start.size()), n == 2 ? "(null)" : start);
        EXPECT_EQ(counter, static_cast<std::uint32_t>(n));
        EXPECT_EQ(live_heap_blocks(), blocks);
    });
    EXPECT_EQ(refused, 2);
    expect_no_growth([&] {
        const Fault fault("tag_alloc", 2);
        EXPECT_EQ(psp_fileCreateTmpName(&counter, "b", "e", 0, tag), nullptr);
    });
    destroy_tag(tag);
    psp_setTmpDir(nullptr);
}

} // namespace
