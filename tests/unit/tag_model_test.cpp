// Tags of all kinds side by side, driven through the whole front end beside models that predict
// every address, every refusal, every jump and every counter.
#include "support/scale.h"
#include "support/tag_model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

using namespace psptest;

namespace {

constexpr std::size_t most_tags = 14;
constexpr std::size_t most_live = 60; // blocks of one tag
constexpr std::size_t longest = 3000000;

struct Slot {
    PSP_MEMTAG handle = nullptr; // as the caller names the tag
    bool special = false;        // one of the two that are always there
    bool jumps = false;
    jmp_buf buffer;
    ModelledTag model;
    std::vector<LiveBlock> live;
    Slot* parent = nullptr; // the tag that destroys this one when it goes
    Slot* child = nullptr;
};

// The destroy callback of every tag: it takes its child along, and its parent forgets it.
void on_destroy(void* ctx)
{
    auto* slot = static_cast<Slot*>(ctx);
    if (slot->parent != nullptr)
        slot->parent->child = nullptr;
    if (slot->child != nullptr)
        destroy_tag(slot->child->handle);
}

// What one call asks for.
struct Request {
    std::size_t size;
    int mode;
    const void* data;

    bool refused() const
    {
        return (size == 0 && (mode & (8 | 16)) == 0) || ((mode & 4) != 0 && data == nullptr) ||
               effective_size() >= SIZE_MAX - 1;
    }
    std::size_t effective_size() const
    {
        return mode == 13 && data != nullptr ? std::strlen(static_cast<const char*>(data)) + 1
                                             : size;
    }
};

// What came of it.
struct Outcome {
    void* ptr;
    int jumped; // 0, or what setjmp gave
};

class TagDriver {
  public:
    TagDriver(MemoryModel& model, unsigned seed, bool with_limits)
        : model_(model), random_(seed), with_limits_(with_limits), text_(longest + 2000, 'x'),
          zeros_(longest + 2000, '\0')
    {
        for (std::size_t i = 0; i < text_.size(); i += 1 + i % 7)
            text_[i] = static_cast<char>('a' + i % 26);
        text_.back() = '\0';
    }

    void add_global(ModelledTag model)
    {
        add_special(PSP_GLOBAL_TAG, std::move(model));
    }
    void add_thread()
    {
        ASSERT_NE(getCorrectTag(PSP_THREAD_TAG), nullptr); // makes it
        add_special(PSP_THREAD_TAG, model_.make_tag(BLOCK_ALLOCATOR));
    }

    void step()
    {
        const unsigned dice = random_() % 1000;
        Slot& slot = *slots_[random_() % slots_.size()];
        if (dice < 420)
            get_block(slot);
        else if (dice < 560)
            extend_block(slot);
        else if (dice < 900)
            free_block(slot);
        else if (dice < 945)
            move_block(slot, *slots_[random_() % slots_.size()]);
        else if (dice < 965)
            empty(slot);
        else if (dice < 980)
            create();
        else if (dice < 988)
            destroy(slot);
        else if (dice < 994)
            reset(slot);
        else
            change_limit();
        model_.expect_same_statistics();
    }
    void check_all() const
    {
        model_.expect_same_chunks();
        expect_sound_memory();
        for (const auto& slot : slots_) {
            expect_same_info(*slot);
            for (const LiveBlock& block : slot->live)
                ASSERT_TRUE(has_pattern(block));
        }
    }
    // As the last stop does: the thread's tag, the global one, and the others as they were made.
    void drop_all()
    {
        std::swap(slots_[0], slots_[1]);
        for (std::size_t i = 0; i < slots_.size(); i++)
            model_.destroy_tag(slots_[i]->model);
        slots_.clear();
    }

  private:
    void add_special(PSP_MEMTAG handle, ModelledTag model)
    {
        slots_.push_back(std::make_unique<Slot>());
        slots_.back()->handle = handle;
        slots_.back()->special = true;
        slots_.back()->model = std::move(model);
    }

    // ---- Requests ----

    std::size_t random_size()
    {
        const unsigned kind = random_() % 1000;
        if (kind < 600)
            return 1 + random_() % 300;
        if (kind < 750)
            return (std::size_t{16} << random_() % 10) + random_() % 3 - 1;
        if (kind < 960)
            return 1 + random_() % 6000;
        if (kind < 985)
            return 1 + random_() % 40000;
        if (kind < 997)
            return 1 + random_() % 300000;
        return 1 + random_() % longest;
    }
    Request random_request()
    {
        static constexpr int modes[] = {1, 1, 1, 1, 3, 5, 13, 2, 4, 6, 0, 9, 17, 11, 12};
        Request request{random_size(), modes[random_() % std::size(modes)], nullptr};
        const unsigned odd = random_() % 200;
        if (odd < 6)
            request.size = 0;
        else if (odd == 6)
            request.size = gib4 + random_() % 3 * gib4 + random_() % 1000;
        else if (odd == 7)
            request.size = SIZE_MAX - random_() % 3;
        if ((request.mode & 4) != 0 && random_() % 50 != 0) {
            request.data = text_.data();
            if (request.mode == 13)
                request.data = &text_[text_.size() - 1 - random_() % 400];
            else if (request.size > longest)
                request.mode = 1;
        }
        return request;
    }

    template <class Call>
    static Outcome attempt(Slot& slot, Call call)
    {
        void* result = nullptr;
        void** const place = &result; // what is written between setjmp and longjmp is kept there
        const int jumped = jumped_with(slot.buffer, [&] { *place = call(); });
        return {result, jumped};
    }
    // Holds an outcome against the model's address, with a jump where the tag jumps.
    static void expect_outcome(const Slot& slot, Outcome outcome, std::uintptr_t expected)
    {
        ASSERT_TRUE(is_expected(outcome.ptr, expected)) << outcome.ptr;
        ASSERT_EQ(outcome.jumped, slot.jumps && expected == 0 ? 1 : 0);
    }
    static void expect_refused(Outcome outcome)
    {
        ASSERT_EQ(outcome.ptr, nullptr);
        ASSERT_EQ(outcome.jumped, 0);
    }

    void expect_fill(const char* ptr, std::size_t size, const Request& request) const
    {
        const void* expected = (request.mode & 2) != 0 ? zeros_.data() : request.data;
        if ((request.mode & (2 | 4)) != 0) {
            ASSERT_EQ(std::memcmp(ptr, expected, size), 0);
        }
    }

    // ---- The operations ----

    void get_block(Slot& slot)
    {
        if (slot.live.size() >= most_live)
            return free_block(slot);
        const Request request = random_request();
        const bool by_extending = random_() % 8 == 0; // of NULL, which is the same
        const Outcome outcome = attempt(slot, [&] {
            return by_extending
                       ? extend(nullptr, request.size, slot.handle, request.mode, 5, request.data)
                       : get(request.size, slot.handle, request.mode, request.data);
        });
        if (request.refused())
            return expect_refused(outcome);
        const std::size_t size = request.effective_size();
        expect_outcome(slot, outcome, size > UINT32_MAX ? 0 : slot.model.blocks->alloc(size));
        if (outcome.ptr == nullptr || ::testing::Test::HasFailure())
            return;
        expect_fill(static_cast<char*>(outcome.ptr), size, request);
        add_live(slot, outcome.ptr, size);
        expect_same_info(slot);
    }

    void extend_block(Slot& slot)
    {
        if (slot.live.empty())
            return;
        LiveBlock& block = slot.live[random_() % slot.live.size()];
        ASSERT_TRUE(has_pattern(block));
        const Request request = random_request();
        const std::size_t size = request.effective_size();
        std::size_t incsize = random_() % 3 == 0 ? 0 : random_() % 1000;
        if (request.mode == 13)
            incsize = random_() % 2 == 0 ? 0 : 1;
        const Outcome outcome = attempt(slot, [&] {
            return extend(block.ptr, request.size, slot.handle, request.mode, incsize,
                          request.data);
        });
        if (request.refused())
            return expect_refused(outcome);
        expect_outcome(slot, outcome,
                       size > UINT32_MAX ? 0
                                         : slot.model.blocks->realloc(address_of(block.ptr), size));
        if (::testing::Test::HasFailure())
            return;
        if (outcome.ptr != nullptr) {
            expect_extended(static_cast<char*>(outcome.ptr), size, block, request, incsize);
            block.ptr = outcome.ptr;
            block.size = size;
            write_pattern(block);
        }
        ASSERT_TRUE(has_pattern(block));
        expect_same_info(slot);
    }
    void expect_extended(const char* ptr, std::size_t size, const LiveBlock& before,
                         const Request& request, std::size_t incsize) const
    {
        const bool filled = (request.mode & (2 | 4)) != 0;
        std::size_t grown = filled ? std::min(incsize, size) : 0;
        if ((request.mode & (2 | 4)) == 4 && incsize == 0)
            grown = size; // a copy of the whole
        if (filled)
            expect_fill(ptr + (size - grown), grown, request);
        if ((request.mode & 4) == 0) {
            const std::size_t kept = std::min(before.size, size - grown);
            ASSERT_TRUE(holds(ptr, std::min(kept, pattern_length), before.pattern));
        }
    }

    void free_block(Slot& slot)
    {
        if (slot.live.empty())
            return;
        const std::size_t which = random_() % slot.live.size();
        ASSERT_TRUE(has_pattern(slot.live[which]));
        release(slot.live[which].ptr, slot.handle);
        slot.model.blocks->free(address_of(slot.live[which].ptr));
        remove_live(slot, which);
        expect_same_info(slot);
    }

    void move_block(Slot& from, Slot& to)
    {
        if (from.live.empty())
            return;
        const std::size_t which = random_() % from.live.size();
        LiveBlock block = from.live[which];
        void* const moved = move(block.ptr, block.size, to.handle, from.handle);
        if (&from == &to) {
            ASSERT_EQ(moved, block.ptr);
            return;
        }
        const std::uintptr_t expected = block.size == 0 ? 0 : to.model.blocks->alloc(block.size);
        ASSERT_TRUE(is_expected(moved, expected));
        if (moved == nullptr)
            return;
        from.model.blocks->free(address_of(block.ptr));
        remove_live(from, which);
        block.ptr = moved;
        ASSERT_TRUE(has_pattern(block));
        to.live.push_back(block);
        expect_same_info(from);
        expect_same_info(to);
    }

    // The special values are not taken: nothing happens to their tags.
    void empty(Slot& slot)
    {
        empty_tag(slot.handle);
        if (!slot.special) {
            slot.model.blocks->free_all();
            slot.live.clear();
        }
        expect_same_info(slot);
    }

    void create()
    {
        if (slots_.size() >= most_tags)
            return;
        const auto type = static_cast<PSP_ALLOCATOR_TYPE>(random_() % 4);
        auto slot = std::make_unique<Slot>();
        slot->jumps = random_() % 3 == 0;
        slot->handle = make_tag(type, static_cast<std::int16_t>(random_() % 3),
                                slot->jumps ? &slot->buffer : nullptr, on_destroy, slot.get());
        slot->model = model_.make_tag(type);
        ASSERT_EQ(address_of(slot->handle), slot->model.record);
        if (slot->handle == nullptr)
            return;
        ASSERT_TRUE(is_expected(slot->handle->t_allocator, slot->model.allocator));
        Slot& child = *slots_[random_() % slots_.size()];
        if (!child.special && child.parent == nullptr) {
            child.parent = slot.get();
            slot->child = &child;
        }
        slots_.push_back(std::move(slot));
    }

    void destroy(Slot& slot)
    {
        if (slot.special)
            return destroy_tag(slot.handle);
        std::vector<Slot*> gone; // innermost last
        for (Slot* each = &slot; each != nullptr; each = each->child)
            gone.push_back(each);
        destroy_tag(slot.handle);
        for (auto each = gone.rbegin(); each != gone.rend(); ++each)
            model_.destroy_tag((*each)->model);
        std::erase_if(slots_, [&](const auto& each) {
            return std::find(gone.begin(), gone.end(), each.get()) != gone.end();
        });
    }

    void change_limit()
    {
        const std::size_t limit = random_() % 2 == 0 ? 0 : 4195328;
        if (with_limits_) {
            ASSERT_EQ(psp_setMemLimit(nullptr, limit), sOKAY);
        }
    }

    void reset(Slot& slot)
    {
        slot.jumps = !slot.jumps;
        psp_resetTag(slot.jumps ? &slot.buffer : nullptr, slot.handle);
    }

    // ---- What is held and checked ----

    void add_live(Slot& slot, void* ptr, std::size_t size)
    {
        slot.live.push_back({ptr, size, static_cast<unsigned char>(random_())});
        write_pattern(slot.live.back());
    }
    static void remove_live(Slot& slot, std::size_t which)
    {
        slot.live[which] = slot.live.back();
        slot.live.pop_back();
    }
    static void expect_same_info(const Slot& slot)
    {
        ASSERT_EQ(info_of(slot.handle), slot.model.blocks->info());
    }

    MemoryModel& model_;
    std::mt19937 random_;
    bool with_limits_;
    std::vector<char> text_;
    std::vector<char> zeros_;
    std::vector<std::unique_ptr<Slot>> slots_; // the global tag, the thread's, then as created
};

class Tags : public MemoryLayer, public ::testing::WithParamInterface<unsigned> {
  protected:
    void drive_tags(bool with_limits)
    {
        TagDriver driver(model_, GetParam(), with_limits);
        driver.add_global(std::move(global_));
        driver.add_thread();
        const int operations = in_long_run(8000, 2500000);
        for (int i = 0; i < operations && !HasFailure(); i++) {
            SCOPED_TRACE(::testing::Message() << "operation " << i);
            driver.step();
            expect_nothing_unexplained();
            if (i % walk_distance == 0)
                driver.check_all();
        }
        if (HasFailure())
            return;
        driver.check_all();
        stop([&] { driver.drop_all(); });
    }
};

TEST_P(Tags, OfAllKindsAgreeWithTheirModelsOverTheHeap)
{
    start();
    drive_tags(true);
}

TEST_P(Tags, OfAllKindsAgreeWithTheirModelsInACallersBuffer)
{
    std::vector<std::max_align_t> buffer((9u << 20) / sizeof(std::max_align_t));
    const std::size_t bytes = buffer.size() * sizeof(std::max_align_t);
    ASSERT_EQ(psp_setMemLimit(buffer.data(), bytes), sOKAY);
    start();
    drive_tags(false);
    if (HasFailure())
        return;
    std::memset(static_cast<void*>(buffer.data()), 0xEE, bytes); // it is the caller's again
}

INSTANTIATE_TEST_SUITE_P(Seeds, Tags, ::testing::Range(1u, 3u));

} // namespace
