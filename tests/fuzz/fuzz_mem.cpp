// Memory tags of every kind, step by step beside models of what they do: contents, addresses,
// statistics, the memory limit, jumps, and what a stop of the library cleans up.
#include "fuzz.h"
#include "mem_model.h"

#include "psp/core.h"

#include <algorithm>
#include <csetjmp>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

using namespace psptest;

namespace {

constexpr std::size_t most_tags = 6;
constexpr std::size_t most_blocks = 48; // of one tag
constexpr std::size_t smallest_limit = 4195328;
constexpr std::size_t buffer_size = 5 * 1024 * 1024;
alignas(16) char buffer[buffer_size];

// ---- The source of all chunks ----

// Whether the library may have memory is foreseen here, and how often it may not is counted.
struct Supply {
    bool buffered = false;
    bool buffer_used = false;
    std::size_t limit = 0;
    unsigned refused = 0;
};
Supply supply;

// The first chunk of an input is always the same memory: new pages cost more than all the rest.
void* watched_source(std::size_t* size, PSP_MEM_INFO* info)
{
    const bool over = supply.limit != 0 && supply.limit < *size + psp_mem_stats.current;
    const bool refuse = over || (supply.buffered && supply.buffer_used);
    const bool first = !refuse && !supply.buffer_used && *size <= buffer_size;
    void* chunk = first && !supply.buffered ? buffer : psp_malloc(size, info);
    CHECK((chunk == nullptr) == refuse);
    CHECK(chunk == nullptr || !supply.buffered || (chunk == buffer && *size == buffer_size));
    supply.refused += refuse;
    supply.buffer_used |= chunk == buffer;
    return chunk;
}

void watched_sink(void* chunk, PSP_MEM_INFO* info)
{
    if (chunk != buffer || supply.buffered)
        psp_free(chunk, info);
    supply.buffer_used &= chunk != buffer;
}

// ---- Attempts ----

struct Outcome {
    void* ptr;
    bool jumped;
    bool refused; // a chunk was asked for and not had
};

jmp_buf jump_target;

// Nothing with a destructor may be alive in `call` where it jumps.
template <class Call>
Outcome attempt(Call call)
{
    const unsigned before = supply.refused;
    void* ptr = nullptr;
    const int jumped = jumped_with(jump_target, [&] { ptr = call(); });
    CHECK(jumped == 0 || (jumped == 1 && ptr == nullptr));
    return {ptr, jumped != 0, supply.refused != before};
}

// ---- Tags ----

std::vector<int> destroyed; // the numbers of tags, in the order of their ends

struct Tag {
    PSP_MEMTAG handle;
    PSP_ALLOCATOR_TYPE type;
    bool jumps;
    int number;
    std::unique_ptr<MemModel> model; // none for the global tag, which the library uses as well
    std::vector<LiveBlock> blocks{};

    static void at_end(void* ctx)
    {
        const auto* self = static_cast<const Tag*>(ctx);
        for (const LiveBlock& block : self->blocks)
            CHECK(has_pattern(block));
        destroyed.push_back(self->number);
    }
};

std::unique_ptr<MemModel> make_model(PSP_ALLOCATOR_TYPE type, PSP_MEMTAG tag)
{
    switch (type) {
    case BLOCK_ALLOCATOR:
        return std::make_unique<BlockModel>();
    case LIST_ALLOCATOR:
        return std::make_unique<ListTagModel>(tag);
    case STACK_ALLOCATOR:
        return std::make_unique<StackModel>();
    default:
        return std::make_unique<LegacyModel>();
    }
}

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
        return size < gib4 - 100;
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

class Run {
  public:
    explicit Run(FuzzedDataProvider& input) : input_(input)
    {
        start();
        add({PSP_GLOBAL_TAG, BLOCK_ALLOCATOR, false, -1, nullptr});
        add({PSP_THREAD_TAG, BLOCK_ALLOCATOR, false, -1, std::make_unique<BlockModel>()});
    }
    ~Run()
    {
        check_totals();
        stop();
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    void step()
    {
        const int dice = input_.ConsumeIntegralInRange(0, 31);
        if (dice == 0)
            return create();
        if (dice == 1)
            return limit();
        if (dice == 2)
            return check_totals();
        Tag& tag = any_tag();
        if (dice == 3)
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
    }

  private:
    void start()
    {
        supply = Supply{};
        destroyed.clear();
        psp_mem_stats = {};
        LargeBlock.mem_info = {};
        LargeBlock.alloc_fcn = watched_source;
        LargeBlock.free_fcn = watched_sink;
        supply.buffered = input_.ConsumeIntegralInRange(0, 3) == 3;
        supply.limit = supply.buffered ? buffer_size : 0;
        CHECK(psp_setMemLimit(supply.buffered ? buffer : nullptr, supply.limit) == sOKAY);
        CHECK(psp_init() == sOKAY);
        held_elsewhere_ = memory_in_use() - held_by_library();
    }

    // What is left is destroyed in the order of creation.
    void stop()
    {
        std::vector<int> expected = destroyed;
        for (int number = 0; number < created_; number++)
            if (std::find(expected.begin(), expected.end(), number) == expected.end())
                expected.push_back(number);
        psp_term();
        CHECK(destroyed == expected);
        CHECK(memory_in_use() == 0 && LargeBlock.chunks == nullptr && !supply.buffer_used);
        CHECK(psp_setMemLimit(nullptr, 0) == sOKAY);
        LargeBlock.alloc_fcn = psp_malloc;
        LargeBlock.free_fcn = psp_free;
    }

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
        const int32_t type = input_.ConsumeIntegralInRange(0, 4);
        const auto flags = input_.ConsumeIntegralInRange<int16_t>(0, 2);
        if (type == 4) {
            const auto unknown = static_cast<PSP_ALLOCATOR_TYPE>(42);
            CHECK(psp_createTagEx(nullptr, flags, unknown, nullptr, nullptr, "", 0) == nullptr);
            return;
        }
        if (tags_.size() == most_tags)
            return;
        const bool jumps = input_.ConsumeBool();
        const unsigned before = supply.refused;
        auto tag = std::make_unique<Tag>(
            Tag{nullptr, static_cast<PSP_ALLOCATOR_TYPE>(type), jumps, created_, nullptr});
        const ZYN_RETCODE rc =
            psp_createTagEx_rc(jumps ? &jump_target : nullptr, flags, tag->type, Tag::at_end,
                               tag.get(), &tag->handle, __FILE__, __LINE__);
        CHECK(rc == sOKAY || supply.refused != before);
        if (rc != sOKAY)
            return;
        created_++;
        tag->model = make_model(tag->type, tag->handle);
        tags_.push_back(std::move(tag));
    }

    void end(Tag& tag)
    {
        destroy_tag(tag.handle);
        if (tag.number < 0)
            return; // nothing happens to the special ones
        CHECK(!destroyed.empty() && destroyed.back() == tag.number);
        std::erase_if(tags_, [&tag](const auto& other) { return other.get() == &tag; });
    }

    void empty(Tag& tag)
    {
        empty_tag(tag.handle);
        if (tag.number < 0)
            return;
        tag.blocks.clear();
        tag.model->free_all();
        check(tag);
    }

    void switch_jumps(Tag& tag)
    {
        tag.jumps = !tag.jumps && tag.handle != PSP_GLOBAL_TAG;
        psp_resetTag(tag.jumps ? &jump_target : nullptr, tag.handle);
    }

    void limit()
    {
        const std::size_t wanted = input_.PickValueInArray<std::size_t>(
            {0, smallest_limit, 2 * smallest_limit, 1, smallest_limit - 1});
        const bool valid = !supply.buffered && (wanted == 0 || wanted >= smallest_limit);
        CHECK(psp_setMemLimit(nullptr, wanted) ==
              (valid ? ZYN_RETCODE{sOKAY} : ZYN_RETCODE{ePSP_FAILURE}));
        CHECK(psp_setMemLimit(buffer, buffer_size) == ePSP_FAILURE);
        if (valid)
            supply.limit = wanted;
    }

    // ---- Blocks ----

    // A failure under a tag that jumps is a jump, unless the request was no request.
    static void check_failure(const Tag& tag, const Request& request, const Outcome& outcome,
                              bool must_fail)
    {
        const bool failed = outcome.ptr == nullptr;
        const bool possible = request.valid() && request.fits() && !must_fail;
        CHECK(failed || possible);
        CHECK(!failed || !possible || outcome.refused);
        CHECK(outcome.jumped == (failed && request.valid() && tag.jumps));
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
        check_failure(tag, request, outcome, false);
        if (tag.model != nullptr && request.valid() && request.fits())
            tag.model->alloc(request.size, address_of(outcome.ptr));
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
        check_failure(tag, request, outcome, tag.type == STACK_ALLOCATOR);
        if (tag.model != nullptr && request.valid() && request.fits())
            tag.model->realloc(address_of(block.ptr), request.size, address_of(outcome.ptr));
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
        if (tag.model != nullptr)
            tag.model->free(address_of(block.ptr));
        forget(tag, block);
        check(tag);
    }

    void move_one(Tag& from, Tag& to)
    {
        LiveBlock& block = any_block(from);
        if (to.blocks.size() == most_blocks)
            return;
        const unsigned before = supply.refused;
        void* const moved = move(block.ptr, block.size, to.handle, from.handle);
        if (&from == &to) {
            CHECK(moved == block.ptr);
            return;
        }
        CHECK(moved != nullptr || block.size == 0 || supply.refused != before);
        CHECK(moved == nullptr || block.size != 0);
        if (to.model != nullptr && block.size != 0)
            to.model->alloc(block.size, address_of(moved));
        if (moved == nullptr) {
            CHECK(has_pattern(block));
        } else {
            if (from.model != nullptr)
                from.model->free(address_of(block.ptr));
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
        CHECK(tag.model == nullptr || info == tag.model->stats());
    }

    // What a tag of the library's own holds, by the sizes in front of its chunks.
    template <class Entry>
    static std::size_t held_in(const void* allocator)
    {
        std::size_t sum = 0;
        for (const auto* chunk = static_cast<const Entry*>(allocator)->chunks; chunk != nullptr;
             chunk = chunk->next)
            sum += (reinterpret_cast<const LARGE_BLOCK_HDR*>(chunk) - 1)->size;
        return sum;
    }

    // Records, and the global tag with all that the library keeps there.
    static std::size_t held_by_library()
    {
        return held_in<LIST_ALLOCATOR_ENTRY>(&static_list_allocator) +
               held_in<BLOCK_ALLOCATOR_ENTRY>(tagGlobal->t_allocator);
    }

    // All tags together hold what the library says it holds.
    void check_totals()
    {
        std::size_t sum = held_elsewhere_ + held_by_library();
        for (const auto& tag : tags_) {
            sum += tag->model == nullptr ? 0 : tag->model->held();
            for (const LiveBlock& block : tag->blocks)
                CHECK(has_pattern(block));
        }
        std::size_t most = 0;
        psp_getMemUsage(nullptr, &most);
        CHECK(memory_in_use() == sum && most >= sum && most >= most_held_);
        most_held_ = most;
    }

    FuzzedDataProvider& input_;
    std::vector<std::unique_ptr<Tag>> tags_;
    int created_ = 0;
    unsigned patterns_ = 0;
    std::size_t held_elsewhere_ = 0; // by tags of the library that nothing here makes it use
    std::size_t most_held_ = 0;
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
