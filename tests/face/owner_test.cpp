// Owning: what every class of the C++ face does with its handle when it is made, moved, emptied and
// destroyed.
#include "support/mem_test.h"

#include "psp.hpp"

#include <type_traits>
#include <utility>
#include <vector>

#include <fcntl.h>

using namespace psptest;

namespace {

// A handle that is a number, and a list of those that were closed.
struct Numbered {
    using native_type = int;
    static inline std::vector<int> closed;
    static native_type none() noexcept
    {
        return -1;
    }
    static void close(native_type number) noexcept
    {
        closed.push_back(number);
    }
};
using Owner = psp::owner<Numbered>;
using Closed = std::vector<int>;

class OwnerTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        Numbered::closed.clear();
    }
};

TEST_F(OwnerTest, OwnsNothingByDefault)
{
    {
        const Owner empty;
        EXPECT_FALSE(empty);
        EXPECT_EQ(empty.native(), -1);
    }
    EXPECT_EQ(Numbered::closed, Closed{});
}

TEST_F(OwnerTest, ClosesItsHandleOnce)
{
    {
        const Owner owner(7);
        EXPECT_TRUE(owner);
        EXPECT_EQ(owner.native(), 7);
    }
    EXPECT_EQ(Numbered::closed, Closed{7});
}

TEST_F(OwnerTest, ClosesTheHandleZeroToo)
{
    Owner(0).reset();
    EXPECT_EQ(Numbered::closed, Closed{0});
}

TEST_F(OwnerTest, MovesItsHandleAndIsEmptyAfterwards)
{
    {
        Owner first(7);
        const Owner second(std::move(first));
        EXPECT_FALSE(first); // NOLINT: what is left behind is told
        EXPECT_EQ(second.native(), 7);
    }
    EXPECT_EQ(Numbered::closed, Closed{7});
}

TEST_F(OwnerTest, ClosesWhatItHadWhenItIsAssignedTo)
{
    {
        Owner first(7);
        Owner second(8);
        second = std::move(first);
        EXPECT_EQ(Numbered::closed, Closed{8});
        EXPECT_EQ(second.native(), 7);
        EXPECT_FALSE(first); // NOLINT
    }
    EXPECT_EQ(Numbered::closed, (Closed{8, 7}));
}

TEST_F(OwnerTest, StaysAsItIsWhenMovedToItself)
{
    {
        Owner owner(7);
        Owner& itself = owner;
        owner = std::move(itself);
        EXPECT_EQ(owner.native(), 7);
        EXPECT_EQ(Numbered::closed, Closed{});
    }
    EXPECT_EQ(Numbered::closed, Closed{7});
}

TEST_F(OwnerTest, GivesItsHandleAwayUnclosed)
{
    {
        Owner owner(7);
        EXPECT_EQ(owner.release(), 7);
        EXPECT_FALSE(owner);
    }
    EXPECT_EQ(Numbered::closed, Closed{});
}

TEST_F(OwnerTest, ClosesTheOldHandleWhenItTakesANewOne)
{
    Owner owner(7);
    owner.reset(8);
    EXPECT_EQ(Numbered::closed, Closed{7});
    owner.reset();
    EXPECT_EQ(Numbered::closed, (Closed{7, 8}));
    owner.reset();
    EXPECT_EQ(Numbered::closed, (Closed{7, 8}));
}

TEST_F(OwnerTest, CanBeKeptInAVectorThatGrows)
{
    {
        std::vector<Owner> owners;
        for (int number = 0; number < 9; number++)
            owners.emplace_back(number);
        EXPECT_EQ(Numbered::closed, Closed{});
        EXPECT_EQ(owners[8].native(), 8);
    }
    EXPECT_EQ(Numbered::closed.size(), 9u);
}

template <class T>
constexpr bool moves_without_copies =
    !std::is_copy_constructible_v<T> && !std::is_copy_assignable_v<T> &&
    std::is_nothrow_move_constructible_v<T> && std::is_nothrow_move_assignable_v<T> &&
    std::is_nothrow_default_constructible_v<T> && std::is_nothrow_destructible_v<T>;

static_assert(moves_without_copies<psp::library> && moves_without_copies<psp::tag> &&
              moves_without_copies<psp::pool> && moves_without_copies<psp::mutex> &&
              moves_without_copies<psp::try_mutex> && moves_without_copies<psp::event> &&
              moves_without_copies<psp::file> && moves_without_copies<psp::temporary_file> &&
              moves_without_copies<psp::scan> && moves_without_copies<psp::string> &&
              moves_without_copies<psp::stream> && moves_without_copies<psp::line_buffer> &&
              moves_without_copies<psp::binary_reader> &&
              moves_without_copies<psp::binary_writer> && moves_without_copies<psp::random>);

// An owner is no larger than what it owns.
static_assert(sizeof(psp::tag) == sizeof(PSP_MEMTAG) && sizeof(psp::mutex) == sizeof(PSP_SEM) &&
              sizeof(psp::file) == sizeof(PSP_FH) && sizeof(psp::scan) == sizeof(PSP_DIR));

TEST(Position, IsThatOfTheCall)
{
    const auto here = [](psp::position at = psp::position::here()) { return at; };
    const psp::position at = here();
    EXPECT_EQ(at.line, __LINE__ - 1);
    EXPECT_STREQ(at.file, __FILE__);
}

class Library : public RawTest {};

TEST_F(Library, IsStartedAndStoppedByItsOwner)
{
    {
        ZYN_RETCODE rc = ePSP_FAILURE;
        const psp::library started = psp::library::start(&rc);
        EXPECT_TRUE(started);
        EXPECT_EQ(rc, sOKAY);
        EXPECT_EQ(psp_inited, 1);
    }
    EXPECT_EQ(psp_inited, 0);
}

TEST_F(Library, CountsItsOwnersAndStopsWithTheLast)
{
    psp::library first = psp::library::start();
    {
        psp::library second = psp::library::start();
        EXPECT_EQ(psp_inited, 2);
        first = std::move(second);
        EXPECT_EQ(psp_inited, 1) << "what was owned before is given up";
    }
    EXPECT_EQ(psp_inited, 1);
    first.reset();
    EXPECT_EQ(psp_inited, 0);
}

TEST_F(Library, ObjectsGoInTheOppositeOrderOfTheirMakingAndLeaveNothing)
{
    TempDir dir;
    const psp::library started = psp::library::start();
    const psp::tag tag = psp::tag::create();
    const psp::string name = psp::string::format(tag.native(), "%s/file", dir.c_str());
    psp::pool pool = psp::pool::create(tag.native());
    pool.put(pool.get(100));
    const psp::file file = psp::file::open(name.c_str(), O_RDWR | O_CREAT);
    const psp::random random = psp::random::create(1);
    const psp::mutex mutex = psp::mutex::create();
    EXPECT_TRUE(tag && name && pool && file && random && mutex);
    // The fixture counts descriptors and memory.
}

TEST_F(Library, GivesNothingBeforeItsStart)
{
    ZYN_RETCODE rc = sOKAY;
    EXPECT_FALSE(psp::tag::create(BLOCK_ALLOCATOR, psp::access::one_thread, &rc));
    EXPECT_EQ(rc, ePSP_FAILURE);
    rc = sOKAY;
    EXPECT_FALSE(
        psp::pool::create(nullptr, psp::access::one_thread, nullptr, nullptr, nullptr, &rc));
    EXPECT_EQ(rc, ePSP_FAILURE);
    EXPECT_FALSE(psp::mutex::create());
    EXPECT_FALSE(psp::try_mutex::create());
    EXPECT_FALSE(psp::event::create());
    EXPECT_FALSE(psp::file::open("/dev/null", O_RDONLY));
    EXPECT_FALSE(psp::temporary_file::create());
    EXPECT_FALSE(psp::stream::open("/dev/null", "r"));
    EXPECT_FALSE(psp::stream::open_standard("stdin"));
    EXPECT_FALSE(psp::random::create());
    EXPECT_FALSE(psp::string::format(PSP_GLOBAL_TAG, "text"));
    EXPECT_FALSE(psp::string::copy(PSP_GLOBAL_TAG, "text"));
    EXPECT_FALSE(psp::scan::open("/"));
    auto source = [](void*, uint32_t, uint32_t*) noexcept -> ZYN_RETCODE { return eEOD; };
    EXPECT_FALSE(psp::binary_reader::create(source, psp::byte_order::host, &rc));
    EXPECT_EQ(rc, eNOMEMORY);
    auto sink = [](const void*, uint32_t) noexcept -> ZYN_RETCODE { return sOKAY; };
    rc = sOKAY;
    EXPECT_FALSE(psp::binary_writer::create(sink, psp::byte_order::host, &rc));
    EXPECT_EQ(rc, eNOMEMORY);
}

TEST_F(Library, OwnersThatWereEmptiedMayOutliveIt)
{
    psp::library started = psp::library::start();
    psp::tag tag = psp::tag::create();
    psp::mutex mutex = psp::mutex::create();
    EXPECT_NE(tag.release(), nullptr);
    EXPECT_NE(mutex.release(), PSP_SEM_INVALID);
    started.reset(); // releases both
    EXPECT_EQ(memory_in_use(), 0u);
}

} // namespace
