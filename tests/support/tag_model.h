// Models of tags of every kind over one model of the large-block layer, and the memory layer
// running alone: without the rest of the library, every address of it can be predicted.
#pragma once

#include "support/alloc_driver.h"
#include "support/block_model.h"
#include "support/mem_test.h"
#include "support/mem_walk.h"
#include "support/stack_model.h"

#include "psp_sync_int.h"
#include "pspint.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace psptest {

// What the heap alone decides: any address but NULL.
inline constexpr std::uintptr_t anywhere = 1;

inline bool is_expected(const void* ptr, std::uintptr_t expected)
{
    return expected == anywhere ? ptr != nullptr : address_of(ptr) == expected;
}

// The allocator of one tag. Addresses are 0 where the library must give NULL.
class TagModel {
  public:
    virtual ~TagModel() = default;
    virtual std::uintptr_t alloc(std::size_t size) = 0;
    virtual std::uintptr_t realloc(std::uintptr_t address, std::size_t size) = 0;
    virtual void free(std::uintptr_t address) = 0;
    virtual void free_all() = 0;
    virtual PSP_TAG_MEM_INFO info() const = 0;
};

class BlockTagModel final : public TagModel {
  public:
    explicit BlockTagModel(LargeModel& large) : blocks_(large) {}

    std::uintptr_t alloc(std::size_t size) override
    {
        return blocks_.alloc(size);
    }
    std::uintptr_t realloc(std::uintptr_t address, std::size_t size) override
    {
        return blocks_.realloc(address, size);
    }
    void free(std::uintptr_t address) override
    {
        blocks_.free(address);
    }
    void free_all() override
    {
        blocks_.free_all();
    }
    PSP_TAG_MEM_INFO info() const override
    {
        return blocks_.info();
    }

  private:
    BlockModel blocks_;
};

// Its chunks are large blocks, counted while they go in and out one by one.
class ListTagModel final : public TagModel, ChunkSupply {
  public:
    explicit ListTagModel(LargeModel& large) : large_(large), blocks_(4096, *this) {}

    std::uintptr_t alloc(std::size_t size) override
    {
        return blocks_.alloc(size);
    }
    std::uintptr_t realloc(std::uintptr_t address, std::size_t size) override
    {
        return blocks_.realloc(address, size);
    }
    void free(std::uintptr_t address) override
    {
        blocks_.free(address);
    }
    void free_all() override
    {
        const ModelCounter kept = chunks_;
        blocks_.free_all();
        chunks_ = kept;
    }
    PSP_TAG_MEM_INFO info() const override
    {
        return {{blocks_.used(), blocks_.used_mark()}, chunks_.info(), {}};
    }
    const ListModel& blocks() const
    {
        return blocks_;
    }

  private:
    Chunk take(std::size_t wanted) override
    {
        const std::uintptr_t chunk = large_.alloc(wanted);
        if (chunk != 0)
            chunks_.add(wanted + 8);
        return {chunk, wanted};
    }
    void give_back(std::uintptr_t chunk) override
    {
        chunks_.sub(large_.size_of(chunk));
        large_.free(chunk);
    }

    LargeModel& large_;
    ListModel blocks_;
    ModelCounter chunks_;
};

class StackTagModel final : public TagModel {
  public:
    explicit StackTagModel(LargeModel& large) : blocks_(large) {}

    std::uintptr_t alloc(std::size_t size) override
    {
        return blocks_.alloc(size);
    }
    std::uintptr_t realloc(std::uintptr_t, std::size_t) override
    {
        return 0;
    }
    void free(std::uintptr_t) override {}
    void free_all() override
    {
        blocks_.free_all();
    }
    PSP_TAG_MEM_INFO info() const override
    {
        return {blocks_.used.info(), {}, {}};
    }

  private:
    StackModel blocks_;
};

class LegacyTagModel final : public TagModel {
  public:
    std::uintptr_t alloc(std::size_t) override
    {
        return anywhere;
    }
    std::uintptr_t realloc(std::uintptr_t, std::size_t) override
    {
        return anywhere;
    }
    void free(std::uintptr_t) override {}
    void free_all() override {}
    PSP_TAG_MEM_INFO info() const override
    {
        return {};
    }
};

// A tag in the model: where its two records are, and its allocator.
struct ModelledTag {
    std::uintptr_t record = 0; // 0: the tag cannot be made
    std::uintptr_t allocator = 0;
    std::unique_ptr<TagModel> blocks;
};

// The memory layer: large blocks, the tag that holds the records, and what tags are made of.
class MemoryModel {
  public:
    explicit MemoryModel(ChunkLog& log) : large_(log), records_(large_) {}

    ModelledTag make_tag(PSP_ALLOCATOR_TYPE type)
    {
        ModelledTag tag;
        tag.record = records_.alloc(sizeof(TAG_ENTRY));
        if (tag.record == 0)
            return tag;
        switch (type) {
        case BLOCK_ALLOCATOR:
            tag.allocator = records_.alloc(sizeof(BLOCK_ALLOCATOR_ENTRY));
            tag.blocks = std::make_unique<BlockTagModel>(large_);
            break;
        case LIST_ALLOCATOR:
            tag.allocator = records_.alloc(sizeof(LIST_ALLOCATOR_ENTRY));
            tag.blocks = std::make_unique<ListTagModel>(large_);
            break;
        case STACK_ALLOCATOR:
            tag.allocator = records_.alloc(sizeof(STACK_ALLOCATOR_ENTRY));
            tag.blocks = std::make_unique<StackTagModel>(large_);
            break;
        case LEGACY_ALLOCATOR:
            tag.allocator = anywhere;
            tag.blocks = std::make_unique<LegacyTagModel>();
            break;
        }
        if (tag.allocator == 0) {
            records_.free(tag.record);
            tag.record = 0;
        }
        return tag;
    }
    void destroy_tag(ModelledTag& tag)
    {
        tag.blocks->free_all();
        if (tag.allocator != anywhere)
            records_.free(tag.allocator);
        records_.free(tag.record);
        tag = {};
    }
    void stop()
    {
        records_.free_all();
    }

    void expect_same_statistics() const
    {
        ASSERT_EQ(psp_mem_stats, large_.stats());
    }
    void expect_same_chunks() const
    {
        expect_same_lists(LargeBlock, large_.blocks());
        expect_same_lists(static_list_allocator, records_.blocks());
    }

  private:
    LargeModel large_;
    ListTagModel records_;
};

// The memory layer and its locks, started and stopped as the library does, with nothing else that
// could allocate. The global tag holds the first block of the table of locks.
class MemoryLayer : public ::testing::Test {
  protected:
    void start()
    {
        ASSERT_EQ(psp_inited, 0);
        psp_inited = 1;
        psp_syncInit();
        ASSERT_EQ(psp_memInit(), sOKAY);
        global_ = model_.make_tag(BLOCK_ALLOCATOR);
        ASSERT_EQ(address_of(tagGlobal), global_.record);
        ASSERT_NE(global_.blocks->alloc(SEM_BLOCK_ENTRIES * sizeof(PSP_SEM_ENTRY)), 0u);
        model_.expect_same_statistics();
    }
    // The tags that are left go first in the model, in the order in which the library lets them go.
    template <class DropTags>
    void stop(DropTags drop_tags)
    {
        psp_terminating = 1;
        psp_syncShutdown();
        psp_memTerm();
        psp_terminating = 0;
        psp_inited = 0;
        drop_tags();
        model_.stop();
        model_.expect_same_statistics();
        EXPECT_EQ(psp_mem_stats.current, 0u);
        EXPECT_EQ(LargeBlock.chunks, nullptr);
        EXPECT_EQ(psp_setMemLimit(nullptr, 0), sOKAY);
    }
    // Nothing passed between the heap and the library that the model does not know of.
    void expect_nothing_unexplained() const
    {
        ASSERT_TRUE(log_.requests.empty()) << "a chunk that was not due";
        ASSERT_TRUE(log_.released.empty()) << "a chunk given back too early";
    }

    LargeBlockSpy spy_;
    ChunkLog& log_ = LargeBlockSpy::log();
    MemoryModel model_{log_};
    ModelledTag global_;
};

} // namespace psptest
