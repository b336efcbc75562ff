// Object pools as a caller of the shared library sees them.
#include "support/mem_test.h"

#include "psp/pool.h"
#include "psp/sync.h"

#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

using namespace psptest;

namespace {

// What the callbacks of a pool were called with.
struct Log {
    std::vector<const void*> constructed;
    std::vector<const void*> destroyed;
};

void construct(PSP_POOL_USERDATA userdata, void* object)
{
    static_cast<Log*>(userdata)->constructed.push_back(object);
    std::memset(object, 'C', 8);
}

void destroy(PSP_POOL_USERDATA userdata, const void* object)
{
    static_cast<Log*>(userdata)->destroyed.push_back(object);
}

void* take(PSP_POOL pool, std::size_t size, int mode = 1, const void* data = nullptr)
{
    return psp_poolGetMem(pool, size, mode, data, __FILE__, __LINE__);
}

class Pool : public PspTest {
  protected:
    // A pool over `tag` that writes to log_.
    PSP_POOL make(PSP_MEMTAG tag, const char* lock = nullptr,
                  PSP_POOL_SIZE_INFO kind = PSP_POOL_VAR_SIZE)
    {
        PSP_POOL pool = nullptr;
        EXPECT_EQ(psp_poolCreateEx(tag, kind, lock, construct, destroy, &log_, &pool), sOKAY);
        EXPECT_NE(pool, nullptr);
        return pool;
    }
    std::size_t constructed() const
    {
        return log_.constructed.size();
    }
    std::size_t destroyed() const
    {
        return log_.destroyed.size();
    }

    Log log_;
};

using Objects = std::vector<const void*>;

TEST_F(Pool, ConstructsAnObjectOnceAndReusesIt)
{
    for (const char* lock : {static_cast<const char*>(nullptr), "lock", ""}) {
        log_ = Log{};
        PSP_POOL pool = make(PSP_GLOBAL_TAG, lock);
        void* object = take(pool, 100);
        ASSERT_NE(object, nullptr);
        EXPECT_EQ(address_of(object) % 8, 0u);
        EXPECT_EQ(log_.constructed, Objects{object});
        psp_poolPut(pool, object);
        EXPECT_EQ(take(pool, 100), object);
        psp_poolPut(pool, object);
        EXPECT_EQ(take(pool, 1), object) << "a smaller request takes it too";
        EXPECT_EQ(constructed(), 1u);
        EXPECT_EQ(destroyed(), 0u);
        psp_poolPut(pool, object);
        psp_poolDestroy(pool);
    }
}

TEST_F(Pool, KeepsTheSizeAnObjectWasMadeWith)
{
    PSP_POOL pool = make(PSP_GLOBAL_TAG);
    void* object = take(pool, 100);
    psp_poolPut(pool, object);
    EXPECT_EQ(take(pool, 10), object);
    psp_poolPut(pool, object);
    EXPECT_EQ(take(pool, 100), object) << "the smaller use in between does not count";
    psp_poolPut(pool, object);
    psp_poolDestroy(pool);
}

TEST_F(Pool, ReplacesAnIdleObjectThatIsTooSmall)
{
    PSP_POOL pool = make(PSP_GLOBAL_TAG);
    void* small = take(pool, 50);
    psp_poolPut(pool, small);
    void* longer = take(pool, 100);
    EXPECT_EQ(log_.destroyed, Objects{small});
    EXPECT_EQ(constructed(), 2u);
    EXPECT_EQ(log_.constructed.back(), longer);
    psp_poolPut(pool, longer);
    psp_poolDestroy(pool);
}

TEST_F(Pool, ReplacesAnObjectEvenByOneByte)
{
    PSP_POOL pool = make(PSP_GLOBAL_TAG, nullptr, PSP_POOL_FIXED_SIZE);
    psp_poolPut(pool, take(pool, 50));
    psp_poolPut(pool, take(pool, 51)); // the same class of the tag, but not what it was made with
    EXPECT_EQ(constructed(), 2u);
    EXPECT_EQ(destroyed(), 1u);
    psp_poolDestroy(pool);
}

TEST_F(Pool, LooksAtTheHeadOfItsIdleObjectsOnly)
{
    PSP_POOL pool = make(PSP_GLOBAL_TAG);
    void* big = take(pool, 200);
    void* small = take(pool, 20);
    psp_poolPut(pool, big);
    psp_poolPut(pool, small);
    void* object = take(pool, 150); // big would do, but small lies on top
    EXPECT_NE(object, big);
    EXPECT_EQ(log_.destroyed, Objects{small});
    EXPECT_EQ(constructed(), 3u);
    EXPECT_EQ(take(pool, 150), big);
    psp_poolPut(pool, big);
    psp_poolPut(pool, object);
    psp_poolDestroy(pool);
}

TEST_F(Pool, HandsOutTheLastReturnedObjectFirst)
{
    PSP_POOL pool = make(PSP_GLOBAL_TAG);
    void* a = take(pool, 10);
    void* b = take(pool, 10);
    void* c = take(pool, 10);
    psp_poolPut(pool, b);
    psp_poolPut(pool, c);
    psp_poolPut(pool, a);
    EXPECT_EQ(take(pool, 10), a);
    EXPECT_EQ(take(pool, 10), c);
    EXPECT_EQ(take(pool, 10), b);
    for (void* object : {a, b, c})
        psp_poolPut(pool, object);
    psp_poolDestroy(pool);
    EXPECT_EQ(log_.destroyed, (Objects{c, b, a})) << "from the head of the idle objects";
}

TEST_F(Pool, FillsOnlyInModesThreeAndFive)
{
    PSP_POOL pool = make(PSP_GLOBAL_TAG);
    auto* object = static_cast<char*>(take(pool, 16));
    EXPECT_TRUE(holds(object, 8, 'C')) << "mode 1 leaves what the constructor wrote";
    std::memset(object, 'u', 16);
    for (const int mode : {0, 1, 2, 4, 6, 7, 8, 13, 16, 19}) {
        psp_poolPut(pool, object);
        ASSERT_EQ(take(pool, 16, mode, "0123456789ABCDEF"), object);
        EXPECT_TRUE(holds(object, 16, 'u')) << "mode " << mode;
    }
    psp_poolPut(pool, object);
    ASSERT_EQ(take(pool, 10, 5, "0123456789ABCDEF"), object);
    EXPECT_EQ(std::string(object, 16), "0123456789uuuuuu") << "as many bytes as asked for";
    psp_poolPut(pool, object);
    ASSERT_EQ(take(pool, 12, 3), object);
    EXPECT_TRUE(holds(object, 12, 0)) << "a reused object too";
    EXPECT_EQ(std::string(object + 12, 4), "uuuu");
    psp_poolPut(pool, object);
    psp_poolDestroy(pool);
}

TEST_F(Pool, FillsAfterTheConstructor)
{
    PSP_POOL pool = make(PSP_GLOBAL_TAG);
    void* zeroed = take(pool, 16, 3);
    EXPECT_TRUE(holds(zeroed, 16, 0));
    void* copied = take(pool, 8, 5, "abcdefgh");
    EXPECT_EQ(std::memcmp(copied, "abcdefgh", 8), 0);
    EXPECT_EQ(constructed(), 2u);
    psp_poolPut(pool, zeroed);
    psp_poolPut(pool, copied);
    psp_poolDestroy(pool);
}

TEST_F(Pool, DestroysTheSurplusOfItsMaximum)
{
    PSP_POOL pool = make(PSP_GLOBAL_TAG);
    psp_poolSetMaxPooled(pool, 2);
    void* objects[4];
    for (void*& object : objects)
        object = take(pool, 10);
    for (void* object : objects)
        psp_poolPut(pool, object);
    EXPECT_EQ(log_.destroyed, (Objects{objects[2], objects[3]}));
    EXPECT_EQ(take(pool, 10), objects[1]);
    EXPECT_EQ(take(pool, 10), objects[0]);
    psp_poolPut(pool, objects[0]);
    psp_poolPut(pool, objects[1]);
    psp_poolDestroy(pool);
    EXPECT_EQ(destroyed(), 4u);
}

TEST_F(Pool, WithMaximumZeroDestroysEveryReturnedObject)
{
    PSP_POOL pool = make(PSP_GLOBAL_TAG, "lock");
    psp_poolSetMaxPooled(pool, 0);
    for (std::size_t i = 1; i <= 5; i++) {
        psp_poolPut(pool, take(pool, 10));
        EXPECT_EQ(constructed(), i);
        EXPECT_EQ(destroyed(), i);
    }
    psp_poolDestroy(pool);
    EXPECT_EQ(destroyed(), 5u);
}

TEST_F(Pool, LoweredMaximumLeavesIdleObjectsUntilTheyAreTaken)
{
    PSP_POOL pool = make(PSP_GLOBAL_TAG);
    void* objects[3];
    for (void*& object : objects)
        object = take(pool, 10);
    for (void* object : objects)
        psp_poolPut(pool, object);
    psp_poolSetMaxPooled(pool, 1);
    EXPECT_EQ(destroyed(), 0u);
    EXPECT_EQ(take(pool, 10), objects[2]);
    psp_poolPut(pool, objects[2]); // two are idle: one more than the maximum
    EXPECT_EQ(log_.destroyed, Objects{objects[2]});
    EXPECT_EQ(take(pool, 10), objects[1]);
    EXPECT_EQ(take(pool, 10), objects[0]);
    psp_poolPut(pool, objects[0]);
    psp_poolPut(pool, objects[1]);
    psp_poolDestroy(pool);
}

TEST_F(Pool, KeepsThousandIdleObjectsUnlessTold)
{
    PSP_POOL pool = make(PSP_GLOBAL_TAG);
    std::vector<void*> objects;
    for (int i = 0; i < 1002; i++)
        objects.push_back(take(pool, 8));
    for (void* object : objects)
        psp_poolPut(pool, object);
    EXPECT_EQ(log_.destroyed, (Objects{objects[1000], objects[1001]}));
    psp_poolDestroy(pool);
    EXPECT_EQ(destroyed(), 1002u);
}

TEST_F(Pool, NeedsNoCallbacks)
{
    for (PSP_MEMTAG tag : {PSP_MEMTAG{}, PSP_GLOBAL_TAG}) {
        PSP_POOL pool = nullptr;
        ASSERT_EQ(
            psp_poolCreateEx(tag, PSP_POOL_VAR_SIZE, nullptr, nullptr, nullptr, nullptr, &pool),
            sOKAY);
        void* object = take(pool, 10);
        psp_poolPut(pool, object);
        EXPECT_EQ(take(pool, 10), object);
        psp_poolPut(pool, object);
        psp_poolPut(pool, take(pool, 1000));
        psp_poolSetMaxPooled(pool, 0);
        psp_poolPut(pool, take(pool, 10));
        psp_poolDestroy(pool);
    }
}

TEST_F(Pool, OfACallersTagDestroysIdleObjectsAndLeavesTheTag)
{
    PSP_MEMTAG tag = make_tag();
    void* callers = get(10, tag, 3);
    const std::size_t before = info_of(tag).used.current;
    PSP_POOL pool = make(tag, "lock");
    void* kept = take(pool, 30);
    void* idle = take(pool, 40);
    psp_poolPut(pool, idle);
    psp_poolDestroy(pool);
    EXPECT_EQ(log_.destroyed, Objects{idle}) << "objects handed out are not tracked";
    EXPECT_TRUE(holds(callers, 10, 0));
    EXPECT_TRUE(holds(kept, 8, 'C'));
    EXPECT_EQ(info_of(tag).used.current, before + 30 + 16) << "the object that is out";
    destroy_tag(tag);
}

TEST_F(Pool, OfItsOwnTagFreesEverythingWithoutTheDestructor)
{
    for (const char* lock : {static_cast<const char*>(nullptr), "lock"}) {
        log_ = Log{};
        const std::size_t before = memory_in_use();
        PSP_POOL pool = make(nullptr, lock);
        void* idle = take(pool, 40);
        ASSERT_NE(take(pool, 100000), nullptr);
        psp_poolPut(pool, idle);
        EXPECT_GT(memory_in_use(), before);
        psp_poolDestroy(pool);
        EXPECT_EQ(destroyed(), 0u);
        EXPECT_LE(memory_in_use(), before);
    }
}

TEST_F(Pool, OfItsOwnTagCallsTheDestructorWhileItLives)
{
    PSP_POOL pool = make(nullptr);
    psp_poolPut(pool, take(pool, 10));
    void* longer = take(pool, 100);
    EXPECT_EQ(destroyed(), 1u);
    psp_poolSetMaxPooled(pool, 0);
    psp_poolPut(pool, longer);
    EXPECT_EQ(destroyed(), 2u);
    psp_poolDestroy(pool);
}

TEST_F(Pool, LivesInSpecialTagsToo)
{
    for (PSP_MEMTAG tag : {PSP_GLOBAL_TAG, PSP_THREAD_TAG}) {
        const std::size_t before = info_of(tag).used.current;
        PSP_POOL pool = make(tag);
        void* object = take(pool, 40);
        EXPECT_GE(info_of(tag).used.current, before + 40);
        psp_poolPut(pool, object);
        psp_poolDestroy(pool);
        EXPECT_EQ(info_of(tag).used.current, before);
    }
}

TEST_F(Pool, TakesAMutexOnlyWithALockName)
{
    // The mutex freed last is the next one made.
    PSP_SEM probe = psp_syncCreate_check(1, __FILE__, __LINE__);
    psp_syncDelete(probe);
    PSP_POOL unlocked = make(PSP_GLOBAL_TAG);
    PSP_SEM next = psp_syncCreate_check(1, __FILE__, __LINE__);
    EXPECT_EQ(next, probe);
    psp_syncDelete(next);
    PSP_POOL locked = make(PSP_GLOBAL_TAG, "any name");
    next = psp_syncCreate_check(1, __FILE__, __LINE__);
    EXPECT_NE(next, probe);
    psp_syncDelete(next);
    psp_poolDestroy(locked);
    psp_poolDestroy(unlocked);
    next = psp_syncCreate_check(1, __FILE__, __LINE__);
    EXPECT_EQ(next, probe) << "it went with the pool";
    psp_syncDelete(next);
}

TEST_F(Pool, NeedsAPlaceForItsHandle)
{
    const std::size_t before = info_of(PSP_GLOBAL_TAG).used.current;
    EXPECT_EQ(psp_poolCreateEx(PSP_GLOBAL_TAG, PSP_POOL_SIZE_INFO{}, nullptr, nullptr, nullptr,
                               nullptr, nullptr),
              eINVNULLARG);
    EXPECT_EQ(info_of(PSP_GLOBAL_TAG).used.current, before);
}

TEST_F(Pool, DestroyOfNullDoesNothing)
{
    psp_poolDestroy(nullptr);
}

TEST_F(Pool, ObjectOfImpossibleSizeIsNull)
{
    for (const char* lock : {static_cast<const char*>(nullptr), "lock"}) {
        PSP_POOL pool = make(PSP_GLOBAL_TAG, lock);
        for (const std::size_t size : {SIZE_MAX, SIZE_MAX - 15, SIZE_MAX - 16, SIZE_MAX - 17,
                                       std::size_t{1} << 32, (std::size_t{1} << 32) - 8})
            for (const int mode : {1, 3, 5})
                EXPECT_EQ(take(pool, size, mode, "x"), nullptr) << size;
        EXPECT_EQ(constructed(), 0u);
        void* object = take(pool, 10);
        EXPECT_NE(object, nullptr);
        // Another thread gets in: the mutex is free.
        if (lock != nullptr)
            std::thread([&] { psp_poolPut(pool, object); }).join();
        psp_poolDestroy(pool);
        log_ = Log{};
    }
}

TEST_F(Pool, ObjectThatCannotBeReplacedIsGone)
{
    PSP_POOL pool = make(PSP_GLOBAL_TAG);
    void* small = take(pool, 10);
    psp_poolPut(pool, small);
    EXPECT_EQ(take(pool, std::size_t{1} << 32), nullptr);
    EXPECT_EQ(log_.destroyed, Objects{small}) << "it was destroyed before the new one failed";
    psp_poolDestroy(pool);
    EXPECT_EQ(destroyed(), 1u);
}

TEST_F(Pool, OfAStackTagWorksAsFarAsThatFrees)
{
    PSP_MEMTAG tag = make_tag(STACK_ALLOCATOR);
    PSP_POOL pool = make(tag);
    void* object = take(pool, 10);
    psp_poolPut(pool, object);
    EXPECT_EQ(take(pool, 10), object);
    psp_poolPut(pool, object);
    psp_poolDestroy(pool);
    EXPECT_EQ(destroyed(), 1u);
    destroy_tag(tag);
}

class PoolWithoutStart : public RawTest {};

TEST_F(PoolWithoutStart, CannotBeMade)
{
    const struct {
        PSP_MEMTAG tag;
        ZYN_RETCODE code;
    } cases[] = {{nullptr, ePSP_FAILURE}, // the code of the tag that cannot be made
                 {PSP_GLOBAL_TAG, eNOMEMORY},
                 {PSP_THREAD_TAG, eNOMEMORY}};
    for (const auto& c : cases) {
        PSP_POOL pool = nullptr;
        EXPECT_EQ(
            psp_poolCreateEx(c.tag, PSP_POOL_VAR_SIZE, "lock", nullptr, nullptr, nullptr, &pool),
            c.code);
        EXPECT_EQ(pool, nullptr);
    }
    psp_poolDestroy(nullptr);
}

} // namespace
