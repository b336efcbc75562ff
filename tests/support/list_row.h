// The free blocks of a list chunk as a plain search would meet them, read off the blocks themselves
// and not off the index over them.
#pragma once

#include "psp_free_index.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace psptest {

// Last pushed first.
inline std::vector<LIST_HDR*> free_blocks(const LIST_CHUNK_HDR* chunk)
{
    std::vector<LIST_HDR*> blocks;
    for (LIST_HDR* block = list_first_block(chunk); block != nullptr; block = list_upper(block))
        if (list_is_free(block))
            blocks.push_back(block);
    std::sort(blocks.begin(), blocks.end(), [](const LIST_HDR* a, const LIST_HDR* b) {
        return free_index_push(a) > free_index_push(b);
    });
    return blocks;
}

} // namespace psptest
