// Copying and comparing files with every call of the system failing in every way, beside models
// that say what each refused call does to the result and to the destination.
#include "support/call_faults.h"

#include "psp/fileutil.h"

#include <algorithm>
#include <cstring>
#include <string>

using namespace psptest;

namespace {

constexpr std::size_t block = 1024;

std::string bytes_of(std::size_t size, unsigned seed)
{
    std::mt19937 random(seed);
    return random_bytes(random, size);
}

// The source has two blocks and a part. The destinations: a longer file whose second block differs,
// a shorter one that ends inside a block, and one that is the same.
const std::string source = bytes_of(2500, 1);
const std::string longer = [] {
    std::string bytes = source + bytes_of(700, 2);
    bytes[1500] = static_cast<char>(~bytes[1500]);
    return bytes;
}();
const std::string shorter = source.substr(0, 1300);
const std::string same = source;

// ---- Models ----

// Counts the calls of one name and knows which of them fail.
class Calls {
  public:
    Calls(const char* failing, const Failure* failure) : failing_(failing), failure_(failure) {}

    bool fails(const char* name)
    {
        if (failure_ == nullptr || std::strcmp(name, failing_) != 0)
            return false;
        return failure_->hits(++made_);
    }

  private:
    const char* failing_;
    const Failure* failure_;
    int made_ = 0;
};

struct Result {
    ZYN_RETCODE rc;
    std::string dest;
};

// A length that cannot be had is 0, so a source without one is a copy of nothing.
Result copied(std::string dest, Calls calls)
{
    const std::size_t from = calls.fails("fstat") ? 0 : source.size();
    const std::size_t to = calls.fails("fstat") ? 0 : dest.size();
    for (std::size_t at = 0; at < from; at += block) {
        if (calls.fails("pread"))
            return {ePSP_FAILURE, dest};
        const std::string part = source.substr(at, block);
        const bool comparable = at + part.size() <= to && !calls.fails("pread");
        if (comparable && dest.compare(at, part.size(), part) == 0)
            continue;
        if (calls.fails("pwrite"))
            return {ePSP_FAILURE, dest};
        dest.resize(std::max(dest.size(), at + part.size()));
        dest.replace(at, part.size(), part);
    }
    if (from != to) {
        if (calls.fails("ftruncate"))
            return {ePSP_FAILURE, dest};
        dest.resize(from);
    }
    return {sOKAY, dest};
}

// A failed read is the end of the first file, and a difference in the second.
ZYN_RETCODE compared(const std::string& dest, Calls calls)
{
    for (std::size_t at = 0;;) {
        const std::string part =
            calls.fails("pread") || at >= source.size() ? "" : source.substr(at, block);
        if (part.empty())
            return !calls.fails("pread") && at < dest.size() ? ePSP_FAILURE : sOKAY;
        if (calls.fails("pread") || at + part.size() > dest.size() ||
            dest.compare(at, part.size(), part) != 0)
            return ePSP_FAILURE;
        at += part.size();
    }
}

// ---- The files ----

struct TwoFiles {
    TwoFiles()
    {
        write_file(src, source);
    }
    // The destination is as it was only before the first copy.
    long copy(const std::string& old)
    {
        if (!file_exists(dest))
            write_file(dest, old);
        return psp_fileCopy(src.c_str(), dest.c_str());
    }
    long compare(const std::string& bytes)
    {
        write_file(dest, bytes);
        return psp_fileCmp(src.c_str(), dest.c_str());
    }

    TempDir dir;
    const std::string src = dir / "src";
    const std::string dest = dir / "dest";
};

using CopyRow = Row<TwoFiles>;

template <const std::string* old>
long copy(TwoFiles& w)
{
    return w.copy(*old);
}

template <const std::string* bytes>
long compare(TwoFiles& w)
{
    return w.compare(*bytes);
}

void source_untouched(const TwoFiles& w)
{
    EXPECT_EQ(read_file(w.src), source);
}

void complete(TwoFiles& w, const Failure*)
{
    EXPECT_TRUE(read_file(w.dest) == source);
    source_untouched(w);
}

template <const std::string* old>
void dest_untouched(TwoFiles& w, const Failure* failure)
{
    EXPECT_TRUE(read_file(w.dest) == (failure != nullptr ? *old : source));
    source_untouched(w);
}

// The columns of a row in which the call `at` of these may fail.
constexpr const char* calls[] = {"fstat", "pread", "pwrite", "ftruncate"};
enum { at_fstat, at_pread, at_pwrite, at_ftruncate };

template <const std::string* old, int at>
long copy_result(const Failure& failure)
{
    return copied(*old, Calls(calls[at], &failure)).rc;
}

template <const std::string* old, int at>
int copy_errno(const Failure& failure)
{
    return copy_result<old, at>(failure) == sOKAY ? any_errno : failure.error;
}

template <const std::string* old, int at>
void copy_left(TwoFiles& w, const Failure* failure)
{
    EXPECT_TRUE(read_file(w.dest) == copied(*old, Calls(calls[at], failure)).dest);
    source_untouched(w);
}

template <const std::string* bytes>
long compare_result(const Failure& failure)
{
    return compared(*bytes, Calls("pread", &failure));
}

template <const std::string* old, int at>
constexpr CopyRow copy_row(const char* name)
{
    return {name,
            calls[at],
            copy<old>,
            sOKAY,
            copy_result<old, at>,
            copy_errno<old, at>,
            copy_left<old, at>,
            complete};
}

template <const std::string* bytes>
constexpr CopyRow compare_row(const char* name, ZYN_RETCODE success)
{
    return {name, "pread", compare<bytes>, success, compare_result<bytes>, unsaid};
}

// clang-format off
const CopyRow rows[] = {
    {"psp_fileCopy", "open", copy<&longer>, sOKAY, always<ePSP_FAILURE>, kept,
     dest_untouched<&longer>, complete},
    {"psp_fileCopy", "close", copy<&longer>, sOKAY, always<sOKAY>, unsaid, complete},
    {"psp_fileCopyEx", "open",
     [](TwoFiles& w) -> long { return psp_fileCopyEx(w.src.c_str(), 0, w.dest.c_str(), 0x200); },
     sOKAY, always<ePSP_FAILURE>, kept,
     [](TwoFiles& w, const Failure* f) { EXPECT_EQ(file_exists(w.dest), f == nullptr); }, complete},
    copy_row<&longer, at_fstat>("psp_fileCopy over longer"),
    copy_row<&longer, at_pread>("psp_fileCopy over longer"),
    copy_row<&longer, at_pwrite>("psp_fileCopy over longer"),
    copy_row<&longer, at_ftruncate>("psp_fileCopy over longer"),
    copy_row<&shorter, at_fstat>("psp_fileCopy over shorter"),
    copy_row<&shorter, at_pread>("psp_fileCopy over shorter"),
    copy_row<&shorter, at_pwrite>("psp_fileCopy over shorter"),
    copy_row<&shorter, at_ftruncate>("psp_fileCopy over shorter"),
    copy_row<&same, at_fstat>("psp_fileCopy over same"),
    copy_row<&same, at_pread>("psp_fileCopy over same"),

    {"psp_fileCmp", "open", compare<&same>, sOKAY,
     [](const Failure& f) -> long { return f.n == 1 ? ePSP_NOSOURCE : ePSP_NODEST; }},
    {"psp_fileCmp", "close", compare<&same>, sOKAY, always<sOKAY>, unsaid},
    compare_row<&same>("psp_fileCmp with same", sOKAY),
    compare_row<&longer>("psp_fileCmp with longer", ePSP_FAILURE),
    compare_row<&shorter>("psp_fileCmp with shorter", ePSP_FAILURE),
};
// clang-format on

class CopyCalls : public FaultTest, public ::testing::WithParamInterface<CopyRow> {};

TEST_P(CopyCalls, FailAsToldAndNothingIsLost)
{
    drive(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Every, CopyCalls, ::testing::ValuesIn(rows), name_of_row<TwoFiles>);

TEST(CopyCallsTable, HasARowForEveryCall)
{
    EXPECT_EQ(calls_in(rows), calls_for(in_copying));
}

} // namespace
