// A seeded stream of allocations, resizes and releases that drives an allocator and its model side
// by side, keeps a pattern in every live block, and tells where the two part.
#pragma once

#include "support/list_model.h"
#include "support/list_row.h"
#include "support/mem_test.h"

#include "psp_mem_data_int.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

namespace psptest {

// A counter with its high-water mark, as a model keeps it.
struct ModelCounter {
    std::size_t current = 0;
    std::size_t max = 0;

    void add(std::size_t amount)
    {
        current += amount;
        max = std::max(max, current);
    }
    void sub(std::size_t amount)
    {
        current -= amount;
    }
    PSP_MEM_INFO info() const
    {
        return {current, max};
    }
};

// One live block, the same for the library and the model.
struct LiveBlock {
    void* ptr;
    std::size_t size;      // requested
    unsigned char pattern; // in its first and last bytes
};

// Long blocks carry their pattern only at both ends, so that the driver stays fast.
inline constexpr std::size_t pattern_length = 256;

inline void write_pattern(const LiveBlock& block)
{
    auto* bytes = static_cast<unsigned char*>(block.ptr);
    const std::size_t part = std::min(block.size, pattern_length);
    std::memset(bytes, block.pattern, part);
    std::memset(bytes + block.size - part, block.pattern, part);
}

inline bool has_pattern(const LiveBlock& block)
{
    const auto* bytes = static_cast<const unsigned char*>(block.ptr);
    const std::size_t part = std::min(block.size, pattern_length);
    return holds(bytes, part, block.pattern) &&
           holds(bytes + block.size - part, part, block.pattern);
}

inline constexpr int walk_distance = 1000; // operations between two walks over the records

// Runs `operations` random steps. The harness has the operations of one allocator, each of which
// does the step in the library and in the model and compares:
//   void* alloc(size_t size); void* realloc(void* ptr, size_t size, int preserve);
//   void free(void* ptr); size_t random_size(std::mt19937& random); void check();
// proves the library's records sound in void walk(), now and then, and may end the run early by a
// failed expectation.
template <class Harness>
void drive(Harness& harness, unsigned seed, int operations, std::size_t most_live,
           bool with_realloc = true)
{
    std::mt19937 random(seed);
    std::vector<LiveBlock> live;
    const auto pick = [&] { return random() % live.size(); };
    for (int i = 0; i < operations && !::testing::Test::HasFailure(); i++) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed << ", operation " << i);
        // Phases that grow and phases that shrink, so that everything empties now and then.
        const bool growing = (i / 500) % 3 != 2;
        const unsigned dice = random() % 100;
        if (live.empty() || (live.size() < most_live && dice < (growing ? 50u : 15u))) {
            LiveBlock block{nullptr, harness.random_size(random),
                            static_cast<unsigned char>(random())};
            block.ptr = harness.alloc(block.size);
            if (block.ptr != nullptr) {
                write_pattern(block);
                live.push_back(block);
            }
        } else if (with_realloc && dice >= 85) {
            LiveBlock& block = live[pick()];
            const std::size_t size = harness.random_size(random);
            const int preserve = random() % 4 != 0;
            const LiveBlock kept{nullptr, std::min(block.size, size), block.pattern};
            ASSERT_TRUE(has_pattern(block));
            if (void* ptr = harness.realloc(block.ptr, size, preserve); ptr != nullptr) {
                if (preserve != 0) {
                    const std::size_t part = std::min(kept.size, pattern_length);
                    ASSERT_TRUE(holds(ptr, part, kept.pattern));
                }
                block.ptr = ptr;
                block.size = size;
                write_pattern(block);
            }
            ASSERT_TRUE(has_pattern(block));
        } else {
            const std::size_t which = pick();
            ASSERT_TRUE(has_pattern(live[which]));
            harness.free(live[which].ptr);
            live[which] = live.back();
            live.pop_back();
        }
        harness.check();
        if (i % walk_distance == 0)
            harness.walk();
    }
    for (const LiveBlock& block : live)
        harness.free(block.ptr);
    harness.check();
    harness.walk();
}

// The large-block layer with its traffic written down: what it asks of psp_malloc, and what it
// gives to psp_free. Only for tests in which nothing else uses that layer.
class LargeBlockSpy {
  public:
    LargeBlockSpy()
    {
        log() = ChunkLog{};
        LargeBlock.alloc_fcn = source;
        LargeBlock.free_fcn = sink;
        LargeBlock.mem_info = {};
        psp_mem_stats = {};
    }
    ~LargeBlockSpy()
    {
        LargeBlock.alloc_fcn = psp_malloc;
        LargeBlock.free_fcn = psp_free;
    }
    LargeBlockSpy(const LargeBlockSpy&) = delete;
    LargeBlockSpy& operator=(const LargeBlockSpy&) = delete;

    static ChunkLog& log()
    {
        static ChunkLog instance;
        return instance;
    }

  private:
    static void* source(std::size_t* size, PSP_MEM_INFO* info)
    {
        const std::size_t wanted = *size;
        void* chunk = psp_malloc(size, info);
        log().requests.push_back({wanted, *size, address_of(chunk)});
        return chunk;
    }
    static void sink(void* chunk, PSP_MEM_INFO* info)
    {
        log().released.push_back(address_of(chunk));
        psp_free(chunk, info);
    }
};

// The model of the large-block layer: a list model with 4 MiB chunks, the statistics, and the limit
// or the caller's buffer that chunks are refused for.
class LargeModel final : ChunkSupply {
  public:
    explicit LargeModel(ChunkLog& log) : log_(log), blocks_(4194304, *this) {}

    // Addresses are those after the 8-byte header; 0 is NULL.
    std::uintptr_t alloc(std::size_t size)
    {
        const std::uintptr_t address = blocks_.alloc(size + 8);
        if (address == 0)
            return 0;
        sizes_[address + 8] = size + 8;
        stats_.add(size + 8);
        return address + 8;
    }
    void free(std::uintptr_t address)
    {
        stats_.sub(sizes_.at(address));
        sizes_.erase(address);
        blocks_.free(address - 8);
    }
    std::uintptr_t realloc(std::uintptr_t address, std::size_t size)
    {
        const std::uintptr_t moved = blocks_.realloc(address - 8, size + 8);
        if (moved == 0)
            return 0;
        stats_.add(size + 8 - sizes_.at(address)); // may wrap, and then takes away
        sizes_.erase(address);
        sizes_[moved + 8] = size + 8;
        return moved + 8;
    }

    // The bytes of a large block with its header.
    std::size_t size_of(std::uintptr_t address) const
    {
        return sizes_.at(address);
    }
    PSP_MEM_INFO stats() const
    {
        return stats_.info();
    }
    const ListModel& blocks() const
    {
        return blocks_;
    }

  private:
    Chunk take(std::size_t wanted) override
    {
        const Chunk chunk = log_.take(wanted);
        const bool over_limit = psp_memlimit != 0 && wanted + stats_.current > psp_memlimit;
        const bool no_buffer = psp_membuffer != nullptr && !blocks_.chunks().empty();
        EXPECT_EQ(chunk.address == 0, over_limit || no_buffer) << wanted;
        return chunk;
    }
    void give_back(std::uintptr_t chunk) override
    {
        log_.give_back(chunk);
    }

    ChunkLog& log_;
    ListModel blocks_;
    std::map<std::uintptr_t, std::size_t> sizes_;
    ModelCounter stats_;
};

// Holds the chunks and the free lists of a list allocator against its model, in their order.
inline void expect_same_lists(const LIST_ALLOCATOR_ENTRY& entry, const ListModel& model)
{
    const auto chunks = model.chunks();
    std::size_t n = 0;
    const LIST_CHUNK_HDR* before = nullptr;
    for (const LIST_CHUNK_HDR* chunk = entry.chunks; chunk != nullptr; chunk = chunk->next, n++) {
        ASSERT_LT(n, chunks.size());
        ASSERT_EQ(address_of(chunk), chunks[n].first);
        ASSERT_EQ(chunk->size, chunks[n].second);
        ASSERT_EQ(chunk->prev, before);
        before = chunk;
        const auto expected = model.free_blocks(n);
        const auto found = free_blocks(chunk);
        ASSERT_EQ(found.size(), expected.size());
        for (std::size_t i = 0; i < found.size(); i++) {
            ASSERT_EQ(address_of(found[i]), expected[i].first);
            ASSERT_EQ(found[i]->size, expected[i].second);
        }
    }
    ASSERT_EQ(n, chunks.size());
}

} // namespace psptest
