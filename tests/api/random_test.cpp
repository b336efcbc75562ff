// The random generators against a plain Mersenne Twister and the standard library's.
#include "support/psp_test.h"

#include "psp/random.h"
#include "psp/sync.h"

#include <array>
#include <cstdint>
#include <random>
#include <vector>

using namespace psptest;

namespace {

constexpr std::uint32_t default_seed = 0x8DF1337C;
constexpr std::uint32_t seeds[] = {1, 2, 5489, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, default_seed};

// MT19937 word by word, straight from its recurrence, with no block-wise regeneration: the state
// is a queue of the last 624 words.
class PlainTwister {
  public:
    explicit PlainTwister(std::uint32_t seed)
    {
        for (std::uint32_t i = 0; i < n; i++) {
            x_[i] = seed;
            seed = 1812433253u * (seed ^ seed >> 30) + i + 1;
        }
    }

    std::uint32_t next()
    {
        const std::uint32_t joined = (x_[at_] & 0x80000000u) | (x_[(at_ + 1) % n] & 0x7FFFFFFFu);
        std::uint32_t word = x_[(at_ + m) % n] ^ joined >> 1;
        if (joined % 2 != 0)
            word ^= 0x9908B0DFu;
        x_[at_] = word;
        at_ = (at_ + 1) % n;
        word ^= word >> 11;
        word ^= word << 7 & 0x9D2C5680u;
        word ^= word << 15 & 0xEFC60000u;
        return word ^ word >> 18;
    }

  private:
    static constexpr std::uint32_t n = 624;
    static constexpr std::uint32_t m = 397;
    std::array<std::uint32_t, n> x_{};
    std::uint32_t at_ = 0;
};

class Random : public PspTest {};
class RandomWithoutLibrary : public RawTest {};

// A generator that is released at the end of the scope.
class Generator {
  public:
    explicit Generator(std::uint32_t seed, bool with_lock = false)
        : handle_(with_lock ? psp_randCreate(seed) : psp_randCreateNoSem(seed))
    {
        if (handle_ == nullptr)
            ADD_FAILURE() << "no generator";
    }
    ~Generator()
    {
        psp_randDestroy(handle_);
    }
    Generator(const Generator&) = delete;
    Generator& operator=(const Generator&) = delete;
    operator PSP_RAND() const
    {
        return handle_;
    }

  private:
    PSP_RAND handle_;
};

TEST_F(Random, GivesTheReferenceSequence)
{
    const Generator generator(5489);
    EXPECT_EQ(psp_randGetUInt32(generator), 3499211612u);
    EXPECT_EQ(psp_randGetUInt32(generator), 581869302u);
    for (int drawn = 2; drawn < 9999; drawn++)
        psp_randGetUInt32(generator);
    EXPECT_EQ(psp_randGetUInt32(generator), 4123659995u) << "the 10000th";
}

TEST_F(Random, FollowsTheModelsThroughManyTwists)
{
    for (const std::uint32_t seed : seeds) {
        for (const bool with_lock : {false, true}) {
            const Generator generator(seed, with_lock);
            PlainTwister plain(seed);
            std::mt19937 standard(seed);
            for (int drawn = 0; drawn < 3 * 624 + 5; drawn++) {
                const std::uint32_t word = psp_randGetUInt32(generator);
                ASSERT_EQ(word, plain.next()) << "seed " << seed << ", draw " << drawn;
                ASSERT_EQ(word, static_cast<std::uint32_t>(standard()));
            }
        }
    }
}

void expect_words_of(std::uint32_t seed, PSP_RAND generator)
{
    psp_randResetSeed(generator, seed);
    PlainTwister plain(seed);
    for (int drawn = 0; drawn < 625; drawn++)
        ASSERT_EQ(psp_randGetUInt32(generator), plain.next())
            << "seed " << seed << ", draw " << drawn;
}

TEST_F(Random, FollowsTheModelFromManySeeds)
{
    const Generator generator(1);
    std::mt19937 choose(3);
    for (std::uint32_t seed = 0; seed < 1000; seed++) {
        ASSERT_NO_FATAL_FAILURE(expect_words_of(seed, generator));
        ASSERT_NO_FATAL_FAILURE(expect_words_of(static_cast<std::uint32_t>(choose()), generator));
    }
}

// Seeds of which a word changes its two topmost bits when its place is added: 0 to 1, 1 to 2, 2 to
// 3 and 3 to 0.
TEST_F(Random, FollowsTheModelWhereAPlaceCarriesIntoTheTopmostBits)
{
    const Generator generator(1);
    for (const std::uint32_t seed : {26603u, 28624u, 36265u, 41080u, 2901u, 11206u, 46214u, 4307u,
                                     4509u, 33169u, 7974u, 27865u})
        ASSERT_NO_FATAL_FAILURE(expect_words_of(seed, generator));
}

TEST_F(Random, SeedZeroMeansTheDefaultAtCreationOnly)
{
    for (const bool with_lock : {false, true}) {
        const Generator zero(0, with_lock);
        const Generator chosen(default_seed, with_lock);
        PlainTwister plain(default_seed);
        for (int drawn = 0; drawn < 1000; drawn++) {
            const std::uint32_t word = psp_randGetUInt32(zero);
            ASSERT_EQ(word, psp_randGetUInt32(chosen));
            ASSERT_EQ(word, plain.next());
        }
        psp_randResetSeed(zero, 0);
        PlainTwister from_zero(0);
        for (int drawn = 0; drawn < 1000; drawn++)
            ASSERT_EQ(psp_randGetUInt32(zero), from_zero.next());
    }
}

TEST_F(Random, StartsAnewWithANewSeed)
{
    const Generator generator(7);
    // At every position of the block of words, its end included.
    for (const int before : {0, 1, 300, 623, 624, 625, 1248}) {
        for (int drawn = 0; drawn < before; drawn++)
            psp_randGetUInt32(generator);
        psp_randResetSeed(generator, 5489);
        PlainTwister plain(5489);
        for (int drawn = 0; drawn < 700; drawn++)
            ASSERT_EQ(psp_randGetUInt32(generator), plain.next()) << "after " << before;
    }
}

TEST_F(Random, EveryKindOfDrawIsMadeOfTheSameWords)
{
    const Generator generator(42, true);
    PlainTwister plain(42);
    std::mt19937 choose(1);
    for (int i = 0; i < 5000; i++) {
        switch (choose() % 4) {
        case 0:
            ASSERT_EQ(psp_randGetUInt32(generator), plain.next());
            break;
        case 1:
            ASSERT_EQ(psp_randGet(generator),
                      static_cast<std::int32_t>(plain.next() & 0x7FFFFFFFu));
            break;
        case 2: {
            const std::uint64_t high = plain.next();
            const std::uint64_t low = plain.next();
            ASSERT_EQ(psp_randGetUInt64(generator), high << 32 | low);
            break;
        }
        default:
            ASSERT_EQ(psp_randGetDouble(generator), plain.next() * 2.3283064365386963e-10);
        }
    }
}

TEST_F(Random, KeepsItsNumbersInRange)
{
    const Generator generator(99);
    double least = 1;
    double greatest = 0;
    for (int i = 0; i < 20000; i++) {
        const double number = psp_randGetDouble(generator);
        ASSERT_GE(number, 0.0);
        ASSERT_LT(number, 1.0);
        least = std::min(least, number);
        greatest = std::max(greatest, number);
        ASSERT_GE(psp_randGet(generator), 0);
    }
    EXPECT_LT(least, 0.01);
    EXPECT_GT(greatest, 0.99);
}

TEST_F(Random, GeneratorsAreIndependent)
{
    const Generator first(3);
    const Generator second(3);
    PlainTwister first_model(3);
    PlainTwister second_model(3);
    std::mt19937 choose(2);
    for (int i = 0; i < 4000; i++) {
        if (choose() % 3 == 0)
            ASSERT_EQ(psp_randGetUInt32(first), first_model.next());
        else
            ASSERT_EQ(psp_randGetUInt32(second), second_model.next());
    }
}

// The next synchronisation object that would be handed out.
PSP_SEM next_object()
{
    const PSP_SEM sem = psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__);
    psp_syncDelete(sem);
    return sem;
}

TEST_F(Random, OneKindTakesASynchronisationObjectForGood)
{
    const PSP_SEM before = next_object();
    const PSP_RAND without = psp_randCreateNoSem(1);
    EXPECT_EQ(next_object(), before);
    psp_randDestroy(without);
    EXPECT_EQ(next_object(), before);

    const PSP_RAND with = psp_randCreate(1);
    const PSP_SEM while_it_lives = next_object();
    EXPECT_NE(while_it_lives, before);
    psp_randDestroy(with);
    EXPECT_EQ(next_object(), while_it_lives);
}

TEST_F(Random, LivesInTheGlobalTag)
{
    PSP_TAG_MEM_INFO before{};
    PSP_TAG_MEM_INFO with{};
    PSP_TAG_MEM_INFO after{};
    psp_getTagMemInfo(PSP_GLOBAL_TAG, &before);
    {
        const Generator generator(1);
        psp_getTagMemInfo(PSP_GLOBAL_TAG, &with);
    }
    psp_getTagMemInfo(PSP_GLOBAL_TAG, &after);
    EXPECT_GE(with.used.current, before.used.current + 625 * sizeof(std::uint32_t));
    EXPECT_EQ(after.used.current, before.used.current);
    psp_randDestroy(nullptr);
}

TEST_F(RandomWithoutLibrary, ThereIsNoGenerator)
{
    EXPECT_EQ(psp_randCreate(1), nullptr);
    EXPECT_EQ(psp_randCreateNoSem(1), nullptr);
    psp_randDestroy(nullptr);
}

} // namespace
