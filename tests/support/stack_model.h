// A plain model of the stack allocator over the model of the large-block layer: it predicts the
// address of every block and every chunk.
#pragma once

#include "support/alloc_driver.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <list>

namespace psptest {

// Chunks with what is handed out and what is left.
class StackModel {
  public:
    explicit StackModel(LargeModel& large) : large_(large) {}

    struct Chunk {
        std::uintptr_t address;
        std::size_t offset;
        std::size_t left;
    };

    std::uintptr_t alloc(std::size_t size)
    {
        const std::size_t rounded = (size + 7) / 8 * 8;
        auto chunk = partial.begin();
        while (chunk != partial.end() && chunk->left < rounded)
            ++chunk;
        if (chunk == partial.end()) {
            const std::size_t payload = std::max<std::size_t>(rounded, 4096);
            const std::uintptr_t address = large_.alloc(payload + 24);
            if (address == 0)
                return 0;
            partial.push_front({address, 0, payload});
            chunk = partial.begin();
        }
        const std::uintptr_t block = chunk->address + 24 + chunk->offset;
        chunk->offset += rounded;
        chunk->left -= rounded;
        used.add(rounded);
        if (chunk->left == 0)
            full.splice(full.begin(), partial, chunk);
        return block;
    }

    void free_all()
    {
        for (const auto* chunks : {&partial, &full})
            for (const Chunk& chunk : *chunks)
                large_.free(chunk.address);
        partial.clear();
        full.clear();
    }

    std::list<Chunk> partial; // head first
    std::list<Chunk> full;
    ModelCounter used;

  private:
    LargeModel& large_;
};

} // namespace psptest
