/**
 * @file mem.hpp
 * Memory tags, and standard containers in them.
 */
#ifndef PSP_MEM_HPP
#define PSP_MEM_HPP

#include "psp/core.hpp"
#include "psp/mem.h"
#include "psp/nothrow.hpp"
#include "psp/owner.hpp"

#include <cstddef>
#include <cstring>
#include <memory_resource>
#include <new>
#include <utility>

namespace psp {

/** @addtogroup cpp
 * @{ */

/** @cond */
namespace detail {

struct tag_traits {
    using native_type = PSP_MEMTAG;
    static native_type none() noexcept
    {
        return nullptr;
    }
    static void close(native_type tag) noexcept
    {
        const position at = position::here();
        nothrow::psp_freeTagMem(tag, ZYN_TRUE, at.file, at.line);
    }
};

} // namespace detail
/** @endcond */

/**
 * A memory tag: it goes with all that was allocated from it.
 *
 * create() makes tags without a jump buffer: an allocation that fails gives NULL. A tag made in C
 * may have one, and then the failure jumps instead; that is undefined when the jump leaves a scope
 * with an object whose destructor does anything. Whatever holds a pointer into the tag must not use
 * it once the tag is gone; no destructor runs for what lies in it.
 *
 * @threads{one at a time, but with access::any_thread any, as far as the tag lives}
 * @before{create() gives an empty one; an empty one allocates nothing} @jumps{by the tag}
 * @owner{the tag and all its blocks}
 */
class tag : public owner<detail::tag_traits> {
  public:
    using owner::owner;

    /** What all blocks are aligned to, in bytes. */
    static constexpr std::size_t alignment = 8;

    /**
     * Makes a tag: psp_createTagEx_rc().
     * @param type  how it allocates
     * @param users whether it gets a mutex
     * @param rc    receives the code; may be NULL
     * @param at    the caller's source position
     * @return the tag; empty when it failed
     */
    [[nodiscard]] static tag create(PSP_ALLOCATOR_TYPE type = BLOCK_ALLOCATOR,
                                    access users = access::one_thread, ZYN_RETCODE* rc = nullptr,
                                    position at = position::here()) noexcept
    {
        PSP_MEMTAG made = nullptr;
        const std::int16_t flags = users == access::any_thread ? 1 : 0;
        detail::tell(rc, nothrow::psp_createTagEx_rc(nullptr, flags, type, nullptr, nullptr, &made,
                                                     at.file, at.line));
        return tag(made);
    }

    /**
     * Allocates a block, contents undefined: psp_getMem().
     * @param size bytes, 1 to below 4 GiB
     * @param at   the caller's source position
     * @return the block, aligned to 8 bytes; NULL on failure
     */
    [[nodiscard]] void* allocate(std::size_t size, position at = position::here()) noexcept
    {
        return nothrow::psp_getMem(size, native(), PSP_MEM_PLAIN, nullptr, at.file, at.line);
    }

    /** Allocates a block of zeros. @param size,at as for allocate()
     * @return as allocate() */
    [[nodiscard]] void* allocate_zeroed(std::size_t size, position at = position::here()) noexcept
    {
        return nothrow::psp_getMem(size, native(), PSP_MEM_ZERO, nullptr, at.file, at.line);
    }

    /** Copies bytes. @param data what is copied; not NULL @param size,at as for allocate()
     * @return as allocate() */
    [[nodiscard]] void* copy(const void* data, std::size_t size,
                             position at = position::here()) noexcept
    {
        return nothrow::psp_getMem(size, native(), PSP_MEM_COPY, data, at.file, at.line);
    }

    /** Copies a string with its NUL. @param text the string; not NULL @param at as for allocate()
     * @return as allocate() */
    [[nodiscard]] char* copy(const char* text, position at = position::here()) noexcept
    {
        return static_cast<char*>(
            nothrow::psp_getMem(0, native(), PSP_MEM_STRING, text, at.file, at.line));
    }

    /**
     * Resizes a block, keeping its contents: psp_extendMem().
     * @param block a block of this tag, or NULL for a new one
     * @param size  the new size, 1 to below 4 GiB
     * @param at    the caller's source position
     * @return the block, which replaces the old one; NULL on failure, with the old one as it was: a
     *         stack tag cannot resize
     */
    [[nodiscard]] void* extend(void* block, std::size_t size,
                               position at = position::here()) noexcept
    {
        return nothrow::psp_extendMem(block, size, native(), PSP_MEM_PLAIN, 0, nullptr, at.file,
                                      at.line);
    }

    /** Releases a block: psp_freeMem(). @param block one of this tag; nothing happens for NULL
     * @param at the caller's source position */
    void deallocate(const void* block, position at = position::here()) noexcept
    {
        nothrow::psp_freeMem(block, native(), at.file, at.line);
    }

    /**
     * Makes an object that dies with the tag: its destructor is not run. For objects whose memory,
     * too, is all in the tag.
     * @param arguments those of the constructor
     * @return the object; NULL without memory
     */
    template <class T, class... Arguments>
    [[nodiscard]] T* make(Arguments&&... arguments)
    {
        static_assert(alignof(T) <= alignment, "blocks are aligned to 8 bytes");
        void* const block = allocate(sizeof(T));
        return block == nullptr ? nullptr : ::new (block) T(std::forward<Arguments>(arguments)...);
    }

    /** Releases all blocks and keeps the tag: psp_freeTagMem(). @param at the caller's source
     * position */
    void clear(position at = position::here()) noexcept
    {
        nothrow::psp_freeTagMem(native(), ZYN_FALSE, at.file, at.line);
    }

    /** Reads the statistics: psp_getTagMemInfo(). @return them; all 0 for an empty tag */
    [[nodiscard]] PSP_TAG_MEM_INFO info() const noexcept
    {
        PSP_TAG_MEM_INFO info{};
        nothrow::psp_getTagMemInfo(native(), &info);
        return info;
    }
};

/**
 * The standard library's way to a tag: containers of `std::pmr` keep their memory in it.
 *
 * Up to 8 bytes of alignment a request is psp_getMem() of its size. A stricter one takes as many
 * bytes more as the alignment has: the block's own address stands before what is handed out. Two
 * resources are equal when they lead to one tag. Under a stack tag deallocation frees nothing.
 *
 * A request that fails, one for 4 GiB or more among them, throws `std::bad_alloc`. It does so
 * through the standard library, so a program built without exceptions may use this too and ends in
 * `std::terminate`. The tag must not have a jump buffer: the jump would leave the container's own
 * frames, which is undefined, and the resource does nothing to prevent it.
 *
 * @threads{as the tag: any when it has a mutex} @before{every allocation fails} @jumps{by the tag,
 * which is undefined} @owner{nothing: the tag must outlive the containers' use of it, and may be
 * freed under containers that are then neither used nor destroyed}
 */
class memory_resource final : public std::pmr::memory_resource {
  public:
    /** Leads to a tag. @param tag the tag; ::PSP_THREAD_TAG and ::PSP_GLOBAL_TAG may be given */
    explicit memory_resource(PSP_MEMTAG tag) noexcept : tag_(tag) {}

    /** Leads to a tag. @param tag the tag, which stays the caller's */
    explicit memory_resource(const psp::tag& tag) noexcept : tag_(tag.native()) {}

    /** The tag. @return its handle */
    [[nodiscard]] PSP_MEMTAG native() const noexcept
    {
        return tag_;
    }

  private:
    static std::uintptr_t address_of(const void* block) noexcept
    {
        return reinterpret_cast<std::uintptr_t>(block);
    }

    void* get(std::size_t size) const noexcept
    {
        const position at = position::here();
        return nothrow::psp_getMem(size, tag_, PSP_MEM_PLAIN, nullptr, at.file, at.line);
    }

    // The block's address stands in the 8 bytes before what is handed out, which begins at most
    // `alignment` bytes behind it.
    void* get_aligned(std::size_t size, std::size_t alignment) const noexcept
    {
        const std::size_t whole = size + alignment;
        auto* const block = static_cast<char*>(whole < size ? nullptr : get(whole));
        if (block == nullptr)
            return nullptr;
        char* const aligned = block + (alignment - address_of(block) % alignment);
        std::memcpy(aligned - sizeof block, &block, sizeof block);
        return aligned;
    }

    void* do_allocate(std::size_t size, std::size_t alignment) override
    {
        const std::size_t bytes = size == 0 ? 1 : size;
        void* const block =
            alignment <= tag::alignment ? get(bytes) : get_aligned(bytes, alignment);
        if (block == nullptr) // this one always throws, in builds without exceptions too
            return std::pmr::null_memory_resource()->allocate(size, alignment);
        return block;
    }

    void do_deallocate(void* given, std::size_t, std::size_t alignment) override
    {
        void* block = given;
        if (alignment > tag::alignment)
            std::memcpy(&block, static_cast<char*>(given) - sizeof block, sizeof block);
        const position at = position::here();
        nothrow::psp_freeMem(block, tag_, at.file, at.line);
    }

    // Where run-time type information may be missing, what tells this class is its virtual table,
    // to which the first word of an object points. The class is final.
    [[nodiscard]] bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override
    {
        if (this == &other)
            return true;
        if (std::memcmp(static_cast<const void*>(this), static_cast<const void*>(&other),
                        sizeof(void*)) != 0)
            return false;
        return tag_ == static_cast<const memory_resource&>(other).tag_;
    }

    PSP_MEMTAG tag_;
};

/** @} */

} // namespace psp

#endif
