// Memory tags beneath SQLite.
//
// SQLite asks how large a block is (xSize), so each block carries its size in a header of eight
// bytes; eight is also the alignment that SQLite wants and the one that tags give. The engine's
// tag has a mutex, because SQLite may allocate on any thread, and uses the block allocator: sizes
// in powers of two, O(1) each way. The page cache is one block of fixed slots, made once, so pages
// of 4 KiB plus their header do not each take 8 KiB. Rows waiting to be printed live in a stack
// tag: freeing them one by one would be wasted work, the whole window goes at once.
//
// Never let an allocation jump: no tag here carries a jump buffer, SQLite handles NULL itself.

#include "sql_memory.h"

#include <sqlite3.h>

#include <array>
#include <atomic>
#include <cstring>

namespace sql {
namespace {

constexpr size_t header_size = sizeof(uint64_t);

struct TagRow {
    const char* name;
    PSP_ALLOCATOR_TYPE type;
    int16_t flags; // 1: shared by threads
    PSP_MEMTAG tag;
    std::atomic<uint64_t> allocations;
    std::atomic<uint64_t> bytes;
    std::atomic<uint64_t> in_use;
    std::atomic<uint64_t> high_water;
};

// clang-format off
std::array<TagRow, static_cast<size_t>(Owner::count)> tags{{
    {"engine",     BLOCK_ALLOCATOR, 1, nullptr, 0, 0, 0, 0},
    {"page cache", LIST_ALLOCATOR,  1, nullptr, 0, 0, 0, 0},
    {"results",    STACK_ALLOCATOR, 0, nullptr, 0, 0, 0, 0},
    {"program",    BLOCK_ALLOCATOR, 0, nullptr, 0, 0, 0, 0},
}};
// clang-format on

TagRow& row(Owner owner)
{
    return tags[static_cast<size_t>(owner)];
}

void count_growth(TagRow& owner, uint64_t size)
{
    const uint64_t now = owner.in_use.fetch_add(size) + size;
    uint64_t high = owner.high_water.load();
    while (now > high && !owner.high_water.compare_exchange_weak(high, now)) {
    }
}

void count_handed_out(TagRow& owner, uint64_t size)
{
    owner.allocations.fetch_add(1);
    owner.bytes.fetch_add(size);
}

void* base_of(void* block)
{
    return static_cast<unsigned char*>(block) - header_size;
}

uint64_t size_of(void* block)
{
    uint64_t size;
    memcpy(&size, base_of(block), sizeof size);
    return size;
}

void* with_header(void* base, uint64_t size)
{
    memcpy(base, &size, sizeof size);
    return static_cast<unsigned char*>(base) + header_size;
}

// ---- SQLite's allocator ----

void* engine_malloc(int size)
{
    return memory_get(Owner::engine, static_cast<size_t>(size));
}

void engine_free(void* block)
{
    memory_free(Owner::engine, block);
}

void* engine_realloc(void* block, int size)
{
    return memory_extend(Owner::engine, block, static_cast<size_t>(size));
}

int engine_size(void* block)
{
    return block == nullptr ? 0 : static_cast<int>(size_of(block));
}

int engine_roundup(int size)
{
    return (size + 7) & ~7;
}

int engine_init(void*)
{
    return row(Owner::engine).tag != nullptr ? SQLITE_OK : SQLITE_NOMEM;
}

void engine_shutdown(void*) {}

const sqlite3_mem_methods engine_methods = {engine_malloc,   engine_free,    engine_realloc,
                                            engine_size,     engine_roundup, engine_init,
                                            engine_shutdown, nullptr};

// Room for the pages that SQLite caches by default: 2000 KiB of them, headers included.
bool install_page_cache()
{
    constexpr int pages = 500;
    constexpr int page_size = 4096;
    int page_header = 0;
    if (sqlite3_config(SQLITE_CONFIG_PCACHE_HDRSZ, &page_header) != SQLITE_OK)
        return false;
    const int slot = engine_roundup(page_size + page_header);
    void* cache = memory_get(Owner::pages, static_cast<size_t>(slot) * pages);
    return cache != nullptr &&
           sqlite3_config(SQLITE_CONFIG_PAGECACHE, cache, slot, pages) == SQLITE_OK;
}

} // namespace

bool memory_start()
{
    for (TagRow& owner : tags) {
        owner.tag =
            psp_createTagEx(nullptr, owner.flags, owner.type, nullptr, nullptr, __FILE__, __LINE__);
        if (owner.tag == nullptr)
            return false;
    }
    return true;
}

bool memory_install()
{
    return sqlite3_config(SQLITE_CONFIG_MALLOC, &engine_methods) == SQLITE_OK &&
           memory_installed() && install_page_cache();
}

bool memory_installed()
{
    sqlite3_mem_methods current = {};
    return sqlite3_config(SQLITE_CONFIG_GETMALLOC, &current) == SQLITE_OK &&
           current.xMalloc == engine_malloc && current.xFree == engine_free &&
           current.xRealloc == engine_realloc;
}

void memory_stop()
{
    for (TagRow& owner : tags) {
        psp_freeTagMem(owner.tag, ZYN_TRUE, __FILE__, __LINE__);
        owner.tag = nullptr;
    }
}

void* memory_get(Owner owner, size_t size)
{
    TagRow& to = row(owner);
    void* base = psp_getMem(size + header_size, to.tag, PSP_MEM_PLAIN, nullptr, __FILE__, __LINE__);
    if (base == nullptr)
        return nullptr;
    count_handed_out(to, size);
    count_growth(to, size);
    return with_header(base, size);
}

void* memory_extend(Owner owner, void* block, size_t size)
{
    if (block == nullptr)
        return memory_get(owner, size);
    TagRow& to = row(owner);
    const uint64_t before = size_of(block);
    void* base = psp_extendMem(base_of(block), size + header_size, to.tag, PSP_MEM_PLAIN, 0,
                               nullptr, __FILE__, __LINE__);
    if (base == nullptr)
        return nullptr;
    count_handed_out(to, size);
    to.in_use.fetch_sub(before);
    count_growth(to, size);
    return with_header(base, size);
}

void memory_free(Owner owner, void* block)
{
    if (block == nullptr)
        return;
    TagRow& from = row(owner);
    from.in_use.fetch_sub(size_of(block));
    psp_freeMem(base_of(block), from.tag, __FILE__, __LINE__);
}

void memory_reset(Owner owner)
{
    TagRow& from = row(owner);
    psp_freeTagMem(from.tag, ZYN_FALSE, __FILE__, __LINE__);
    from.in_use.store(0);
}

MemoryFigures memory_figures(Owner owner)
{
    const TagRow& of = row(owner);
    return {of.name, of.allocations.load(), of.bytes.load(), of.in_use.load(),
            of.high_water.load()};
}

} // namespace sql
