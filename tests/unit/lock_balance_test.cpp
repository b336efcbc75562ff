// Every operation takes and gives back the same locks: with one thread at work, the depth of every
// mutex is zero after each call, neither held on to nor released once too often. And every test
// ends with as many synchronisation objects as it began with.
#include "support/mem_test.h"

#include "psp.h"
#include "psp_sync_int.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csetjmp>
#include <cstddef>
#include <string>

#include <fcntl.h>

using namespace psptest;

namespace {

class Locks : public PspTest {
  protected:
    void SetUp() override
    {
        PspTest::SetUp();
        taken_ = taken();
    }
    void TearDown() override
    {
        EXPECT_EQ(taken(), taken_);
        PspTest::TearDown();
    }

    static std::ptrdiff_t taken()
    {
        return std::count_if(
            sem_table[0].entry, sem_table[0].entry + sem_table[0].untouched,
            [](const PSP_SEM_ENTRY& entry) { return entry.avail == SEM_ALLOCATED; });
    }
    static void expect_balanced(const char* after)
    {
        for (int i = 0; i < sem_table[0].untouched; i++) {
            const PSP_SEM_ENTRY& entry = sem_table[0].entry[i];
            if (entry.type != PSP_SEM_EVENT) { // deleted ones too: none may be deleted while held
                ASSERT_EQ(entry.obj.m.count, 0) << "entry " << i << " after " << after;
                ASSERT_EQ(entry.obj.m.id, 0u) << "entry " << i << " after " << after;
            }
        }
        ASSERT_EQ(pthread_mutex_trylock(&semTabMutex), 0) << after;
        pthread_mutex_unlock(&semTabMutex);
    }

  private:
    std::ptrdiff_t taken_ = 0;
};

#define BALANCED(call)                                                                             \
    call;                                                                                          \
    ASSERT_NO_FATAL_FAILURE(expect_balanced(#call))

TEST_F(Locks, AreBalancedAfterEveryOperationOfATag)
{
    for (const PSP_ALLOCATOR_TYPE type : all_types) {
        SCOPED_TRACE(type);
        jmp_buf buffer;
        BALANCED(PSP_MEMTAG tag = make_tag(type, 1));
        BALANCED(void* block = get(100, tag));
        BALANCED(void* zeroed = get(100, tag, 3));
        BALANCED(void* large = get(100000, tag));
        BALANCED(EXPECT_EQ(get(SIZE_MAX - 2, tag), nullptr));
        BALANCED(void* grown = extend(block, 200, tag));
        BALANCED(void* grown_much = extend(large, 200000, tag));
        BALANCED(EXPECT_EQ(extend(zeroed, SIZE_MAX - 2, tag), nullptr));
        BALANCED(void* moved = move(zeroed, 100, PSP_GLOBAL_TAG, tag));
        BALANCED(release(moved, PSP_GLOBAL_TAG));
        BALANCED(release(grown != nullptr ? grown : block, tag));
        BALANCED(release(grown_much != nullptr ? grown_much : large, tag));
        BALANCED(info_of(tag));
        BALANCED(EXPECT_EQ(jumped_with(buffer,
                                       [&] {
                                           psp_resetTag(&buffer, tag);
                                           get(SIZE_MAX - 2, tag);
                                       }),
                           1));
        BALANCED(psp_resetTag(nullptr, tag));
        BALANCED(empty_tag(tag));
        BALANCED(get(10, tag));
        BALANCED(destroy_tag(tag));
    }
}

TEST_F(Locks, AreBalancedAfterEveryOperationOfTheSpecialTags)
{
    for (const PSP_MEMTAG tag : {PSP_GLOBAL_TAG, PSP_THREAD_TAG}) {
        BALANCED(void* block = get(0, tag, 13, "text"));
        BALANCED(void* grown = extend(block, 9000, tag));
        BALANCED(release(grown, tag));
        BALANCED(psp_resetTag(nullptr, tag));
        BALANCED(empty_tag(tag));
        BALANCED(info_of(tag));
    }
}

TEST_F(Locks, AreBalancedAfterEveryOperationOfAPool)
{
    for (const PSP_MEMTAG tag : {PSP_MEMTAG{nullptr}, PSP_GLOBAL_TAG}) {
        PSP_POOL pool = nullptr;
        BALANCED(ASSERT_EQ(
            psp_poolCreateEx(tag, PSP_POOL_SIZE_INFO{}, "lock", nullptr, nullptr, nullptr, &pool),
            sOKAY));
        BALANCED(void* object = psp_poolGetMem(pool, 100, 1, nullptr, "", 0));
        BALANCED(void* other = psp_poolGetMem(pool, 100, 1, nullptr, "", 0));
        BALANCED(EXPECT_EQ(psp_poolGetMem(pool, SIZE_MAX, 1, nullptr, "", 0), nullptr));
        BALANCED(psp_poolSetMaxPooled(pool, 1));
        BALANCED(psp_poolPut(pool, object));
        BALANCED(psp_poolPut(pool, other)); // one too many
        BALANCED(psp_poolGetMem(pool, 100, 1, nullptr, "", 0));
        BALANCED(psp_poolDestroy(pool));
    }
}

TEST_F(Locks, AreBalancedAfterEveryOperationOfTheRegistry)
{
    void* data = nullptr;
    const auto refuse = [](void*) -> ZYN_RETCODE { return ePSP_FAILURE; };
    BALANCED(EXPECT_EQ(psp_globalGet("a", 10, nullptr, nullptr, &data), sOKAY));
    BALANCED(EXPECT_EQ(psp_globalGet("a", 10, nullptr, nullptr, &data), sOKAY));
    BALANCED(EXPECT_NE(psp_globalGet("b", 10, refuse, nullptr, &data), sOKAY));
}

TEST_F(Locks, AreBalancedAfterEveryOperationOfTheOutput)
{
    const TempDir dir;
    const std::string path = dir / "f";
    BALANCED(psp_log_openEx(nullptr, path.c_str()));
    BALANCED(psp_stdout_openEx(nullptr, path.c_str()));
    BALANCED(psp_log_createEx(nullptr, dir.c_str(), "g"));
    BALANCED(EXPECT_NE(psp_log_openEx(nullptr, (path + "/none").c_str()), sOKAY));
    BALANCED(psp_printf("%d", 1));
    BALANCED(psp_log("%d", 1));
    BALANCED(psp_log_with_time("%d", 1));
    BALANCED(psp_flush());
    BALANCED(psp_flushErr());
    BALANCED(PSP_LOG_CHUNK chunk = psp_log_chunk_init());
    BALANCED(psp_log_chunk(chunk, "a"));
    BALANCED(psp_log_chunk_end(chunk, "b"));
    BALANCED(psp_stdout_closeEx(nullptr));
    BALANCED(psp_log_closeEx(nullptr));
    BALANCED(psp_log_closeEx(nullptr));
    BALANCED(psp_log_closeEx(nullptr)); // none is left
    PSP_LOG_CTX ctx;
    BALANCED(ASSERT_EQ(psp_log_initCtx(&ctx), sOKAY));
    BALANCED(psp_logEx(&ctx, "%s", ""));
    BALANCED(psp_log_termCtx(&ctx));
}

TEST_F(Locks, AreBalancedAfterWorkOnFiles)
{
    const TempDir dir;
    const std::string path = dir / "f";
    BALANCED(PSP_FH file = psp_fileOpen(path.c_str(), O_RDWR | O_CREAT, 0));
    BALANCED(EXPECT_EQ(psp_fileSeekWrite(file, 5, "abc", 3), 3u));
    char bytes[3];
    BALANCED(EXPECT_EQ(psp_fileSeekRead(file, 5, bytes, 3), 3u));
    BALANCED(EXPECT_EQ(psp_fileLength(file), 8u));
    BALANCED(EXPECT_EQ(psp_fileLock(file), sOKAY));
    BALANCED(psp_fileUnlock(file));
    BALANCED(psp_fileClose(file));
    BALANCED(EXPECT_EQ(psp_fileCopy(path.c_str(), (path + "2").c_str()), sOKAY));
    BALANCED(EXPECT_EQ(psp_fileOpen((path + "/none").c_str(), O_RDONLY, 0), nullptr));
    BALANCED(release(psp_tmpdir(PSP_THREAD_TAG), PSP_THREAD_TAG));
    BALANCED(EXPECT_EQ(psp_setTmpDir(nullptr), sOKAY));
}

} // namespace
