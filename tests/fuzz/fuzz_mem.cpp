// Memory tags of every kind, step by step beside models that foresee every address, refusal, jump
// and counter: within a limit, in a buffer of the caller's, and through a stop that cleans up.
#include "fuzz.h"
#include "support/tag_model.h"

#include <algorithm>
#include <csetjmp>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using namespace psptest;

namespace {

constexpr std::size_t most_tags = 6;
constexpr std::size_t most_blocks = 48; // of one tag
constexpr std::size_t smallest_limit = 4195328;
constexpr std::size_t room_size = 5 * 1024 * 1024;

// Room for the first chunk of every input, or the caller's buffer: new pages for each input would
// cost more than all the rest.
alignas(16) char room[room_size];
bool room_in_use;

// What else there is: the heap, or the caller's buffer.
void* (*others_source)(std::size_t*, PSP_MEM_INFO*);
void (*others_sink)(void*, PSP_MEM_INFO*);

void* source(std::size_t* size, PSP_MEM_INFO* info)
{
    const bool over_limit = psp_memlimit != 0 && psp_memlimit < *size + psp_mem_stats.current;
    const bool at_hand = !room_in_use && psp_membuffer == nullptr && *size <= room_size;
    if (over_limit || !at_hand)
        return others_source(size, info);
    room_in_use = true;
    LargeBlockSpy::log().requests.push_back({*size, *size, address_of(room)});
    return room;
}

void sink(void* chunk, PSP_MEM_INFO* info)
{
    if (chunk != room || psp_membuffer != nullptr)
        return others_sink(chunk, info);
    room_in_use = false;
    LargeBlockSpy::log().released.push_back(address_of(room));
}

// ---- Attempts ----

struct Outcome {
    void* ptr;
    bool jumped;
};

jmp_buf jump_target;

// Nothing with a destructor may be alive in `call` where it jumps.
template <class Call>
Outcome attempt(Call call)
{
    void* ptr = nullptr;
    const int jumped = jumped_with(jump_target, [&] { ptr = call(); });
    CHECK(jumped == 0 || (jumped == 1 && ptr == nullptr));
    return {ptr, jumped != 0};
}

// ---- Tags ----

std::vector<int> destroyed; // the numbers of tags, in the order of their ends

struct Tag {
    PSP_MEMTAG handle;
    ModelledTag model;
    PSP_ALLOCATOR_TYPE type;
    int number; // in the order of creation; -1: one of the two that are always there
    bool jumps;
    std::vector<LiveBlock> blocks{};

    static void at_end(void* ctx)
    {
        const auto* self = static_cast<const Tag*>(ctx);
        for (const LiveBlock& block : self->blocks)
            CHECK(has_pattern(block));
        destroyed.push_back(self->number);
    }
};

std::size_t any_size(FuzzedDataProvider& input)
{
    const auto kind = input.ConsumeIntegral<uint8_t>();
    if (kind < 0x60)
        return kind;
    if (kind < 0xA0)
        return (std::size_t{16} << kind % 11) + input.ConsumeIntegralInRange<std::size_t>(0, 2) - 1;
    if (kind < 0xF0)
        return input.ConsumeIntegralInRange<std::size_t>(0, 20000);
    return kind < 0xFE ? input.ConsumeIntegralInRange<std::size_t>(0, 3 << 20)
                       : input.PickValueInArray(impossible_sizes);
}

// What a request asks for: the size that counts, the mode, and what is copied.
struct Request {
    std::size_t size;
    int32_t mode;
    std::string data;

    const void* source() const
    {
        return (mode & 4) != 0 ? data.c_str() : nullptr;
    }
    // Such a request never reaches an allocator.
    bool valid() const
    {
        return size != 0 || (mode & (8 | 16)) != 0;
    }
    bool fits() const
    {
        return size < gib4 - 1;
    }
};

Request any_request(FuzzedDataProvider& input, PSP_ALLOCATOR_TYPE type)
{
    Request request{
        any_size(input), input.PickValueInArray({1, 1, 1, 9, 17, 3, 11, 5, 21, 6, 13}), {}};
    if (type == LEGACY_ALLOCATOR && request.size == gib4 - 1)
        request.size = gib4; // the heap may well have less
    if (request.size > 20000)
        request.mode &= ~4; // no copies of what is not there
    if ((request.mode & 4) != 0) {
        request.data.assign(request.size, static_cast<char>(input.ConsumeIntegral<uint8_t>()));
        if (request.mode == PSP_MEM_STRING)
            request.size = std::strlen(request.data.c_str()) + 1;
    }
    return request;
}

// ---- The run ----

class Run : MemoryLayer {
  public:
    explicit Run(FuzzedDataProvider& input) : input_(input)
    {
        others_source = std::exchange(LargeBlock.alloc_fcn, source);
        others_sink = std::exchange(LargeBlock.free_fcn, sink);
        buffered_ = input_.ConsumeIntegralInRange(0, 3) == 3;
        CHECK(psp_setMemLimit(buffered_ ? room : nullptr, buffered_ ? room_size : 0) == sOKAY);
        destroyed.clear();
        start();
        add({PSP_GLOBAL_TAG, std::move(global_), BLOCK_ALLOCATOR, -1, false});
        CHECK(getCorrectTag(PSP_THREAD_TAG) != nullptr); // makes it
        add({PSP_THREAD_TAG, model_.make_tag(BLOCK_ALLOCATOR), BLOCK_ALLOCATOR, -1, false});
    }
    // What is left is destroyed: the thread's tag, the global one, the others as they were made.
    ~Run() override
    {
        check_all();
        std::vector<int> expected = destroyed;
        for (const auto& tag : tags_)
            if (tag->number >= 0)
                expected.push_back(tag->number);
        stop([this] {
            std::swap(tags_[0], tags_[1]);
            for (const auto& tag : tags_)
                model_.destroy_tag(tag->model);
        });
        CHECK(destroyed == expected && !room_in_use);
        expect_nothing_unexplained();
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    void step()
    {
        const int dice = input_.ConsumeIntegralInRange(0, 31);
        Tag& tag = any_tag();
        if (dice == 0)
            create();
        else if (dice == 1)
            limit();
        else if (dice == 2)
            check_all();
        else if (dice == 3)
            end(tag);
        else if (dice == 4)
            empty(tag);
        else if (dice == 5)
            switch_jumps(tag);
        else if (dice < 16 || tag.blocks.empty())
            allocate(tag);
        else if (dice < 22)
            resize(tag);
        else if (dice < 28)
            release_one(tag);
        else if (dice < 31)
            move_one(tag, any_tag());
        else
            refuse(tag);
        model_.expect_same_statistics();
        expect_nothing_unexplained();
    }

  private:
    void TestBody() override {}

    void add(Tag tag)
    {
        tags_.push_back(std::make_unique<Tag>(std::move(tag)));
    }
    Tag& any_tag()
    {
        return *tags_[input_.ConsumeIntegralInRange<std::size_t>(0, 255) % tags_.size()];
    }
    LiveBlock& any_block(Tag& tag)
    {
        LiveBlock& block =
            tag.blocks[input_.ConsumeIntegralInRange<std::size_t>(0, 255) % tag.blocks.size()];
        CHECK(has_pattern(block));
        return block;
    }
    static void forget(Tag& tag, LiveBlock& block)
    {
        block = tag.blocks.back();
        tag.blocks.pop_back();
    }

    // ---- Tags ----

    void create()
    {
        const auto type = input_.ConsumeIntegralInRange<int32_t>(0, 4);
        const auto flags = input_.ConsumeIntegralInRange<int16_t>(0, 2);
        const bool jumps = input_.ConsumeBool();
        if (type == 4 || tags_.size() == most_tags) {
            const auto unknown = static_cast<PSP_ALLOCATOR_TYPE>(42);
            CHECK(psp_createTagEx(nullptr, flags, unknown, nullptr, nullptr, "", 0) == nullptr);
            ModelledTag gone = model_.make_tag(LEGACY_ALLOCATOR); // a record for a moment
            if (gone.record != 0)
                model_.destroy_tag(gone);
            return;
        }
        auto tag = std::make_unique<Tag>(
            Tag{nullptr, {}, static_cast<PSP_ALLOCATOR_TYPE>(type), created_, jumps});
        const ZYN_RETCODE rc =
            psp_createTagEx_rc(jumps ? &jump_target : nullptr, flags, tag->type, Tag::at_end,
                               tag.get(), &tag->handle, __FILE__, __LINE__);
        tag->model = model_.make_tag(tag->type);
        CHECK((rc == sOKAY) == (tag->model.record != 0));
        if (rc != sOKAY)
            return;
        CHECK(address_of(tag->handle) == tag->model.record);
        created_++;
        tags_.push_back(std::move(tag));
    }

    void end(Tag& tag)
    {
        destroy_tag(tag.handle);
        if (tag.number < 0)
            return; // nothing happens to the special ones
        CHECK(!destroyed.empty() && destroyed.back() == tag.number);
        model_.destroy_tag(tag.model);
        std::erase_if(tags_, [&tag](const auto& other) { return other.get() == &tag; });
    }

    void empty(Tag& tag)
    {
        empty_tag(tag.handle);
        if (tag.number < 0)
            return;
        tag.blocks.clear();
        tag.model.blocks->free_all();
        check(tag);
    }

    static void switch_jumps(Tag& tag)
    {
        tag.jumps = !tag.jumps;
        psp_resetTag(tag.jumps ? &jump_target : nullptr, tag.handle);
    }

    void limit()
    {
        const std::size_t wanted = input_.PickValueInArray<std::size_t>(
            {0, smallest_limit, 2 * smallest_limit, 1, smallest_limit - 1});
        const bool valid = !buffered_ && (wanted == 0 || wanted >= smallest_limit);
        CHECK(psp_setMemLimit(nullptr, wanted) ==
              (valid ? ZYN_RETCODE{sOKAY} : ZYN_RETCODE{ePSP_FAILURE}));
        CHECK(psp_setMemLimit(room, room_size) == ePSP_FAILURE);
    }

    // ---- Blocks ----

    // The address that the model foresees, 0 for none; what a tag cannot have fails as well.
    static void check_outcome(const Tag& tag, const Request& request, const Outcome& outcome,
                              std::uintptr_t expected)
    {
        CHECK(is_expected(outcome.ptr, expected));
        CHECK(outcome.jumped == (expected == 0 && request.valid() && tag.jumps));
    }

    // Gives a new or resized block a pattern of its own.
    void fill(LiveBlock& block)
    {
        block.pattern = static_cast<unsigned char>(++patterns_);
        write_pattern(block);
    }

    void check_new(const Request& request, const void* ptr)
    {
        CHECK(address_of(ptr) % 8 == 0);
        if ((request.mode & 2) != 0)
            CHECK(holds(ptr, request.size, 0));
        else if ((request.mode & 4) != 0)
            CHECK(std::memcmp(ptr, request.data.c_str(), request.size) == 0);
    }

    void allocate(Tag& tag)
    {
        if (tag.blocks.size() == most_blocks)
            return;
        const Request request = any_request(input_, tag.type);
        const bool with_code = input_.ConsumeBool();
        const auto size = request.mode == PSP_MEM_STRING ? 0 : request.size;
        const Outcome outcome = attempt([&] {
            if (!with_code)
                return get(size, tag.handle, request.mode, request.source());
            void* ptr = nullptr;
            const ZYN_RETCODE rc = psp_getMem_rc(size, tag.handle, request.mode, request.source(),
                                                 &ptr, __FILE__, __LINE__);
            CHECK(rc == (ptr == nullptr ? ZYN_RETCODE{eNOMEMORY} : ZYN_RETCODE{sOKAY}));
            return ptr;
        });
        const bool possible = request.valid() && request.fits();
        check_outcome(tag, request, outcome, possible ? tag.model.blocks->alloc(request.size) : 0);
        if (outcome.ptr != nullptr) {
            check_new(request, outcome.ptr);
            tag.blocks.push_back({outcome.ptr, request.size, 0});
            fill(tag.blocks.back());
        }
        check(tag);
    }

    void resize(Tag& tag)
    {
        LiveBlock& block = any_block(tag);
        Request request = any_request(input_, tag.type);
        if (request.mode == PSP_MEM_STRING)
            request.mode = 9;
        std::size_t gain = input_.ConsumeBool() ? input_.ConsumeIntegralInRange<std::size_t>(0, 100)
                                                : request.size / 2;
        const Outcome outcome = attempt([&] {
            return extend(block.ptr, request.size, tag.handle, request.mode, gain,
                          request.source());
        });
        const bool possible = request.valid() && request.fits();
        const auto old = address_of(block.ptr);
        check_outcome(tag, request, outcome,
                      possible ? tag.model.blocks->realloc(old, request.size) : 0);
        if (outcome.ptr == nullptr) {
            CHECK(has_pattern(block));
        } else {
            check_resized(block, request, std::min(gain, request.size), outcome.ptr);
            block.ptr = outcome.ptr;
            block.size = request.size;
            fill(block);
        }
        check(tag);
    }

    // The old contents up to the smaller size, and at the end what the block gained.
    static void check_resized(const LiveBlock& before, const Request& request, std::size_t gain,
                              void* ptr)
    {
        auto* bytes = static_cast<unsigned char*>(ptr);
        const bool zeroed = (request.mode & 2) != 0;
        const bool copied = !zeroed && (request.mode & 4) != 0;
        CHECK(!zeroed || holds(bytes + request.size - gain, gain, 0));
        if (copied) {
            const std::size_t count = gain == 0 ? request.size : gain;
            CHECK(std::memcmp(bytes + request.size - count, request.data.data(), count) == 0);
        } else if ((request.mode & 4) == 0) {
            const std::size_t kept =
                std::min({before.size, request.size - (zeroed ? gain : 0), pattern_length});
            CHECK(holds(bytes, kept, before.pattern));
        }
    }

    void release_one(Tag& tag)
    {
        LiveBlock& block = any_block(tag);
        release(block.ptr, tag.handle);
        tag.model.blocks->free(address_of(block.ptr));
        forget(tag, block);
        check(tag);
    }

    void move_one(Tag& from, Tag& to)
    {
        LiveBlock& block = any_block(from);
        if (to.blocks.size() == most_blocks)
            return;
        void* const moved = move(block.ptr, block.size, to.handle, from.handle);
        if (&from == &to) {
            CHECK(moved == block.ptr);
            return;
        }
        CHECK(is_expected(moved, block.size == 0 ? 0 : to.model.blocks->alloc(block.size)));
        if (moved == nullptr) {
            CHECK(has_pattern(block));
        } else {
            from.model.blocks->free(address_of(block.ptr));
            to.blocks.push_back({moved, block.size, block.pattern});
            CHECK(has_pattern(to.blocks.back()));
            forget(from, block);
        }
        check(from);
        check(to);
    }

    // What is refused before it gets to an allocator, and so never jumps.
    static void refuse(Tag& tag)
    {
        CHECK(get(0, tag.handle) == nullptr);
        CHECK(get(1, tag.handle, PSP_MEM_COPY) == nullptr);
        CHECK(get(SIZE_MAX, tag.handle) == nullptr && get(SIZE_MAX - 1, tag.handle) == nullptr);
        CHECK(get(1, nullptr) == nullptr);
        CHECK(move(nullptr, 1, tag.handle, tag.handle) == nullptr);
        release(nullptr, tag.handle);
        CHECK(psp_getTagMemInfo(tag.handle, nullptr) == ePSP_FAILURE);
        check(tag);
    }

    // ---- Numbers ----

    static void check(const Tag& tag)
    {
        PSP_TAG_MEM_INFO info;
        CHECK(psp_getTagMemInfo(tag.handle, &info) == sOKAY);
        CHECK(info == tag.model.blocks->info());
    }

    void check_all() const
    {
        model_.expect_same_chunks();
        expect_sound_memory();
        for (const auto& tag : tags_) {
            check(*tag);
            for (const LiveBlock& block : tag->blocks)
                CHECK(has_pattern(block));
        }
    }

    FuzzedDataProvider& input_;
    bool buffered_ = false;
    std::vector<std::unique_ptr<Tag>> tags_;
    int created_ = 0;
    unsigned patterns_ = 0;
};

} // namespace

// The models report through the test framework, which here ends the process.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    ::testing::InitGoogleTest(argc, *argv);
    GTEST_FLAG_SET(break_on_failure, true);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    Run run(input);
    for (int steps = 0; steps < 100 && input.remaining_bytes() > 0; steps++)
        run.step();
    return 0;
}
