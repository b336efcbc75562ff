// Tags, pools, and standard containers in a tag.
#include "support/mem_test.h"
#include "support/threads.h"

#include "psp/mem.hpp"
#include "psp/pool.hpp"
#include "psp/sync.hpp"

#include <cstdint>
#include <cstring>
#include <map>
#include <memory_resource>
#include <new>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

using namespace psptest;

namespace {

class FaceMem : public PspTest {};

// ---- Tags ----

TEST_F(FaceMem, TagGoesWithAllItsBlocks)
{
    psp::tag kept = psp::tag::create(); // so that the library's own growth is before the count
    static_cast<void>(kept.allocate(1));
    for (const PSP_ALLOCATOR_TYPE type : all_types) {
        const std::size_t before = memory_in_use();
        {
            psp::tag tag = psp::tag::create(type);
            ASSERT_TRUE(tag);
            for (std::size_t size = 1; size < 100000; size *= 3)
                EXPECT_NE(tag.allocate(size), nullptr);
            EXPECT_GE(memory_in_use(), before);
        }
        EXPECT_EQ(memory_in_use(), before) << "type " << type;
    }
}

TEST_F(FaceMem, TagTellsWhyItWasNotMade)
{
    ZYN_RETCODE rc = sOKAY;
    EXPECT_TRUE(psp::tag::create(LIST_ALLOCATOR, psp::access::any_thread, &rc));
    EXPECT_EQ(rc, sOKAY);
    EXPECT_FALSE(
        psp::tag::create(static_cast<PSP_ALLOCATOR_TYPE>(77), psp::access::one_thread, &rc));
    EXPECT_EQ(rc, ePSP_FAILURE);
}

TEST_F(FaceMem, BlocksAreZeroedCopiedResizedAndGivenBack)
{
    psp::tag tag = psp::tag::create();
    EXPECT_TRUE(holds(tag.allocate_zeroed(300), 300, 0));
    EXPECT_STREQ(tag.copy("some text"), "some text");
    auto* bytes = static_cast<char*>(tag.copy("12345678", 8));
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(std::memcmp(bytes, "12345678", 8), 0);
    bytes = static_cast<char*>(tag.extend(bytes, 10000));
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(std::memcmp(bytes, "12345678", 8), 0);
    const std::size_t used = tag.info().used.current;
    tag.deallocate(bytes);
    EXPECT_EQ(tag.info().used.current, used - 10000);
    tag.clear();
    EXPECT_EQ(tag.info().used.current, 0u);
    EXPECT_TRUE(tag);
    EXPECT_NE(tag.allocate(1), nullptr);
}

TEST_F(FaceMem, EmptyTagAllocatesNothing)
{
    psp::tag tag;
    EXPECT_EQ(tag.allocate(1), nullptr);
    EXPECT_EQ(tag.copy("text"), nullptr);
    EXPECT_EQ(tag.make<int>(5), nullptr);
    EXPECT_EQ(tag.info(), PSP_TAG_MEM_INFO{});
    tag.deallocate(nullptr);
    tag.clear();
}

TEST_F(FaceMem, MadeObjectIsConstructedAndNotDestroyed)
{
    struct Object {
        int& destroyed;
        long value;
        Object(int& where, long number) : destroyed(where), value(number) {}
        ~Object()
        {
            destroyed++;
        }
    };
    int destroyed = 0;
    {
        psp::tag tag = psp::tag::create(STACK_ALLOCATOR);
        const Object* object = tag.make<Object>(destroyed, 17L);
        ASSERT_NE(object, nullptr);
        EXPECT_EQ(object->value, 17);
    }
    EXPECT_EQ(destroyed, 0);
}

// The object that the next mutex will be.
PSP_SEM next_mutex()
{
    return psp::mutex::create().native();
}

TEST_F(FaceMem, TagHasAMutexOnlyForAnyThread)
{
    const PSP_SEM next = next_mutex();
    const psp::tag without = psp::tag::create();
    EXPECT_EQ(next_mutex(), next);
    const psp::tag with = psp::tag::create(BLOCK_ALLOCATOR, psp::access::any_thread);
    EXPECT_NE(next_mutex(), next);
}

TEST_F(FaceMem, TagAndPoolForAnyThreadServeSeveralAtOnce)
{
    psp::tag tag = psp::tag::create(LIST_ALLOCATOR, psp::access::any_thread);
    psp::pool pool = psp::pool::create(nullptr, psp::access::any_thread);
    run_together(4, [&](int number) {
        for (int i = 0; i < 3000; i++) {
            const std::size_t size = 16 + static_cast<std::size_t>(i % 50) * 16;
            void* const block = tag.allocate(size);
            void* const object = pool.get(64);
            std::memset(block, number, size);
            std::memset(object, number, 64);
            EXPECT_TRUE(holds(block, size, number));
            EXPECT_TRUE(holds(object, 64, number));
            tag.deallocate(block);
            pool.put(object);
        }
    });
}

// ---- Pools ----

TEST_F(FaceMem, PoolGivesTheSameObjectAgain)
{
    int made = 0;
    const PSP_POOL_CONSTRUCTOR count = [](void* counter, void*) { ++*static_cast<int*>(counter); };
    psp::tag tag = psp::tag::create();
    ZYN_RETCODE rc = ePSP_FAILURE;
    psp::pool pool =
        psp::pool::create(tag.native(), psp::access::any_thread, count, nullptr, &made, &rc);
    ASSERT_TRUE(pool);
    EXPECT_EQ(rc, sOKAY);
    void* const first = pool.get(64);
    pool.put(first);
    EXPECT_EQ(pool.get_zeroed(64), first);
    EXPECT_TRUE(holds(first, 64, 0));
    EXPECT_EQ(made, 1);
    pool.put(first);
}

TEST_F(FaceMem, PoolDestroysWhatItIsNotToKeepAndTheRestAtItsEnd)
{
    int destroyed = 0;
    const PSP_POOL_DESTRUCTOR count = [](void* counter, const void*) {
        ++*static_cast<int*>(counter);
    };
    psp::tag tag = psp::tag::create();
    {
        psp::pool pool =
            psp::pool::create(tag.native(), psp::access::one_thread, nullptr, count, &destroyed);
        pool.keep_at_most(1);
        void* const first = pool.get(10);
        void* const second = pool.get(10);
        pool.put(first);
        EXPECT_EQ(destroyed, 0);
        pool.put(second);
        EXPECT_EQ(destroyed, 1);
    }
    EXPECT_EQ(destroyed, 2);
}

// ---- The memory resource ----

// Fills containers of each kind, takes elements away again, and looks whether all is there.
void use_containers(std::pmr::memory_resource* resource)
{
    std::pmr::map<int, std::pmr::string> map(resource);
    std::pmr::unordered_map<std::pmr::string, int> table(resource);
    std::pmr::vector<std::pmr::string> vector(resource);
    for (int i = 0; i < 500; i++) {
        const std::string text = "a string beyond the small ones, number " + std::to_string(i);
        map.emplace(i, text.c_str());
        table.emplace(text.c_str(), i);
        vector.emplace_back(text.c_str());
    }
    for (int i = 0; i < 500; i += 2)
        map.erase(i);
    EXPECT_EQ(map.size(), 250u);
    EXPECT_EQ(map.begin()->second, vector[1]);
    EXPECT_EQ(table[vector[499]], 499);
    EXPECT_EQ(vector[3].get_allocator().resource(), resource) << "elements are there, too";
}

TEST_F(FaceMem, ContainersLiveInTagsOfEveryType)
{
    for (const PSP_ALLOCATOR_TYPE type : all_types) {
        const psp::tag tag = psp::tag::create(type);
        psp::memory_resource resource(tag);
        const std::size_t before = memory_in_use();
        use_containers(&resource);
        if (type != LEGACY_ALLOCATOR) {
            EXPECT_GT(tag.info().used.max, 20000u) << "type " << type;
        }
        if (type == BLOCK_ALLOCATOR) {
            EXPECT_EQ(tag.info().used.current, 0u);
        } else if (type == LIST_ALLOCATOR) {
            EXPECT_EQ(memory_in_use(), before);
        }
    }
}

TEST_F(FaceMem, ContainersLiveInTheThreadsAndTheGlobalTag)
{
    for (const PSP_MEMTAG tag : {PSP_THREAD_TAG, PSP_GLOBAL_TAG}) {
        psp::memory_resource resource(tag);
        EXPECT_EQ(resource.native(), tag);
        use_containers(&resource);
    }
}

TEST_F(FaceMem, FreedTagTakesAContainerThatIsNeverDestroyed)
{
    using Map = std::pmr::map<int, std::pmr::string>;
    psp::tag kept = psp::tag::create();
    static_cast<void>(kept.allocate(1));
    const std::size_t before = memory_in_use();
    for (const PSP_ALLOCATOR_TYPE type : {BLOCK_ALLOCATOR, LIST_ALLOCATOR, STACK_ALLOCATOR}) {
        psp::tag tag = psp::tag::create(type);
        auto* const resource = tag.make<psp::memory_resource>(tag);
        ASSERT_NE(resource, nullptr);
        auto* const map = tag.make<Map>(resource);
        ASSERT_NE(map, nullptr);
        for (int i = 0; i < 20000; i++)
            map->emplace(i, "a value that does not fit into the string itself");
        EXPECT_EQ(map->size(), 20000u);
        EXPECT_GT(memory_in_use(), before);
        tag.reset();
        EXPECT_EQ(memory_in_use(), before) << "type " << type;
    }
}

TEST_F(FaceMem, ResourceAlignsAsItIsTold)
{
    for (const PSP_ALLOCATOR_TYPE type : all_types) {
        const psp::tag tag = psp::tag::create(type);
        psp::memory_resource resource(tag);
        const std::size_t before = memory_in_use();
        std::vector<std::pair<void*, std::pair<std::size_t, std::size_t>>> blocks;
        for (std::size_t alignment = 1; alignment <= 4096; alignment *= 2) {
            for (const std::size_t size : {1u, 7u, 8u, 24u, 100u, 5000u, 40000u}) {
                void* const block = resource.allocate(size, alignment);
                EXPECT_EQ(address_of(block) % alignment, 0u);
                std::memset(block, static_cast<int>(blocks.size()), size);
                blocks.push_back({block, {size, alignment}});
            }
        }
        for (std::size_t i = 0; i < blocks.size(); i++) {
            const auto [size, alignment] = blocks[i].second;
            EXPECT_TRUE(holds(blocks[i].first, size, static_cast<int>(i))) << "overlaps another";
            resource.deallocate(blocks[i].first, size, alignment);
        }
        if (type == BLOCK_ALLOCATOR) {
            EXPECT_EQ(tag.info().used.current, 0u);
        } else if (type == LIST_ALLOCATOR) {
            EXPECT_EQ(memory_in_use(), before);
        }
    }
}

TEST_F(FaceMem, ResourceTakesNoMoreThanTheAlignmentOnTop)
{
    const psp::tag tag = psp::tag::create();
    psp::memory_resource resource(tag);
    for (const std::size_t alignment : {1u, 2u, 4u, 8u, 16u, 64u, 4096u}) {
        void* const block = resource.allocate(100, alignment);
        EXPECT_EQ(tag.info().used.current, alignment <= 8 ? 100u : 100u + alignment);
        resource.deallocate(block, 100, alignment);
    }
}

struct alignas(64) Line {
    char bytes[64];
};

TEST_F(FaceMem, ContainersHoldOverAlignedElements)
{
    const psp::tag tag = psp::tag::create();
    psp::memory_resource resource(tag);
    {
        std::pmr::vector<Line> lines(&resource);
        std::pmr::set<long double> numbers(&resource); // aligned to 16
        for (int i = 0; i < 100; i++) {
            lines.push_back(Line{});
            EXPECT_EQ(address_of(lines.data()) % 64, 0u);
            EXPECT_EQ(address_of(&*numbers.insert(i).first) % alignof(long double), 0u);
        }
    }
    EXPECT_EQ(tag.info().used.current, 0u);
}

TEST_F(FaceMem, ResourceGivesABlockForNoBytes)
{
    const psp::tag tag = psp::tag::create();
    psp::memory_resource resource(tag);
    for (const std::size_t alignment : {1u, 64u}) {
        void* const first = resource.allocate(0, alignment);
        void* const second = resource.allocate(0, alignment);
        EXPECT_NE(first, nullptr);
        EXPECT_NE(first, second);
        resource.deallocate(first, 0, alignment);
        resource.deallocate(second, 0, alignment);
    }
    EXPECT_EQ(tag.info().used.current, 0u);
}

TEST_F(FaceMem, ResourceThrowsForSizesThatNoTagHas)
{
    for (const PSP_ALLOCATOR_TYPE type : all_types) {
        const psp::tag tag = psp::tag::create(type);
        psp::memory_resource resource(tag);
        for (const std::size_t size : impossible_sizes) {
            if (type == LEGACY_ALLOCATOR && size < gib4)
                continue; // the heap may have that much
            EXPECT_THROW(static_cast<void>(resource.allocate(size, 1)), std::bad_alloc) << size;
            EXPECT_THROW(static_cast<void>(resource.allocate(size, 64)), std::bad_alloc) << size;
        }
        EXPECT_THROW(static_cast<void>(resource.allocate(SIZE_MAX, 64)), std::bad_alloc);
        EXPECT_THROW(static_cast<void>(resource.allocate(gib4 - 8, 64)), std::bad_alloc);
    }
}

TEST_F(FaceMem, ResourceOfNoTagThrows)
{
    psp::memory_resource resource(nullptr);
    EXPECT_THROW(static_cast<void>(resource.allocate(1)), std::bad_alloc);
}

TEST_F(FaceMem, ContainerSurvivesTheMemoryLimit)
{
    constexpr std::size_t limit = 4195328; // one chunk
    {
        psp::tag tag = psp::tag::create(LIST_ALLOCATOR);
        psp::memory_resource resource(tag);
        std::pmr::vector<std::pmr::string> strings(&resource);
        strings.reserve(100);
        ASSERT_EQ(psp_setMemLimit(nullptr, limit), sOKAY);
        std::size_t count = 0;
        try {
            for (;; count++)
                strings.emplace_back(100000, 'x');
        } catch (const std::bad_alloc&) {
            EXPECT_GT(count, 10u);
        }
        EXPECT_EQ(strings.size(), count);
        EXPECT_EQ(strings.back(), std::pmr::string(100000, 'x'));
        strings.pop_back();
        strings.emplace_back(90000, 'y'); // what was given back can be had again
    }
    EXPECT_EQ(psp_setMemLimit(nullptr, 0), sOKAY);
}

TEST_F(FaceMem, ResourcesOfOneTagAreEqualAndHandTheirMemoryOver)
{
    const psp::tag tag = psp::tag::create();
    const psp::tag other_tag = psp::tag::create();
    psp::memory_resource first(tag);
    psp::memory_resource second(tag);
    psp::memory_resource third(other_tag);
    EXPECT_TRUE(first.is_equal(second));
    EXPECT_TRUE(first == second);
    EXPECT_FALSE(first == third);
    EXPECT_FALSE(first == *std::pmr::new_delete_resource());
    EXPECT_FALSE(*std::pmr::new_delete_resource() == first);

    std::pmr::vector<int> numbers({1, 2, 3}, &first);
    const int* const data = numbers.data();
    std::pmr::vector<int> taken(std::move(numbers), &second);
    EXPECT_EQ(taken.data(), data) << "nothing is copied within a tag";
    std::pmr::vector<int> copied(std::move(taken), &third);
    EXPECT_NE(copied.data(), data);
    EXPECT_EQ(copied.back(), 3);
}

} // namespace
