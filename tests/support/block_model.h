// A plain model of the block allocator over the model of the large-block layer: it predicts the
// address of every block, every chunk, and the statistics.
#pragma once

#include "support/alloc_driver.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <map>

namespace psptest {

class BlockModel {
  public:
    explicit BlockModel(LargeModel& large) : large_(large)
    {
        mult_.fill(2);
        overhead_.add(sizeof(BLOCK_ALLOCATOR_ENTRY));
    }

    static std::size_t class_size(std::size_t size)
    {
        if (size > 8192)
            return (size + 31) / 32 * 32;
        std::size_t power = 16;
        while (power < size)
            power *= 2;
        return power;
    }

    std::uintptr_t alloc(std::size_t size)
    {
        const std::size_t actual = class_size(size);
        std::uintptr_t block = 0;
        if (actual <= 8192) {
            std::deque<std::uintptr_t>& avail = avail_[index(actual)];
            if (avail.empty() && !refill(actual))
                return 0;
            block = avail.front();
            avail.pop_front();
        } else {
            const std::uintptr_t chunk = add_chunk(actual + 8);
            if (chunk == 0)
                return 0;
            block = chunk + 16 + 8;
            overhead_.add(8);
            free_.add(actual);
        }
        blocks_[block] = {size, actual};
        used_.add(size);
        free_.sub(actual);
        overhead_.add(actual - size);
        return block;
    }

    void free(std::uintptr_t block)
    {
        const Block was = blocks_.at(block);
        blocks_.erase(block);
        used_.sub(was.requested);
        overhead_.sub(was.actual - was.requested);
        if (was.actual <= 8192) {
            free_.add(was.actual);
            avail_[index(was.actual)].push_front(block);
        } else {
            chunks_.remove(block - 24);
            large_.free(block - 24);
        }
    }

    std::uintptr_t realloc(std::uintptr_t address, std::size_t size)
    {
        Block& block = blocks_.at(address);
        const std::size_t actual = class_size(size);
        if (actual <= 8192 && actual == block.actual) {
            if (size < block.requested) {
                overhead_.add(block.requested - size);
                used_.sub(block.requested - size);
            } else {
                overhead_.sub(size - block.requested);
                used_.add(size - block.requested);
            }
            block.requested = size;
            return address;
        }
        if (actual > 8192 && block.actual > 8192)
            return resize_large(address, size, actual);
        const std::uintptr_t moved = alloc(size);
        if (moved != 0)
            free(address);
        return moved;
    }

    void free_all()
    {
        for (const std::uintptr_t chunk : chunks_)
            large_.free(chunk);
        chunks_.clear();
        blocks_.clear();
        mult_.fill(2);
        for (auto& avail : avail_)
            avail.clear();
        used_.current = 0;
        free_.current = 0;
        overhead_.current = sizeof(BLOCK_ALLOCATOR_ENTRY);
    }

    PSP_TAG_MEM_INFO info() const
    {
        return {used_.info(), free_.info(), overhead_.info()};
    }
    std::size_t actual_of(std::uintptr_t block) const
    {
        return blocks_.at(block).actual;
    }
    const std::list<std::uintptr_t>& chunks() const
    {
        return chunks_;
    }
    const std::deque<std::uintptr_t>& avail(std::size_t i) const
    {
        return avail_[i];
    }
    std::uint32_t mult(std::size_t i) const
    {
        return mult_[i];
    }

  private:
    struct Block {
        std::size_t requested;
        std::size_t actual;
    };

    static std::size_t index(std::size_t actual)
    {
        std::size_t i = 0;
        while ((std::size_t{16} << i) != actual)
            i++;
        return i;
    }

    std::uintptr_t add_chunk(std::size_t size)
    {
        const std::uintptr_t chunk = large_.alloc(size + 16);
        if (chunk != 0) {
            chunks_.push_front(chunk);
            overhead_.add(16);
        }
        return chunk;
    }

    bool refill(std::size_t actual)
    {
        const std::size_t i = index(actual);
        const std::size_t count = mult_[i];
        if (mult_[i] < 128)
            mult_[i] *= 2;
        const std::uintptr_t chunk = add_chunk(count * (actual + 8));
        if (chunk == 0)
            return false;
        for (std::size_t k = 0; k < count; k++) {
            overhead_.add(8);
            free_.add(actual);
            avail_[i].push_front(chunk + 16 + k * (actual + 8) + 8);
        }
        return true;
    }

    std::uintptr_t resize_large(std::uintptr_t address, std::size_t size, std::size_t actual)
    {
        const std::uintptr_t chunk = large_.realloc(address - 24, actual + 24);
        if (chunk == 0)
            return 0;
        for (std::uintptr_t& entry : chunks_)
            if (entry == address - 24)
                entry = chunk;
        const Block was = blocks_.at(address);
        blocks_.erase(address);
        blocks_[chunk + 24] = {size, actual};
        used_.add(size - was.requested); // both may wrap, and then take away
        overhead_.add((actual - size) - (was.actual - was.requested));
        return chunk + 24;
    }

    LargeModel& large_;
    std::array<std::deque<std::uintptr_t>, 10> avail_; // front: handed out next
    std::array<std::uint32_t, 10> mult_;
    std::list<std::uintptr_t> chunks_; // newest first
    std::map<std::uintptr_t, Block> blocks_;
    ModelCounter used_;
    ModelCounter free_;
    ModelCounter overhead_;
};

} // namespace psptest
