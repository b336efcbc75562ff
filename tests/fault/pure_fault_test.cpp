// Memory refused to the strings and the binary streams, and what each allocation is for; locks
// refused to the random generators.
#include "support/fault_test.h"
#include "support/mem_test.h"

#include "psp.h"
#include "psp_binstream_int.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

using namespace psptest;

namespace {

constexpr std::size_t mib = 1024 * 1024;

class PureFault : public HeapFaultTest {
  protected:
    void SetUp() override
    {
        HeapFaultTest::SetUp();
        release(get(1, PSP_THREAD_TAG), PSP_THREAD_TAG); // makes the tag: that allocates, too
    }
};

class WordsFault : public PureFault {};
class ErrorTextFault : public PureFault {};
class InputStreamFault : public PureFault {};
class OutputStreamFault : public PureFault {};
class RandomFault : public PureFault {};

std::size_t used(PSP_MEMTAG tag)
{
    return info_of(tag).used.current;
}

// One run of a call whose `nth` allocation was refused.
struct Refusal {
    int nth;
    bool forever; // those after it as well
    bool jumps;   // the tag had a jump buffer
    bool hit;     // there was an nth allocation; else the call had all it asked for
    bool jumped;  // it did not return

    bool jumps_when_hit() const
    {
        return jumped == (hit && jumps);
    }
};

std::ostream& operator<<(std::ostream& out, const Refusal& run)
{
    return out << "allocation " << run.nth << (run.forever ? " and all after" : "")
               << (run.jumps ? ", jump buffer" : "");
}

// Makes the call once for each of its allocations and each manner of refusing it. `attempt` holds
// nothing with a destructor; `look` sees what came of it, with memory to be had again. Gives the
// number of allocations that the call makes.
template <class Attempt, class Look>
int refuse_each_allocation(PSP_MEMTAG tag, Attempt attempt, Look look)
{
    int allocations = 0;
    for (const bool jumps : {false, true})
        for (const bool forever : {false, true})
            allocations = fail_every_call("tag_alloc", forever, [&](Fault& fault, int n) {
                jmp_buf jump;
                psp_resetTag(jumps ? &jump : nullptr, tag);
                const bool jumped = jumped_with(jump, attempt) == 1;
                psp_resetTag(nullptr, tag);
                fault.disarm();
                const Refusal run{n, forever, jumps, fault.failures() > 0, jumped};
                SCOPED_TRACE(testing::PrintToString(run));
                EXPECT_TRUE(run.jumps_when_hit());
                look(run);
            });
    return allocations;
}

// Another thread gets at the global tag: nobody holds its lock.
void expect_global_tag_is_free()
{
    std::thread([] {
        void* block = get(100, PSP_GLOBAL_TAG);
        EXPECT_NE(block, nullptr);
        release(block, PSP_GLOBAL_TAG);
    }).join();
}

// ---- Words ----

// The tags that a caller may have. Blocks come from the allocator whose count of used bytes returns
// to where it was.
std::vector<PSP_MEMTAG> tags_of_all_kinds()
{
    return {make_tag(BLOCK_ALLOCATOR), make_tag(BLOCK_ALLOCATOR, 1), PSP_GLOBAL_TAG,
            PSP_THREAD_TAG};
}

void destroy_tags(const std::vector<PSP_MEMTAG>& tags)
{
    for (const PSP_MEMTAG tag : tags)
        if (tag != PSP_GLOBAL_TAG && tag != PSP_THREAD_TAG)
            destroy_tag(tag);
}

TEST_F(WordsFault, StoreNothingAndKeepNothingWhenTheArrayCannotGrow)
{
    const std::vector<PSP_MEMTAG> tags = tags_of_all_kinds();
    for (const PSP_MEMTAG tag : tags)
        for (const int trim : {0, 1}) {
            const std::size_t before = used(tag);
            char text[32];
            const char* dummy = "untouched";
            const char** words = nullptr;
            std::uint32_t count = 0;
            ZYN_RETCODE code = sOKAY;
            const int allocations = refuse_each_allocation(
                tag,
                [&] {
                    std::strcpy(text, "one,two, three ,,four,five");
                    words = &dummy;
                    count = 77;
                    code = eNOMEMORY; // stays when it jumps
                    code = psp_tokenize(text, ",", &words, &count, trim, tag);
                },
                [&](const Refusal& run) {
                    if (!run.hit) {
                        EXPECT_EQ(code, sOKAY);
                        ASSERT_EQ(count, 5u);
                        EXPECT_STREQ(words[2], trim != 0 ? "three" : " three ");
                        EXPECT_STREQ(words[4], "five");
                        release(words, tag);
                    } else {
                        EXPECT_EQ(code, eNOMEMORY);
                        EXPECT_EQ(words, &dummy);
                        EXPECT_EQ(count, 77u);
                    }
                    EXPECT_EQ(used(tag), before);
                    expect_global_tag_is_free();
                });
            EXPECT_EQ(allocations, 5) << "one a word";
        }
    destroy_tags(tags);
}

TEST_F(WordsFault, ThatAreNoneAskForNothing)
{
    Fault fault("tag_alloc", 1, true);
    char text[] = ", \t,,";
    const char* dummy = "touched";
    const char** words = &dummy;
    std::uint32_t count = 77;
    EXPECT_EQ(psp_tokenize(text, ",", &words, &count, 1, PSP_GLOBAL_TAG), sOKAY);
    EXPECT_EQ(words, nullptr);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(fault.calls(), 0);
}

// ---- Error text ----

std::string message; // of the system whose messages do not stand in the buffer
std::vector<std::size_t> sizes_offered;

char* give_static_message(int, char*, std::size_t size)
{
    sizes_offered.push_back(size);
    return message.data();
}

// The sizes that a message of this length takes: 256 bytes, doubled until it fits with its NUL.
std::vector<std::size_t> sizes_for(std::size_t length)
{
    std::vector<std::size_t> sizes{256};
    while (sizes.back() < length + 1)
        sizes.push_back(sizes.back() * 2);
    return sizes;
}

TEST_F(ErrorTextFault, IsCopiedFromAStaticMessageIntoABufferThatDoublesUntilItFits)
{
    Fault::replace("strerror_r", give_static_message);
    PSP_MEMTAG tag = make_tag();
    for (const std::size_t length : {0, 1, 254, 255, 256, 257, 511, 512, 1023, 1024, 70000}) {
        message.assign(length, 'm');
        sizes_offered.clear();
        char* text = psp_strerr_alloc(ENOENT, tag);
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(text, message);
        EXPECT_NE(text, message.data()) << "the caller's own";
        EXPECT_EQ(sizes_offered, sizes_for(length)) << length;
        EXPECT_EQ(used(tag), sizes_for(length).back());
        release(text, tag);
    }
    destroy_tag(tag);
}

TEST_F(ErrorTextFault, ThatTheSystemWroteIntoTheBufferIsLeftAsItIs)
{
    Fault::replace(
        "strerror_r", +[](int error, char* buffer, std::size_t size) {
            EXPECT_EQ(error, -7);
            EXPECT_EQ(size, 256u);
            std::memset(buffer, 'w', size - 1);
            buffer[size - 1] = '\0';
            return buffer;
        });
    char* text = psp_strerr_alloc(-7, PSP_GLOBAL_TAG);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(text, std::string(255, 'w'));
    release(text, PSP_GLOBAL_TAG);
}

TEST_F(ErrorTextFault, IsNullAndLeavesNothingWithoutMemory)
{
    Fault::replace("strerror_r", give_static_message);
    const std::vector<PSP_MEMTAG> tags = tags_of_all_kinds();
    for (const PSP_MEMTAG tag : tags)
        for (const std::size_t length : {0, 255, 256, 1000, 5000}) {
            message.assign(length, 'm');
            const std::size_t before = used(tag);
            char* text = nullptr;
            const int allocations = refuse_each_allocation(
                tag,
                [&] {
                    text = nullptr;
                    text = psp_strerr_alloc(ENOENT, tag);
                },
                [&](const Refusal& run) {
                    EXPECT_EQ(text != nullptr, !run.hit);
                    release(text, tag);
                    EXPECT_EQ(used(tag), before);
                    expect_global_tag_is_free();
                });
            EXPECT_EQ(allocations, static_cast<int>(sizes_for(length).size()));
        }
    destroy_tags(tags);
}

// ---- Input streams ----

// A transport that delivers its bytes all at once and then fails.
struct Source {
    std::string bytes;

    static ZYN_RETCODE read(const void* dataCB, void* buf, std::uint32_t size, std::uint32_t* len,
                            std::uint32_t)
    {
        auto* self = static_cast<Source*>(const_cast<void*>(dataCB));
        const std::size_t count = std::min<std::size_t>(self->bytes.size(), size);
        if (count == 0)
            return eEOD;
        std::memcpy(buf, self->bytes.data(), count);
        self->bytes.erase(0, count);
        *len = static_cast<std::uint32_t>(count);
        return sOKAY;
    }
};

TEST_F(InputStreamFault, CannotBeMadeWithoutMemoryAndLeavesItsRecordBehindWithoutABuffer)
{
    Source source{"x"};
    auto* const untouched = reinterpret_cast<PSP_INPUTBUFF>(std::uintptr_t{0x1234});
    PSP_INPUTBUFF in = nullptr;
    ZYN_RETCODE code = sOKAY;
    std::size_t expected = used(PSP_GLOBAL_TAG);
    const int allocations = refuse_each_allocation(
        PSP_GLOBAL_TAG,
        [&] {
            in = untouched;
            code = eNOMEMORY; // stays when it jumps
            code = psp_inputBuffCreate(Source::read, &source, 0, &in);
        },
        [&](const Refusal& run) {
            if (!run.hit) {
                EXPECT_EQ(code, sOKAY);
                EXPECT_EQ(used(PSP_GLOBAL_TAG), expected + 40 + 4096) << "record and buffer";
                psp_inputBuffDestroy(in);
            } else {
                EXPECT_EQ(code, eNOMEMORY);
                EXPECT_EQ(in, untouched);
                expected += run.nth == 2 ? 40 : 0;
            }
            EXPECT_EQ(used(PSP_GLOBAL_TAG), expected);
            expect_global_tag_is_free();
        });
    EXPECT_EQ(allocations, 2) << "record and buffer";
}

TEST_F(InputStreamFault, LeavesTheTextOfAStringUnreadWithoutMemory)
{
    const std::vector<PSP_MEMTAG> tags = tags_of_all_kinds();
    for (const PSP_MEMTAG tag : tags) {
        const std::size_t before = used(tag);
        PSP_INPUTBUFF in = nullptr;
        Source source;
        ASSERT_EQ(psp_inputBuffCreate(Source::read, &source, 0, &in), sOKAY);
        const std::size_t with_stream = used(tag);
        char* text = nullptr;
        char untouched = 'u';
        ZYN_RETCODE code = sOKAY;
        const int allocations = refuse_each_allocation(
            tag,
            [&] {
                psp_inputBuffReset(in);
                source.bytes.assign("\4\0\0\0textnext", 12);
                text = &untouched;
                code = eNOMEMORY; // stays when it jumps
                code = psp_inputBuffGetString(in, &text, tag);
            },
            [&](const Refusal& run) {
                if (!run.hit) {
                    EXPECT_EQ(code, sOKAY);
                    EXPECT_STREQ(text, "text");
                    release(text, tag);
                } else {
                    EXPECT_EQ(code, eNOMEMORY);
                    EXPECT_EQ(text, &untouched);
                    char bytes[4];
                    EXPECT_EQ(psp_inputBuffGetBytes(in, bytes, 4), sOKAY);
                    EXPECT_EQ(std::string_view(bytes, 4), "text");
                }
                char next[4];
                EXPECT_EQ(psp_inputBuffGetBytes(in, next, 4), sOKAY);
                EXPECT_EQ(std::string_view(next, 4), "next");
                EXPECT_EQ(used(tag), with_stream);
                expect_global_tag_is_free();
            });
        EXPECT_EQ(allocations, 1);
        psp_inputBuffDestroy(in);
        EXPECT_EQ(used(tag), before);
    }
    destroy_tags(tags);
}

TEST_F(InputStreamFault, RefusesAStringThatTheSystemHasNoMemoryFor)
{
    PSP_MEMTAG tag = make_tag();
    PSP_INPUTBUFF in = nullptr;
    Source source;
    ASSERT_EQ(psp_inputBuffCreate(Source::read, &source, 0, &in), sOKAY);
    // 6 MiB are a large block of their own, which the heap refuses; the greatest lengths that a
    // string can claim are more than any block can hold, however much the heap has.
    for (const std::uint32_t claimed : {std::uint32_t{6 * mib}, 0xFFFFFFFEu, 0xFFFFFFE0u}) {
        source.bytes.assign(reinterpret_cast<const char*>(&claimed), 4);
        const Fault heap("malloc", claimed == 6 * mib ? 1 : 0, true);
        char* text = nullptr;
        EXPECT_EQ(psp_inputBuffGetString(in, &text, tag), eNOMEMORY) << claimed;
        EXPECT_EQ(text, nullptr);
        EXPECT_EQ(used(tag), 0u);
    }
    psp_inputBuffDestroy(in);
    destroy_tag(tag);
}

// ---- Output streams ----

// A transport that keeps what it is given.
struct Sink {
    std::string bytes;
    std::vector<std::size_t> blocks;

    static ZYN_RETCODE write(const void* dataCB, const void* data, std::uint32_t size)
    {
        auto* self = static_cast<Sink*>(const_cast<void*>(dataCB));
        self->bytes.append(static_cast<const char*>(data), size);
        self->blocks.push_back(size);
        return sOKAY;
    }
};

// What a buffer whose growth number `refused` (1 to 28) failed writes of `total` bytes: it keeps
// the size it had, and is written whenever one more byte comes. The last entry is the flush.
std::vector<std::size_t> blocks_after_refusal(int refused, std::size_t total)
{
    const std::size_t size = 4096 + 1024 * static_cast<std::size_t>(refused - 1);
    std::vector<std::size_t> blocks((total - 1) / size, size);
    blocks.push_back(total - blocks.size() * size);
    return blocks;
}

// Puts byte by byte and in pieces; a put that jumps placed what fitted before.
TEST_F(OutputStreamFault, KeepsItsSizeFromARefusedGrowthOn)
{
    std::string data(100'000, '\0');
    for (std::size_t i = 0; i < data.size(); i++)
        data[i] = static_cast<char>(i * 7 + i / 251);
    for (int refused = 1; refused <= 28; refused++)
        for (const bool forever : {false, true})
            for (const std::size_t piece : {std::size_t{1}, std::size_t{1000}, data.size()}) {
                Sink sink;
                PSP_OUTPUTBUFF out = nullptr;
                ASSERT_EQ(psp_outputBuffCreate(Sink::write, &sink, 0, &out), sOKAY);
                Fault fault("tag_alloc", refused, forever);
                for (std::size_t i = 0; i < data.size(); i += piece)
                    ASSERT_EQ(
                        psp_outputBuffPutBytes(out, &data[i], std::min(piece, data.size() - i)),
                        sOKAY);
                EXPECT_EQ(fault.calls(), refused) << "it never asks again";
                EXPECT_EQ(out->max, out->size);
                EXPECT_EQ(psp_outputBuffFlush(out), sOKAY);
                EXPECT_EQ(sink.blocks, blocks_after_refusal(refused, data.size()));
                EXPECT_EQ(sink.bytes, data);
                psp_outputBuffDestroy(out);
            }
}

TEST_F(OutputStreamFault, JumpsOnceOutOfAPutThatCannotGrowAndLosesNothing)
{
    std::string data(50'000, 'd');
    for (std::size_t i = 0; i < data.size(); i++)
        data[i] = static_cast<char>(i * 11 + i / 256);
    const std::size_t before = used(PSP_GLOBAL_TAG);
    for (const int refused : {1, 2, 14, 27, 28}) {
        Sink sink;
        PSP_OUTPUTBUFF out = nullptr;
        ASSERT_EQ(psp_outputBuffCreate(Sink::write, &sink, 0, &out), sOKAY);
        jmp_buf jump;
        psp_resetTag(&jump, PSP_GLOBAL_TAG);
        Fault fault("tag_alloc", refused, true);
        int jumps = 0;
        for (std::size_t i = 0; i < data.size();) {
            ZYN_RETCODE code = sOKAY;
            if (jumped_with(jump, [&] { code = psp_outputBuffPutChar(out, data[i]); }) == 0)
                i++; // else the byte did not enter: it is put again
            else
                jumps++;
            ASSERT_EQ(code, sOKAY);
            ASSERT_LE(jumps, 1);
        }
        psp_resetTag(nullptr, PSP_GLOBAL_TAG);
        EXPECT_EQ(jumps, 1);
        EXPECT_EQ(psp_outputBuffFlush(out), sOKAY);
        EXPECT_EQ(sink.blocks, blocks_after_refusal(refused, data.size()));
        EXPECT_EQ(sink.bytes, data);
        fault.disarm();
        expect_global_tag_is_free();
        psp_outputBuffDestroy(out);
        EXPECT_EQ(used(PSP_GLOBAL_TAG), before);
    }
}

// ---- Random generators ----

TEST_F(RandomFault, NeedsASynchronisationObjectForOneKindOnly)
{
    const std::size_t before = used(PSP_GLOBAL_TAG);
    Fault fault("psp_syncCreate_check", 1, true);
    EXPECT_EQ(psp_randCreate(1), nullptr);
    EXPECT_EQ(fault.failures(), 1);
    EXPECT_EQ(used(PSP_GLOBAL_TAG), before) << "the record is given back";

    const PSP_RAND generator = psp_randCreateNoSem(5489);
    ASSERT_NE(generator, nullptr);
    EXPECT_EQ(fault.failures(), 1);
    EXPECT_EQ(psp_randGetUInt32(generator), 3499211612u);
    psp_randDestroy(generator);
    EXPECT_EQ(used(PSP_GLOBAL_TAG), before);
}

} // namespace
