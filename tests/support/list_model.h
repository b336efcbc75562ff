// A plain model of the best-fit allocator over chunks: it keeps its lists in vectors, and predicts
// the address of every block, the chunks asked for and given back, and the bytes in use.
//
// The library runs first; its chunk source and sink write down what they were asked (ChunkLog).
// The model then does the same operation, takes the address of a new chunk from that log, or from
// the model of what its chunks come from, and the test compares.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <iterator>
#include <list>
#include <map>
#include <optional>
#include <utility>
#include <vector>

namespace psptest {

// What a model's chunks come from and go to.
class ChunkSupply {
  public:
    struct Chunk {
        std::uintptr_t address; // 0: refused
        std::size_t given;      // bytes; differs from the request when the source enlarged it
    };
    virtual Chunk take(std::size_t wanted) = 0;
    virtual void give_back(std::uintptr_t chunk) = 0;

  protected:
    ~ChunkSupply() = default;
};

// What passed between an allocator and its chunk source and sink, for its model to follow.
struct ChunkLog final : ChunkSupply {
    struct Request {
        std::size_t wanted;     // bytes asked for
        std::size_t given;      // bytes granted; differs when the source enlarged the request
        std::uintptr_t address; // 0: refused
    };
    std::deque<Request> requests;
    std::deque<std::uintptr_t> released;

    Chunk take(std::size_t wanted) override
    {
        if (requests.empty()) {
            ADD_FAILURE() << "a chunk of " << wanted << " bytes is due, none was asked for";
            return {0, 0};
        }
        const Request request = requests.front();
        requests.pop_front();
        EXPECT_EQ(request.wanted, wanted);
        return {request.address, request.given};
    }
    void give_back(std::uintptr_t chunk) override
    {
        if (released.empty()) {
            ADD_FAILURE() << "an empty chunk was kept";
            return;
        }
        EXPECT_EQ(released.front(), chunk);
        released.pop_front();
    }
};

class ListModel {
  public:
    static constexpr std::uint32_t chunk_header = 32;
    static constexpr std::uint32_t block_header = 16;

    ListModel(std::uint32_t blocksize, ChunkSupply& supply) : blocksize_(blocksize), supply_(supply)
    {
    }

    // Each gives the address of the block, or 0 where the library must give NULL.
    std::uintptr_t alloc(std::size_t size)
    {
        const std::size_t rounded = round16(size);
        std::optional<Place> place = best_fit(rounded);
        if (!place && !(place = add_chunk(rounded)))
            return 0;
        used_ += rounded;
        raise_mark();
        return carve(*place, rounded);
    }

    void free(std::uintptr_t address)
    {
        const Used block = take_used(address);
        used_ -= block.size;
        give_back(*block.chunk, block.offset, block.size);
    }

    std::uintptr_t realloc(std::uintptr_t address, std::size_t newsize)
    {
        const std::size_t rounded = round16(newsize);
        Used& block = used_blocks_.at(address);
        absorb_upper(block);
        if (rounded > block.size) {
            const std::uintptr_t moved = alloc(rounded);
            if (moved != 0)
                free(address);
            return moved;
        }
        used_ += rounded - block.size;
        raise_mark();
        if (block.size > rounded + block_header) {
            const std::size_t surplus = block.size - rounded - block_header;
            const std::size_t at = block.offset + block_header + rounded;
            block.chunk->free.insert(block.chunk->free.begin(), Free{at, surplus});
            block.size = rounded;
        }
        return address;
    }

    // Everything goes, newest chunk first; the counters stay.
    void free_all()
    {
        for (const Chunk& chunk : chunks_)
            supply_.give_back(chunk.address);
        chunks_.clear();
        used_blocks_.clear();
    }

    std::size_t size_of(std::uintptr_t address) const
    {
        return used_blocks_.at(address).size;
    }
    std::size_t used() const
    {
        return used_;
    }
    std::size_t used_mark() const
    {
        return used_mark_;
    }
    std::size_t blocks() const
    {
        return used_blocks_.size();
    }

    // The chunks, newest first: address and bytes after the header.
    std::vector<std::pair<std::uintptr_t, std::size_t>> chunks() const
    {
        std::vector<std::pair<std::uintptr_t, std::size_t>> result;
        for (const auto& chunk : chunks_)
            result.emplace_back(chunk.address, chunk.size);
        return result;
    }

    // The free blocks of the n-th chunk in list order: address of the header and payload bytes.
    std::vector<std::pair<std::uintptr_t, std::size_t>> free_blocks(std::size_t n) const
    {
        std::vector<std::pair<std::uintptr_t, std::size_t>> result;
        const Chunk& chunk = *std::next(chunks_.begin(), static_cast<std::ptrdiff_t>(n));
        for (const Free& block : chunk.free)
            result.emplace_back(chunk.address + chunk_header + block.offset, block.size);
        return result;
    }

  private:
    struct Free {
        std::size_t offset; // of the header, from the end of the chunk header
        std::size_t size;   // payload
    };
    struct Chunk {
        std::uintptr_t address;
        std::size_t size;
        std::vector<Free> free; // head first
    };
    struct Used {
        Chunk* chunk;
        std::size_t offset;
        std::size_t size;
    };
    struct Place {
        Chunk* chunk;
        std::size_t index;
    };

    static std::size_t round16(std::size_t size)
    {
        return (size + 15) / 16 * 16;
    }

    std::optional<Place> best_fit(std::size_t size)
    {
        std::optional<Place> best;
        std::size_t best_size = SIZE_MAX;
        for (Chunk& chunk : chunks_)
            for (std::size_t i = 0; i < chunk.free.size(); i++) {
                const std::size_t have = chunk.free[i].size;
                if (have == size)
                    return Place{&chunk, i};
                if (have > size && have < best_size) {
                    best_size = have;
                    best = Place{&chunk, i};
                }
            }
        return best;
    }

    std::optional<Place> add_chunk(std::size_t size)
    {
        const std::size_t least = size + block_header;
        const std::size_t request = (least > blocksize_ ? least : blocksize_) + chunk_header;
        const ChunkSupply::Chunk got = supply_.take(request);
        if (got.address == 0)
            return std::nullopt;
        const std::size_t payload = got.given - chunk_header;
        chunks_.push_front(Chunk{got.address, payload, {Free{0, payload - block_header}}});
        return Place{&chunks_.front(), 0};
    }

    std::uintptr_t carve(Place place, std::size_t size)
    {
        Chunk& chunk = *place.chunk;
        Free& from = chunk.free[place.index];
        Used block{&chunk, from.offset, from.size};
        if (from.size > size + block_header) {
            block.offset = from.offset + from.size - size;
            block.size = size;
            from.size -= size + block_header;
        } else {
            chunk.free.erase(chunk.free.begin() + static_cast<std::ptrdiff_t>(place.index));
        }
        const std::uintptr_t address = chunk.address + chunk_header + block.offset + block_header;
        used_blocks_.emplace(address, block);
        return address;
    }

    Used take_used(std::uintptr_t address)
    {
        const Used block = used_blocks_.at(address);
        used_blocks_.erase(address);
        return block;
    }

    static void absorb_upper(Used& block)
    {
        std::vector<Free>& list = block.chunk->free;
        for (auto upper = list.begin(); upper != list.end(); ++upper)
            if (upper->offset == block.offset + block_header + block.size) {
                block.size += upper->size + block_header;
                list.erase(upper);
                return;
            }
    }

    void give_back(Chunk& chunk, std::size_t offset, std::size_t size)
    {
        Used grown{&chunk, offset, size};
        absorb_upper(grown);
        Free* result = nullptr;
        for (Free& lower : chunk.free)
            if (lower.offset + block_header + lower.size == offset) {
                lower.size += grown.size + block_header;
                result = &lower;
            }
        if (result == nullptr) {
            chunk.free.insert(chunk.free.begin(), Free{offset, grown.size});
            result = &chunk.free.front();
        }
        if (result->offset == 0 && result->size + block_header == chunk.size)
            release(chunk);
    }

    void release(Chunk& chunk)
    {
        supply_.give_back(chunk.address);
        chunks_.remove_if([&](const Chunk& other) { return &other == &chunk; });
    }

    void raise_mark()
    {
        if (used_ > used_mark_)
            used_mark_ = used_;
    }

    std::uint32_t blocksize_;
    ChunkSupply& supply_;
    std::list<Chunk> chunks_; // newest first; blocks point at their chunks
    std::map<std::uintptr_t, Used> used_blocks_;
    std::size_t used_ = 0;
    std::size_t used_mark_ = 0;
};

} // namespace psptest
