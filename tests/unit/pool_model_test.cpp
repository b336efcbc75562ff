// Pools over tags of every kind beside a model: which object comes, which callbacks run, what lies
// in the objects, and where in the tag they are.
#include "support/scale.h"
#include "support/tag_model.h"

#include "psp/pool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

using namespace psptest;

namespace {

constexpr std::size_t header = 16;
constexpr std::size_t most_out = 40;

// The callbacks since the model last looked.
struct Calls {
    std::vector<const void*> constructed;
    std::vector<const void*> destroyed;
};

void construct(PSP_POOL_USERDATA userdata, void* object)
{
    static_cast<Calls*>(userdata)->constructed.push_back(object);
}

void destroy(PSP_POOL_USERDATA userdata, const void* object)
{
    static_cast<Calls*>(userdata)->destroyed.push_back(object);
}

struct Object {
    LiveBlock block;  // its size: what was asked for last, which has the pattern
    std::size_t size; // what it was made for
};

class PoolDriver {
  public:
    // Over a tag of the caller's, or over one of the pool's own when `handle` is NULL.
    PoolDriver(PSP_MEMTAG handle, ModelledTag& tag, unsigned seed)
        : tag_(tag), own_tag_(handle == nullptr), random_(seed)
    {
        const char* lock = random_() % 2 == 0 ? "lock" : nullptr;
        EXPECT_EQ(
            psp_poolCreateEx(handle, PSP_POOL_VAR_SIZE, lock, construct, destroy, &calls_, &pool_),
            sOKAY);
        EXPECT_TRUE(is_expected(pool_, tag_.blocks->alloc(sizeof(PSP_POOL_CTX))));
    }

    void step()
    {
        calls_ = {};
        expected_ = {};
        const unsigned dice = random_() % 100;
        if (dice < 2)
            change_maximum();
        else if (out_.empty() || (dice < 55 && out_.size() < most_out))
            take();
        else
            put();
        ASSERT_EQ(calls_.constructed, expected_.constructed);
        ASSERT_EQ(calls_.destroyed, expected_.destroyed);
        ASSERT_EQ(pool_->count, idle_.size());
    }
    void check_all() const
    {
        expect_sound(*pool_);
        expect_sound_memory();
        for (const Object& object : out_)
            ASSERT_TRUE(has_pattern(object.block));
        const PSP_POOL_HDR* hdr = pool_->next;
        for (auto object = idle_.rbegin(); object != idle_.rend(); ++object, hdr = hdr->next) {
            ASSERT_EQ(hdr + 1, object->block.ptr);
            ASSERT_EQ(hdr->size, object->size);
        }
        ASSERT_EQ(hdr, nullptr);
        ASSERT_EQ(info_of(pool_->tag), tag_.blocks->info());
    }
    // The objects that are out go back first. A tag of the pool's own goes with it.
    void finish()
    {
        psp_poolSetMaxPooled(pool_, UINT32_MAX);
        maximum_ = UINT32_MAX;
        while (!out_.empty())
            put();
        calls_ = {};
        expected_ = {};
        const std::uintptr_t record = address_of(pool_);
        psp_poolDestroy(pool_);
        if (!own_tag_) {
            for (; !idle_.empty(); idle_.pop_back())
                drop(idle_.back());
            tag_.blocks->free(record);
        }
        EXPECT_EQ(calls_.destroyed, expected_.destroyed);
    }

  private:
    void change_maximum()
    {
        maximum_ = static_cast<std::uint32_t>(random_() % 20);
        psp_poolSetMaxPooled(pool_, maximum_);
    }

    void take()
    {
        static constexpr int modes[] = {1, 1, 3, 5, 2, 4};
        const int mode = modes[random_() % std::size(modes)];
        const std::size_t size = random_() % 100 == 0 ? random_() % 20000 : random_() % 120;
        const std::string data(size, static_cast<char>('a' + random_() % 26));
        void* got = psp_poolGetMem(pool_, size, mode, data.data(), __FILE__, __LINE__);

        Object object{{got, size, static_cast<unsigned char>(random_())}, size};
        const bool reused = !idle_.empty() && size <= idle_.back().size;
        if (reused) {
            const Object& head = idle_.back();
            ASSERT_EQ(got, head.block.ptr);
            // Unless it is filled, a reused object has its old contents.
            ASSERT_TRUE(mode == 3 || mode == 5 || has_pattern(head.block));
            object.size = head.size;
        } else {
            if (!idle_.empty())
                drop(idle_.back());
            const std::uintptr_t made = tag_.blocks->alloc(size + header);
            ASSERT_TRUE(is_expected(got, made == anywhere ? made : made + header));
            expected_.constructed.push_back(got);
        }
        if (!idle_.empty())
            idle_.pop_back();
        ASSERT_TRUE(mode != 3 || holds(got, size, 0));
        ASSERT_TRUE(mode != 5 || std::memcmp(got, data.data(), size) == 0);
        write_pattern(object.block);
        out_.push_back(object);
    }

    void put()
    {
        const std::size_t which = random_() % out_.size();
        ASSERT_TRUE(has_pattern(out_[which].block));
        psp_poolPut(pool_, out_[which].block.ptr);
        if (idle_.size() >= maximum_)
            drop(out_[which]);
        else
            idle_.push_back(out_[which]);
        out_[which] = out_.back();
        out_.pop_back();
    }

    void drop(const Object& object)
    {
        expected_.destroyed.push_back(object.block.ptr);
        tag_.blocks->free(address_of(object.block.ptr) - header);
    }

    ModelledTag& tag_;
    bool own_tag_;
    std::mt19937 random_;
    PSP_POOL pool_ = nullptr;
    std::uint32_t maximum_ = 1000;
    std::vector<Object> idle_; // back: the head
    std::vector<Object> out_;
    Calls calls_;
    Calls expected_;
};

class Pools : public MemoryLayer, public ::testing::WithParamInterface<unsigned> {
  protected:
    void SetUp() override
    {
        start();
    }
    void TearDown() override
    {
        stop([&] {
            model_.destroy_tag(global_);
            for (ModelledTag& tag : left_)
                model_.destroy_tag(tag);
        });
    }

    void drive_pool(PSP_MEMTAG handle, ModelledTag& tag)
    {
        PoolDriver driver(handle, tag, GetParam());
        const int operations = in_long_run(3000, 1000000);
        for (int i = 0; i < operations && !HasFailure(); i++) {
            SCOPED_TRACE(::testing::Message() << "operation " << i);
            driver.step();
            if (i % walk_distance == 0)
                driver.check_all();
        }
        if (HasFailure())
            return;
        driver.check_all();
        driver.finish();
        if (handle == nullptr)
            model_.destroy_tag(tag);
        model_.expect_same_statistics();
        model_.expect_same_chunks();
        expect_nothing_unexplained();
    }
    // A pool over a tag of this kind, which is left for the stop to release.
    void drive_over(PSP_ALLOCATOR_TYPE type)
    {
        PSP_MEMTAG handle = make_tag(type);
        left_.push_back(model_.make_tag(type));
        drive_pool(handle, left_.back());
    }

    std::vector<ModelledTag> left_;
};

TEST_P(Pools, AgreeOverABlockTag)
{
    drive_over(BLOCK_ALLOCATOR);
}

TEST_P(Pools, AgreeOverAListTag)
{
    drive_over(LIST_ALLOCATOR);
}

TEST_P(Pools, AgreeOverAStackTagWhichNeverGetsAnythingBack)
{
    drive_over(STACK_ALLOCATOR);
}

TEST_P(Pools, AgreeOverALegacyTag)
{
    drive_over(LEGACY_ALLOCATOR);
}

TEST_P(Pools, AgreeOverTheGlobalTag)
{
    drive_pool(PSP_GLOBAL_TAG, global_);
}

TEST_P(Pools, AgreeOverTagsOfTheirOwn)
{
    ModelledTag own = model_.make_tag(BLOCK_ALLOCATOR);
    drive_pool(nullptr, own);
}

INSTANTIATE_TEST_SUITE_P(Seeds, Pools, ::testing::Range(1u, 3u));

} // namespace
