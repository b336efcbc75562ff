// What each kind of tag does with its memory, predicted: addresses, bytes held and statistics. The
// library goes first; a model takes the address of a new chunk from the result and foresees all
// others.
#pragma once

#include "support/alloc_driver.h"

#include "fuzz.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace psptest {

constexpr std::size_t large_header = 8; // in front of every chunk that comes from the large blocks

// Counters in the order in which they are reported.
struct ModelStats {
    ModelCounter used{};
    ModelCounter free{};
    ModelCounter overhead{};

    PSP_TAG_MEM_INFO info() const
    {
        return {used.info(), free.info(), overhead.info()};
    }
};

class MemModel {
  public:
    virtual ~MemModel() = default;
    // Each is told the address that the library gave, 0 where it gave none.
    virtual void alloc(std::size_t size, std::uintptr_t got) = 0;
    virtual void realloc(std::uintptr_t ptr, std::size_t size, std::uintptr_t got) = 0;
    virtual void free(std::uintptr_t ptr) = 0;
    virtual void free_all() = 0;
    virtual PSP_TAG_MEM_INFO stats() const = 0;
    virtual std::size_t held() const = 0; // bytes of large blocks
};

// ---- Size classes ----

class BlockModel : public MemModel {
  public:
    BlockModel()
    {
        stats_.overhead.add(record);
    }

    void alloc(std::size_t size, std::uintptr_t got) override
    {
        const std::size_t actual = size_class(size);
        if (actual > largest_small)
            alloc_large(actual, got);
        else if (!alloc_small(idle_[actual], actual, got))
            return;
        if (got == 0)
            return;
        stats_.used.add(size);
        stats_.free.sub(actual);
        stats_.overhead.add(actual - size);
        blocks_[got] = {size, actual};
    }

    void realloc(std::uintptr_t ptr, std::size_t size, std::uintptr_t got) override
    {
        const Block before = blocks_.at(ptr);
        const std::size_t actual = size_class(size);
        const bool large = actual > largest_small && before.actual > largest_small;
        if (!large && actual != before.actual) {
            alloc(size, got);
            if (got != 0)
                free(ptr);
            return;
        }
        CHECK(large || got == ptr);
        if (got == 0)
            return;
        held_ += actual - before.actual; // may wrap, as the counters may
        stats_.used.add(size - before.requested);
        stats_.overhead.add((actual - size) - (before.actual - before.requested));
        blocks_.erase(ptr);
        blocks_[got] = {size, actual};
    }

    void free(std::uintptr_t ptr) override
    {
        const Block block = blocks_.at(ptr);
        blocks_.erase(ptr);
        stats_.used.sub(block.requested);
        stats_.overhead.sub(block.actual - block.requested);
        if (block.actual > largest_small) {
            held_ -= block.actual + large_header + chunk_header + block_header;
            return;
        }
        stats_.free.add(block.actual);
        idle_[block.actual].free.push_back(ptr);
    }

    void free_all() override
    {
        blocks_.clear();
        idle_.clear();
        held_ = 0;
        stats_.used.current = stats_.free.current = 0;
        stats_.overhead.current = record;
    }

    PSP_TAG_MEM_INFO stats() const override
    {
        return stats_.info();
    }
    std::size_t held() const override
    {
        return held_;
    }

  private:
    static constexpr std::size_t record = sizeof(BLOCK_ALLOCATOR_ENTRY);
    static constexpr std::size_t largest_small = 8192;
    static constexpr std::size_t chunk_header = 16;
    static constexpr std::size_t block_header = 8;

    struct Block {
        std::size_t requested;
        std::size_t actual;
    };
    struct Class {
        std::vector<std::uintptr_t> free{}; // the last one is the next
        std::size_t next_count = 2;
    };

    static std::size_t size_class(std::size_t size)
    {
        return size > largest_small ? (size + 31) / 32 * 32
                                    : std::bit_ceil(std::max<std::size_t>(size, 16));
    }

    void alloc_large(std::size_t actual, std::uintptr_t got)
    {
        if (got == 0)
            return;
        held_ += actual + large_header + chunk_header + block_header;
        stats_.overhead.add(chunk_header);
        stats_.overhead.add(block_header);
        stats_.free.add(actual);
    }

    // False when there was no memory. The blocks of a new chunk are handed out from its end.
    bool alloc_small(Class& idle, std::size_t actual, std::uintptr_t got)
    {
        if (!idle.free.empty()) {
            CHECK(got == idle.free.back());
            idle.free.pop_back();
            return true;
        }
        const std::size_t count = idle.next_count;
        idle.next_count = std::min<std::size_t>(2 * count, 128);
        if (got == 0)
            return false;
        held_ += count * (actual + block_header) + large_header + chunk_header;
        stats_.overhead.add(chunk_header);
        stats_.overhead.add(count * block_header);
        stats_.free.add(count * actual);
        for (std::size_t i = count - 1; i > 0; i--)
            idle.free.push_back(got - i * (actual + block_header));
        return true;
    }

    ModelStats stats_;
    std::map<std::uintptr_t, Block> blocks_;
    std::map<std::size_t, Class> idle_;
    std::size_t held_ = 0;
};

// ---- Best fit ----

// Stands between a list tag and the large blocks, and writes down what passes.
class ListTagModel : public MemModel {
  public:
    explicit ListTagModel(PSP_MEMTAG tag)
        : entry_(static_cast<LIST_ALLOCATOR_ENTRY*>(tag->t_allocator)), blocks_(4096, log_)
    {
        entry_->alloc_fcn = source;
        entry_->free_fcn = sink;
        all()[&entry_->mem_info.free] = this;
    }
    ~ListTagModel() override
    {
        all().erase(&entry_->mem_info.free);
    }
    ListTagModel(const ListTagModel&) = delete;
    ListTagModel& operator=(const ListTagModel&) = delete;

    void alloc(std::size_t size, std::uintptr_t got) override
    {
        CHECK(blocks_.alloc(size) == got);
        check_traffic();
    }
    void realloc(std::uintptr_t ptr, std::size_t size, std::uintptr_t got) override
    {
        CHECK(blocks_.realloc(ptr, size) == got);
        check_traffic();
    }
    void free(std::uintptr_t ptr) override
    {
        blocks_.free(ptr);
        check_traffic();
    }
    // Chunks go back without passing here, and no counter moves.
    void free_all() override
    {
        blocks_.free_all();
        check_traffic();
    }
    PSP_TAG_MEM_INFO stats() const override
    {
        return {{blocks_.used(), blocks_.used_mark()}, chunks_.info(), {0, 0}};
    }
    std::size_t held() const override
    {
        std::size_t sum = 0;
        for (const auto& [address, size] : blocks_.chunks())
            sum += size + ListModel::chunk_header + large_header;
        return sum;
    }

  private:
    static std::map<const PSP_MEM_INFO*, ListTagModel*>& all()
    {
        static std::map<const PSP_MEM_INFO*, ListTagModel*> instance;
        return instance;
    }
    static void* source(std::size_t* size, PSP_MEM_INFO* info)
    {
        ListTagModel& self = *all().at(info);
        const std::size_t wanted = *size;
        void* chunk = psp_allocLargeBlock(size, info);
        self.log_.requests.push_back({wanted, *size, address_of(chunk)});
        if (chunk != nullptr)
            self.chunks_.add(wanted + large_header);
        return chunk;
    }
    static void sink(void* chunk, PSP_MEM_INFO* info)
    {
        ListTagModel& self = *all().at(info);
        self.log_.released.push_back(address_of(chunk));
        self.chunks_.sub(static_cast<LIST_CHUNK_HDR*>(chunk)->size + ListModel::chunk_header +
                         large_header);
        psp_freeLargeBlock(chunk, info);
    }
    void check_traffic() const
    {
        CHECK(log_.requests.empty() && log_.released.empty());
    }

    LIST_ALLOCATOR_ENTRY* entry_;
    ChunkLog log_;
    ListModel blocks_;
    ModelCounter chunks_;
};

// ---- Growing only ----

class StackModel : public MemModel {
  public:
    void alloc(std::size_t size, std::uintptr_t got) override
    {
        size = (size + 7) / 8 * 8;
        const auto fit = std::find_if(partial_.begin(), partial_.end(),
                                      [size](const Chunk& chunk) { return chunk.left >= size; });
        if (fit == partial_.end() && got == 0)
            return;
        if (fit != partial_.end()) {
            CHECK(got == fit->next);
            take(fit, size);
        } else {
            const std::size_t payload = std::max<std::size_t>(size, 4096);
            held_ += payload + chunk_header + large_header;
            take(partial_.insert(partial_.begin(), Chunk{got, payload}), size);
        }
        stats_.used.add(size);
    }
    void realloc(std::uintptr_t, std::size_t, std::uintptr_t got) override
    {
        CHECK(got == 0);
    }
    void free(std::uintptr_t) override {}
    void free_all() override
    {
        partial_.clear();
        held_ = 0;
    }
    PSP_TAG_MEM_INFO stats() const override
    {
        return stats_.info();
    }
    std::size_t held() const override
    {
        return held_;
    }

  private:
    static constexpr std::size_t chunk_header = 24;

    struct Chunk {
        std::uintptr_t next;
        std::size_t left;
    };

    // A full chunk is not looked at again.
    void take(std::vector<Chunk>::iterator chunk, std::size_t size)
    {
        chunk->next += size;
        chunk->left -= size;
        if (chunk->left == 0)
            partial_.erase(chunk);
    }

    std::vector<Chunk> partial_; // newest first
    ModelStats stats_;
    std::size_t held_ = 0;
};

// ---- The heap ----

class LegacyModel : public MemModel {
  public:
    void alloc(std::size_t, std::uintptr_t) override {}
    void realloc(std::uintptr_t, std::size_t, std::uintptr_t) override {}
    void free(std::uintptr_t) override {}
    void free_all() override {}
    PSP_TAG_MEM_INFO stats() const override
    {
        return {};
    }
    std::size_t held() const override
    {
        return 0;
    }
};

} // namespace psptest
