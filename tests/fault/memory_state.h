// What the process holds of the library's resources, and tags that hold nothing in reserve.
#pragma once

#include "fault/faults.h"
#include "support/mem_test.h"

#include "psp_list_row.h"
#include "psp_mem_data_int.h"
#include "psp_sync_int.h"
#include "pspint.h"

#include <cstddef>
#include <ostream>
#include <utility>
#include <vector>

namespace psptest {

// ---- What the process holds ----

// The blocks in use of a list allocator: its counters round, the chunks tell exactly.
inline std::size_t blocks_in_use(const LIST_ALLOCATOR_ENTRY& list)
{
    std::size_t count = 0;
    for (const LIST_CHUNK_HDR* chunk = list.chunks; chunk != nullptr; chunk = chunk->next) {
        for (const LIST_HDR* p = list_first_block(chunk); p != nullptr; p = list_upper(p))
            count += list_is_free(p) ? 0 : 1;
    }
    return count;
}

inline bool is_of(const TAG_ENTRY* tag, ALLOCATOR_ALLOC_FCN allocator)
{
    return tag->t_fcns.alloc_fcn == allocator;
}

inline const LIST_ALLOCATOR_ENTRY& list_of(const TAG_ENTRY* tag)
{
    return *static_cast<const LIST_ALLOCATOR_ENTRY*>(tag->t_allocator);
}

struct Held {
    long used = 0;           // bytes in block tags
    std::size_t records = 0; // blocks in list tags, those with the tags' own records included
    std::size_t tags = 0;
    std::size_t locks = 0; // and events
    std::size_t descriptors = 0;
    long heap = 0; // blocks, without the chunks that all tags share

    bool operator==(const Held&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const Held& held)
{
    return out << held.used << " bytes, " << held.records << " records, " << held.tags << " tags, "
               << held.locks << " locks, " << held.descriptors << " descriptors, " << held.heap
               << " heap blocks";
}

template <class Visit>
void for_each_lock(Visit visit)
{
    for (const PSP_SEM_TABLE& slot : sem_table)
        for (int i = 0; i < slot.untouched; i++)
            if (slot.entry[i].avail == SEM_ALLOCATED)
                visit(slot.entry[i]);
}

// Stack tags are left out: what the output stacks pop stays with their tags on purpose, and a
// caller's own is looked at by its row.
inline Held held()
{
    Held now;
    for (const TAG_ENTRY* tag = taglisthead; tag != nullptr; tag = tag->t_next) {
        now.tags++;
        if (is_of(tag, block_allocator_alloc))
            now.used += static_cast<long>(info_of(const_cast<PSP_MEMTAG>(tag)).used.current);
        else if (is_of(tag, list_allocator_alloc))
            now.records += blocks_in_use(list_of(tag));
    }
    now.records += blocks_in_use(static_list_allocator);
    for_each_lock([&](const PSP_SEM_ENTRY&) { now.locks++; });
    now.descriptors = open_descriptors();
    now.heap = live_heap_blocks();
    for (const LIST_CHUNK_HDR* chunk = LargeBlock.chunks; chunk != nullptr; chunk = chunk->next)
        now.heap--;
    return now;
}

// ---- Tags without idle memory ----

// Takes the idle blocks out of all tags, until the end of the scope: every request needs a chunk.
class Drained {
  public:
    Drained()
    {
        const Hoard hoard;
        const MemoryLimit limit;
        for (TAG_ENTRY* tag = taglisthead; tag != nullptr; tag = tag->t_next)
            drain(tag);
        drain(&static_list_tag);
    }
    ~Drained()
    {
        for (; !taken_.empty(); taken_.pop_back())
            release(taken_.back().second, taken_.back().first);
    }
    Drained(const Drained&) = delete;
    Drained& operator=(const Drained&) = delete;

  private:
    void drain(PSP_MEMTAG tag)
    {
        if (is_of(tag, block_allocator_alloc))
            drain_classes(tag, static_cast<BLOCK_ALLOCATOR_ENTRY*>(tag->t_allocator)->blocks);
        else if (is_of(tag, list_allocator_alloc))
            for (std::size_t size = 4096; size >= 16; size /= 2)
                while (take(tag, size)) {
                }
        else if (is_of(tag, stack_allocator_alloc)) // for good: such blocks cannot be given back
            for (auto* stack = static_cast<STACK_ALLOCATOR_ENTRY*>(tag->t_allocator);
                 stack->partial_chunks != nullptr;)
                take(tag, stack->partial_chunks->left);
    }
    void drain_classes(PSP_MEMTAG tag, BLOCK_INFO (&classes)[BLOCK_CLASSES])
    {
        std::size_t size = 16;
        for (BLOCK_INFO& info : classes) {
            while (info.avail != nullptr)
                take(tag, size);
            info.mult = 2; // as in a fresh tag: the next chunk is small
            size *= 2;
        }
    }
    bool take(PSP_MEMTAG tag, std::size_t size)
    {
        void* const block = psp_memTryGet(size, tag, PSP_MEM_PLAIN, nullptr); // without a jump
        if (block != nullptr)
            taken_.emplace_back(tag, block);
        return block != nullptr;
    }

    std::vector<std::pair<PSP_MEMTAG, void*>> taken_;
};

} // namespace psptest
